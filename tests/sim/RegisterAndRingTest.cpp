#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <future>

#include "BufferRing.h"
#include "CallbackRegistry.h"
#include "ErrorRecord.h"
#include "OrvixBoard.h"
#include "RegisterSpace.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

TEST(RegisterSpaceTest, FixedRegistersIdentifyTheBoardAndRefuseWrites) {
    RegisterSpace regs(0x00051302, 0x18030042);
    const std::pair<uint32_t, uint32_t> fixed[] = {{kRegisterId, kBoardIdValue},
                                                   {kRegisterFirmwareVersion, 0x00051302},
                                                   {kRegisterSerial, 0x18030042}};
    for (const auto& [address, value] : fixed) {
        EXPECT_EQ(test::got(regs, address), value);
        Status s = regs.write(address, 0x1234);
        EXPECT_EQ(s.code, ORVIX_ERR_REGISTER_READ_ONLY);
        EXPECT_EQ(s.subject, address);
        EXPECT_EQ(test::got(regs, address), value) << "a refused write must not change it";
    }
}

TEST(RegisterSpaceTest, UnalignedAddressesFailBothWays) {
    RegisterSpace regs(1, 2);
    for (uint32_t address : {0x1u, 0x2u, 0x3u, 0x1001u, 0xFFFFFFFFu}) {
        uint32_t v = 0;
        Status r = regs.read(address, v);
        EXPECT_EQ(r.code, ORVIX_ERR_REGISTER_UNALIGNED) << address;
        EXPECT_EQ(r.subject, address);
        EXPECT_EQ(regs.write(address, 5).code, ORVIX_ERR_REGISTER_UNALIGNED) << address;
    }
    EXPECT_EQ(test::got(regs, 0x1000), 0u) << "an unaligned write landed on the word below";
}

TEST(RegisterSpaceTest, ScratchRegistersKeepWhatWasWritten) {
    RegisterSpace regs(1, 2);
    EXPECT_EQ(test::got(regs, 0xFFFFFFFC), 0u) << "never written reads 0";
    ASSERT_TRUE(regs.write(0x100, 0xCAFEF00D).ok());
    ASSERT_TRUE(regs.write(0x104, 7).ok());
    EXPECT_EQ(test::got(regs, 0x100), 0xCAFEF00Du);
    EXPECT_EQ(test::got(regs, 0x104), 7u);
    ASSERT_TRUE(regs.write(0x100, 0).ok());
    EXPECT_EQ(test::got(regs, 0x100), 0u);
}

