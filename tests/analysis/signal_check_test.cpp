#include "analysis/signal_check.h"

#include <gtest/gtest.h>

#include <set>

#include "fake_board.h"

namespace lumetra::test {
namespace {

// The fake board with registrations that fail for chosen events.
class RefusingLibrary final : public ForwardingBoardLibrary {
  public:
    explicit RefusingLibrary(FakeBoardLibrary& lib) : ForwardingBoardLibrary(lib), fake_(lib) {}
    std::set<uint32_t> refuse;

    int RegisterCallback(OrvixHandle h, uint32_t e, OrvixCallback f, void* c) override {
        if (refuse.count(e) != 0) {
            fake_.calls.push_back({"RegisterCallback", e});
            return 0;
        }
        return ForwardingBoardLibrary::RegisterCallback(h, e, f, c);
    }

  private:
    FakeBoardLibrary& fake_;
};

struct SignalFixture : ::testing::Test {
    FakeBoardLibrary fake;
    RefusingLibrary lib{fake};
    RecordingPrompt prompt;
    OrvixHandle h = ORVIX_INVALID_HANDLE;

    void SetUp() override {
        fake.boards.push_back(FakeBoard{});
        h = fake.Open(2, 0);
        fake.calls.clear();
    }
    std::vector<uint32_t> events(const std::string& fn) const {
        std::vector<uint32_t> out;
        for (const FakeCall& c : fake.callsNamed(fn)) {
            out.push_back(c.id);
        }
        return out;
    }
};

TEST(SignalNames, EventIdsAndFailureTexts) {
    EXPECT_EQ(SignalEventId(0, 0), 0x800001u);
    EXPECT_EQ(SignalEventId(5, 1), 0x400020u);
    EXPECT_EQ(SignalEventId(7, 2), 0x400080u);
    const char* names[] = {"Internal Trigger",     "General Input 1",     "General Input 2",
                           "Shaft Encoder A",      "Shaft Encoder B",     "Board Sync",
                           "Integration Signal 1", "Integration Signal 2"};
    for (int row = 0; row < kSignalCount; ++row) {
        EXPECT_EQ(RegisterFailureText(row),
                  "Resister callback " + std::string(names[row]) + " failure");
    }
}

TEST_F(SignalFixture, OnlyInternalTriggerCheckedChangesNothing) {
    SignalCheck check(&lib, h, prompt);
    check.SetChecked(0, true);
    EXPECT_FALSE(check.Start());
    ASSERT_EQ(prompt.texts, (std::vector<std::string>{"Select the signal you want to check !"}));
    EXPECT_TRUE(fake.calls.empty());
    EXPECT_FALSE(check.running());
    EXPECT_FALSE(check.timerActive());
    EXPECT_TRUE(check.controls().start);

    prompt.texts.clear();
    check.SetChecked(0, false);
    EXPECT_FALSE(check.Start());
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{std::string(kSelectSignalText)}));
    EXPECT_TRUE(fake.calls.empty());
}

TEST_F(SignalFixture, WithoutABoardStartIsRefused) {
    for (OrvixHandle none : {ORVIX_INVALID_HANDLE, 0}) {
        RecordingPrompt p;
        SignalCheck check(&lib, none, p);
        check.SetChecked(1, true);
        EXPECT_FALSE(check.Start());
        EXPECT_EQ(p.texts, (std::vector<std::string>{"Please open the collection card"}));
        EXPECT_FALSE(check.controls().start);
        EXPECT_FALSE(check.controls().stop);
    }
    EXPECT_TRUE(fake.calls.empty());
}

TEST_F(SignalFixture, StartClearsCountersThenRegistersRowsOneToSevenInOrder) {
    SignalCheck check(&lib, h, prompt);
    for (int row : {7, 0, 3, 1}) {
        check.SetChecked(row, true);
    }
    check.SetPolarity(7, 1);
    ASSERT_TRUE(check.Start());
    ASSERT_GE(fake.calls.size(), 4u);
    EXPECT_EQ(fake.calls[0], (FakeCall{"SetInfo", 0x20000011, 0}));
    EXPECT_EQ(events("RegisterCallback"), (std::vector<uint32_t>{0x800002, 0x800008, 0x400080}));
    EXPECT_TRUE(check.running());
    EXPECT_TRUE(check.timerActive());
    EXPECT_TRUE(prompt.texts.empty());
    const SignalControlsState running = check.controls();
    EXPECT_FALSE(running.start);
    EXPECT_TRUE(running.stop);
    EXPECT_FALSE(running.methods);
    EXPECT_FALSE(running.rows);

    // Callbacks count per signal; Internal Trigger never.
    EXPECT_FALSE(fake.fire(0x800001));
    EXPECT_TRUE(fake.fire(0x800002));
    EXPECT_TRUE(fake.fire(0x800002));
    EXPECT_TRUE(fake.fire(0x400080));
    const auto shown = check.TimerTick();
    EXPECT_EQ(shown, (std::array<uint32_t, 8>{0, 2, 0, 0, 0, 0, 0, 1}));

    fake.calls.clear();
    check.Stop();
    EXPECT_EQ(events("UnRegisterCallback"), (std::vector<uint32_t>{0x800002, 0x800008, 0x400080}));
    EXPECT_EQ(fake.calls.back(), (FakeCall{"SetInfo", 0x20000011, 1}));
    EXPECT_FALSE(check.running());
    EXPECT_FALSE(check.timerActive());
    EXPECT_TRUE(check.controls().start);
    EXPECT_FALSE(check.controls().stop);
    EXPECT_TRUE(fake.callbacks.empty());

    // The next Start begins from zero.
    ASSERT_TRUE(check.Start());
    EXPECT_EQ(check.TimerTick(), (std::array<uint32_t, 8>{}));
    check.Stop();
}

