#include <gtest/gtest.h>

#include "FrameSchedule.h"
#include "OrvixBoard.h"
#include "SignalBank.h"

namespace orvix::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(PeriodTest, WholeSecondsComeOutExact) {
    Period p = Period::perSecond(60);
    EXPECT_EQ(p.times(1), Nanos{16666666});
    EXPECT_EQ(p.times(60), Nanos{seconds(1)});
    EXPECT_EQ(p.times(60 * 3600), Nanos{seconds(3600)}) << "no drift over an hour";
    Period line{uint64_t{1000000000} * 1200, 72000};  // 1200 lines at 72 kHz
    EXPECT_EQ(line.times(3), Nanos{milliseconds(50)});
}

TEST(FrameScheduleTest, DueCountChangesExactlyAtEachDueTime) {
    const Period periods[] = {Period::perSecond(60), Period::perSecond(7), Period::perSecond(1),
                              Period::perSecond(100000),
                              Period{uint64_t{1000000000} * 1200, 72001}};
    const Nanos start{123456789};
    for (const Period& p : periods) {
        FrameSchedule s = FrameSchedule::freeRun(start, p, 0);
        EXPECT_EQ(s.dueCount(start - Nanos{1}), 0u);
        EXPECT_EQ(s.dueCount(start), 0u);
        for (uint64_t k : {0ull, 1ull, 2ull, 59ull, 60ull, 1000ull, 123456ull, 10000000000ull}) {
            if (static_cast<unsigned __int128>(k + 1) * p.num / p.den > (uint64_t{1} << 62)) {
                continue;  // centuries of grabbing: past the clock's range
            }
            Nanos due = *s.due(k);
            EXPECT_EQ(due, start + p.times(k + 1));
            EXPECT_EQ(s.dueCount(due - Nanos{1}), k) << "just before frame " << k;
            EXPECT_EQ(s.dueCount(due), k + 1) << "at frame " << k;
        }
    }
}

TEST(FrameScheduleTest, ALimitedGrabEndsAtItsLimit) {
    FrameSchedule s = FrameSchedule::freeRun(Nanos{0}, Period::perSecond(10), 3);
    EXPECT_TRUE(s.due(2));
    EXPECT_FALSE(s.due(3));
    EXPECT_EQ(s.dueCount(Nanos{seconds(100)}), 3u);
}

TEST(FrameScheduleTest, TriggersScheduleFramesOnePeriodApart) {
    const Period p = Period::perSecond(10);  // 100 ms
    FrameSchedule s = FrameSchedule::triggered(p);
    EXPECT_FALSE(s.due(0));
    EXPECT_EQ(s.dueCount(Nanos{seconds(10)}), 0u);

    s.trigger(Nanos{milliseconds(1000)}, 3);
    EXPECT_EQ(*s.due(0), Nanos{milliseconds(1000)});
    EXPECT_EQ(*s.due(2), Nanos{milliseconds(1200)});
    EXPECT_FALSE(s.due(3));
    EXPECT_EQ(s.dueCount(Nanos{milliseconds(1100)}), 2u);

    // A trigger during the burst queues behind it.
    s.trigger(Nanos{milliseconds(1050)}, 1);
    EXPECT_EQ(*s.due(3), Nanos{milliseconds(1300)});
    // A later one starts at its own time.
    s.trigger(Nanos{milliseconds(5000)}, 1);
    EXPECT_EQ(*s.due(4), Nanos{milliseconds(5000)});

    s.forget(2);
    EXPECT_FALSE(s.due(1));
    EXPECT_EQ(*s.due(2), Nanos{milliseconds(1200)});
    EXPECT_EQ(s.dueCount(Nanos{milliseconds(1300)}), 4u) << "numbers keep counting from 0";
    s.forget(5);
    s.trigger(Nanos{milliseconds(9000)}, 1);
    EXPECT_EQ(*s.due(5), Nanos{milliseconds(9000)});
}

TEST(SignalBankTest, AWatchedSignalAlternatesEdgesAtItsRate) {
    std::array<uint32_t, kSignalCount> rates{};
    rates[1] = 100;  // General Input 1, 10 ms period
    SignalBank bank(rates);
    EXPECT_FALSE(bank.next());
    const Nanos t0{milliseconds(7)};
    bank.watch(1u << 1, t0);
    for (int i = 0; i < 6; ++i) {
        auto edge = bank.next();
        ASSERT_TRUE(edge);
        EXPECT_EQ(edge->row, 1);
        EXPECT_EQ(edge->rising, i % 2 == 0);
        EXPECT_EQ(edge->at, t0 + Nanos{milliseconds(5) * (i + 1)});
        EXPECT_EQ(edge->event(),
                  2u | (i % 2 == 0 ? ORVIX_SIGNAL_RISING_EDGE : ORVIX_SIGNAL_FALLING_EDGE));
        bank.pass(*edge);
    }
    bank.watch(0, t0);
    EXPECT_FALSE(bank.next());
}

TEST(SignalBankTest, EdgesOfSeveralSignalsComeInTimeOrder) {
    std::array<uint32_t, kSignalCount> rates{};
    rates[0] = 1000;
    rates[3] = 250;
    rates[5] = 0;  // a silent signal never produces an edge
    SignalBank bank(rates);
    bank.watch(0b101001, Nanos{0});
    std::vector<std::pair<int, Nanos>> seen;
    for (int i = 0; i < 12; ++i) {
        auto edge = bank.next();
        ASSERT_TRUE(edge);
        seen.emplace_back(edge->row, edge->at);
        bank.pass(*edge);
    }
    for (size_t i = 1; i < seen.size(); ++i) {
        EXPECT_LE(seen[i - 1].second, seen[i].second);
        EXPECT_NE(seen[i].first, 5);
    }
    // At 2 ms both row 0 (its 4th edge) and row 3 (its 1st) are due: the lower row comes first.
    auto at2 = std::find_if(seen.begin(), seen.end(),
                            [](const auto& e) { return e.second == Nanos{milliseconds(2)}; });
    ASSERT_NE(at2, seen.end());
    EXPECT_EQ(at2->first, 0);
    EXPECT_EQ((at2 + 1)->first, 3);
}

TEST(SignalBankTest, CountersRunClearAndHold) {
    SignalBank bank(std::array<uint32_t, kSignalCount>{});
    bank.count(2);
    bank.count(2);
    EXPECT_EQ(bank.counter(2), 2u);
    bank.setControl(1);
    bank.count(2);
    EXPECT_EQ(bank.counter(2), 2u) << "held";
    bank.setControl(0);
    EXPECT_EQ(bank.counter(2), 0u) << "0 clears";
    bank.count(2);
    EXPECT_EQ(bank.counter(2), 1u);
}

}  // namespace
}  // namespace orvix::sim