TEST(BufferRingTest, RingsBeyondTheLimitsAndIndexesOutsideTheRingFail) {
    BufferRing ring;
    EXPECT_EQ(ring.allocate(0, 100).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(ring.allocate(2, 0).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(ring.allocate(256, BufferRing::kMaxTotalBytes / 255).code, ORVIX_ERR_REFUSED);
    void* address = nullptr;
    OrvixBufferStatus status{};
    EXPECT_EQ(ring.address(0, address).code, ORVIX_ERR_INVALID_ARGUMENT) << "empty ring";
    ASSERT_TRUE(ring.allocate(4, 1000).ok());
    EXPECT_TRUE(ring.address(3, address).ok());
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(address) % 64, 0u);
    EXPECT_EQ(ring.address(4, address).code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(ring.status(4, status).code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_TRUE(ring.status(3, status).ok());
    EXPECT_EQ(status.ready, 0u);
}

TEST(BufferRingTest, SameShapeKeepsBuffersOtherShapeReplacesThemWritingClearsReady) {
    BufferRing ring;
    ASSERT_TRUE(ring.allocate(2, 128).ok());
    OrvixBufferStatus published{};
    published.ready = 1;
    published.frameNumber = 9;
    ring.publish(1, published);
    void* before = nullptr;
    ASSERT_TRUE(ring.address(1, before).ok());
    ring.data(1)[127] = 0xAB;

    ASSERT_TRUE(ring.allocate(2, 128).ok());
    void* same = nullptr;
    ASSERT_TRUE(ring.address(1, same).ok());
    EXPECT_EQ(same, before);
    OrvixBufferStatus status{};
    ASSERT_TRUE(ring.status(1, status).ok());
    EXPECT_EQ(status.frameNumber, 9u);
    EXPECT_EQ(status.ready, 1u);

    published.compressedSize = 99;
    ring.publish(1, published);
    ring.markWriting(1);
    ASSERT_TRUE(ring.status(1, status).ok());
    EXPECT_EQ(status.ready, 0u) << "a buffer being written is not ready";
    EXPECT_EQ(status.compressedSize, 0u);

    ring.publish(1, published);
    ASSERT_TRUE(ring.allocate(3, 256).ok());
    EXPECT_EQ(ring.count(), 3u);
    EXPECT_EQ(ring.bufferBytes(), 256u);
    ASSERT_TRUE(ring.status(1, status).ok());
    EXPECT_EQ(status.ready, 0u);
    EXPECT_EQ(ring.data(1)[127], 0u) << "new buffers start zeroed";
}

TEST(CallbackRegistryTest, KnowsWhichEventsExist) {
    for (uint32_t e : {1u, 2u, 3u, 4u, 1u | ORVIX_SIGNAL_RISING_EDGE,
                       128u | ORVIX_SIGNAL_FALLING_EDGE, 2u | ORVIX_SIGNAL_FALLING_EDGE}) {
        EXPECT_TRUE(CallbackRegistry::isValidEvent(e)) << std::hex << e;
    }
    for (uint32_t e : {0u, 5u, 8u, ORVIX_SIGNAL_RISING_EDGE, 3u | ORVIX_SIGNAL_RISING_EDGE,
                       256u | ORVIX_SIGNAL_RISING_EDGE,
                       2u | ORVIX_SIGNAL_RISING_EDGE | ORVIX_SIGNAL_FALLING_EDGE, 2u | 0x200000u}) {
        EXPECT_FALSE(CallbackRegistry::isValidEvent(e)) << std::hex << e;
    }
}

TEST(CallbackRegistryTest, FiresTheRegisteredFunctionWithItsContext) {
    CallbackRegistry registry;
    test::EventRecorder a, b;
    EXPECT_EQ(registry.add(1, nullptr, &a).code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(registry.add(9, test::EventRecorder::callback, &a).code, ORVIX_ERR_INVALID_ARGUMENT);
    ASSERT_TRUE(registry.add(1, test::EventRecorder::callback, &a).ok());
    ASSERT_TRUE(registry.add(4, test::EventRecorder::callback, &b).ok());
    EXPECT_TRUE(registry.fire(1));
    EXPECT_TRUE(registry.fire(4));
    EXPECT_FALSE(registry.fire(2));
    EXPECT_EQ(a.events(), std::vector<uint32_t>{1});
    EXPECT_EQ(b.events(), std::vector<uint32_t>{4});
    // Registering again replaces the function.
    ASSERT_TRUE(registry.add(1, test::EventRecorder::callback, &b).ok());
    registry.fire(1);
    EXPECT_EQ(b.events(), (std::vector<uint32_t>{4, 1}));
    registry.remove(1);
    EXPECT_FALSE(registry.fire(1));
    EXPECT_FALSE(registry.isRegistered(1));
}

TEST(CallbackRegistryTest, WatchedSignalsCoverEitherPolarity) {
    CallbackRegistry registry;
    test::EventRecorder r;
    EXPECT_EQ(registry.watchedSignals(), 0u);
    for (uint32_t e : {2u | ORVIX_SIGNAL_RISING_EDGE, 64u | ORVIX_SIGNAL_FALLING_EDGE, 1u}) {
        registry.add(e, test::EventRecorder::callback, &r);
    }
    EXPECT_EQ(registry.watchedSignals(), 2u | 64u) << "a frame event is no signal";
    registry.remove(2 | ORVIX_SIGNAL_RISING_EDGE);
    EXPECT_EQ(registry.watchedSignals(), 64u);
}

struct Reentrant {
    CallbackRegistry* registry;
    int calls = 0;
};

TEST(CallbackRegistryTest, ACallbackMayUnregisterItself) {
    CallbackRegistry registry;
    Reentrant ctx{&registry};
    registry.add(
        3,
        [](uint32_t event, void* c) {
            auto* self = static_cast<Reentrant*>(c);
            ++self->calls;
            self->registry->remove(event);  // must not wait for itself
        },
        &ctx);
    EXPECT_TRUE(registry.fire(3));
    EXPECT_FALSE(registry.fire(3));
    EXPECT_EQ(ctx.calls, 1);
}

struct Blocking {
    std::promise<void> entered;
    std::shared_future<void> release;
    std::atomic<bool>* removed;
    bool removedWhileRunning = false;
};

TEST(CallbackRegistryThreadTest, RemoveWaitsForACallInProgress) {
    CallbackRegistry registry;
    std::atomic<bool> removed{false};
    std::promise<void> release;
    Blocking ctx{{}, release.get_future().share(), &removed};
    registry.add(
        1,
        [](uint32_t, void* c) {
            auto* self = static_cast<Blocking*>(c);
            self->entered.set_value();
            self->release.wait();
            self->removedWhileRunning = self->removed->load();
        },
        &ctx);
    std::thread board([&] { registry.fire(1); });
    ctx.entered.get_future().wait();
    std::thread user([&] {
        registry.remove(1);
        removed = true;
    });
    // Give a remove() that wrongly returns at once every chance to show it; a correct one stays
    // blocked however long this takes, so the test never depends on timing.
    for (int i = 0; i < 2000 && !removed; ++i) {
        std::this_thread::yield();
    }
    release.set_value();
    user.join();
    board.join();
    // The context may be freed once remove() returned: the call must have ended before that.
    EXPECT_FALSE(ctx.removedWhileRunning);
    EXPECT_TRUE(removed);
}

TEST(ErrorRecordTest, HoldsTheLastFailureUntilClearedWithItsTextCut) {
    ErrorRecord record;
    OrvixErrorInfo info = record.read(false);
    EXPECT_EQ(info.code, ORVIX_ERR_NONE);
    record.record(ORVIX_FN_SET_INFO, Status::fail(ORVIX_ERR_OUT_OF_RANGE, "first", 0x10000003));
    record.record(ORVIX_FN_OPEN, Status::fail(ORVIX_ERR_OPEN_FAILED, "second"));
    info = record.read(false);
    EXPECT_EQ(info.function, ORVIX_FN_OPEN);
    EXPECT_EQ(info.parameter, 0);
    EXPECT_EQ(info.code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_STREQ(info.text, "second");
    info = record.read(true);
    EXPECT_EQ(info.code, ORVIX_ERR_OPEN_FAILED) << "the clearing read still returns the error";
    info = record.read(false);
    EXPECT_EQ(info.code, ORVIX_ERR_NONE);
    EXPECT_EQ(info.function, ORVIX_FN_NONE);

    record.record(ORVIX_FN_GET_INFO, Status::fail(ORVIX_ERR_REFUSED, std::string(1000, 'x')));
    info = record.read(false);
    EXPECT_EQ(std::string(info.text), std::string(sizeof info.text - 1, 'x')) << "cut, terminated";
}

}  // namespace
}  // namespace orvix::sim