TEST_F(SignalFixture, FailedRegistrationIsReportedAndTheOthersRun) {
    lib.refuse = {0x800004};
    SignalCheck check(&lib, h, prompt);
    check.SetChecked(1, true);
    check.SetChecked(2, true);
    EXPECT_TRUE(check.Start());
    EXPECT_EQ(prompt.texts,
              (std::vector<std::string>{"Resister callback General Input 2 failure"}));
    fake.fire(0x800002);
    EXPECT_EQ(check.TimerTick()[1], 1u);
    check.Stop();

    // An unchecked row counts as a success: row 1 alone failing still starts the check.
    lib.refuse = {0x800002};
    check.SetChecked(2, false);
    prompt.texts.clear();
    EXPECT_TRUE(check.Start());
    EXPECT_EQ(prompt.texts.size(), 1u);
    check.Stop();

    // With every row from 1 to 7 checked and refused nothing runs.
    RecordingPrompt p;
    SignalCheck all(&lib, h, p);
    all.SetSelectAll(true);
    for (int row = 1; row < kSignalCount; ++row) {
        lib.refuse.insert(SignalEventId(row, 0));
    }
    EXPECT_FALSE(all.Start());
    EXPECT_EQ(p.texts.size(), 7u);
    EXPECT_EQ(p.texts.front(), "Resister callback General Input 1 failure");
    EXPECT_EQ(p.texts.back(), "Resister callback Integration Signal 2 failure");
    EXPECT_FALSE(all.timerActive());
}

TEST_F(SignalFixture, RecordStatisticalShowsTheBoardCounters) {
    FakeBoard& board = fake.board(h);
    for (uint32_t row = 0; row < 8; ++row) {
        board.values[0x20000008 + row] = 100 + row;
    }
    SignalCheck check(&lib, h, prompt);
    check.SetMethod(SignalMethod::kRecordStatistical);
    for (int row : {0, 2, 6}) {
        check.SetChecked(row, true);
    }
    ASSERT_TRUE(check.Start());
    fake.calls.clear();
    fake.fire(0x800004);  // a callback count is not what this method shows
    const auto shown = check.TimerTick();
    EXPECT_EQ(shown, (std::array<uint32_t, 8>{0, 0, 102, 0, 0, 0, 106, 0}));
    EXPECT_EQ(events("GetInfo"), (std::vector<uint32_t>{0x2000000A, 0x2000000E}));
    check.Stop();
}

TEST_F(SignalFixture, SelectAllFollowsTheEightBoxes) {
    SignalCheck check(&lib, h, prompt);
    for (int row = 0; row < kSignalCount; ++row) {
        EXPECT_FALSE(check.selectAll()) << row;
        check.SetChecked(row, true);
    }
    EXPECT_TRUE(check.selectAll());
    check.SetChecked(4, false);
    EXPECT_FALSE(check.selectAll());

    // "Select All" sets rows 1 to 7 only.
    SignalCheck other(&lib, h, prompt);
    other.SetSelectAll(true);
    EXPECT_TRUE(other.selectAll());
    EXPECT_FALSE(other.checked(0));
    for (int row = 1; row < kSignalCount; ++row) {
        EXPECT_TRUE(other.checked(row));
    }
    other.SetChecked(3, true);  // a click recomputes: row 0 is still clear
    EXPECT_FALSE(other.selectAll());
    check.SetSelectAll(false);
    EXPECT_TRUE(check.checked(0));
    EXPECT_FALSE(check.checked(1));
}

TEST_F(SignalFixture, ClosingARunningCheckUnregisters) {
    {
        SignalCheck check(&lib, h, prompt);
        check.SetChecked(5, true);
        ASSERT_TRUE(check.Start());
        EXPECT_EQ(fake.callbacks.size(), 1u);
    }
    EXPECT_TRUE(fake.callbacks.empty());
    EXPECT_EQ(fake.calls.back(), (FakeCall{"SetInfo", 0x20000011, 1}));
}

}  // namespace
}  // namespace lumetra::test
