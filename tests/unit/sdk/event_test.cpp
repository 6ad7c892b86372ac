#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <climits>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "qxhost/critical_section.h"
#include "qxhost/event.h"
#include "qxhost/tick.h"

namespace {

constexpr unsigned int kSignalled = 0;
constexpr unsigned int kTimedOut = 258;
constexpr unsigned int kFailed = 0xFFFFFFFF;
constexpr long kDeadline = 60'000;  // milliseconds, for what must happen

using Event = std::unique_ptr<void, decltype(&QxDestroyEvent)>;

Event MakeEvent(bool manual_reset, bool set = false) {
    return {QxCreateEvent(nullptr, manual_reset, set, "ignored"), QxDestroyEvent};
}

/// How many of several threads, each waiting for so long, saw the event signalled by set_event.
int SignalledWaiters(void* event, long milliseconds) {
    std::atomic<int> signalled = 0;
    std::vector<std::jthread> waiters;
    waiters.reserve(4);
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] { signalled += QxWaitEventTimeout(event, milliseconds) == kSignalled ? 1 : 0; });
    }
    EXPECT_TRUE(QxSetEvent(event));
    waiters.clear();
    return signalled;
}

TEST(Event, AutoResetSignalIsKeptUntilOneWaiterTakesIt) {
    const Event event = MakeEvent(false);
    EXPECT_EQ(QxWaitEventTimeout(event.get(), 0), kTimedOut);
    EXPECT_TRUE(QxSetEvent(event.get()));
    EXPECT_TRUE(QxSetEvent(event.get()));
    EXPECT_EQ(QxWaitEventTimeout(event.get(), -1), kSignalled);
    EXPECT_EQ(QxWaitEventTimeout(event.get(), 0), kTimedOut);
    EXPECT_EQ(SignalledWaiters(event.get(), 300), 1);
    EXPECT_EQ(QxWaitEventTimeout(MakeEvent(false, true).get(), 0), kSignalled);
    EXPECT_FALSE(QxSetEvent(nullptr));
    EXPECT_EQ(QxWaitEventTimeout(nullptr, 0), kFailed);
}

TEST(Event, ManualResetSignalWakesEveryoneAndStays) {
    const Event event = MakeEvent(true);
    EXPECT_EQ(SignalledWaiters(event.get(), kDeadline), 4);
    EXPECT_EQ(QxWaitEventTimeout(event.get(), 0), kSignalled);
    EXPECT_EQ(QxWaitEventTimeout(event.get(), LONG_MAX), kSignalled);
}

TEST(Event, TimesOutNoEarlierThanAskedAndNotAtOnceForTheLongestTime) {
    const Event event = MakeEvent(false);
    const unsigned long begin = QxGetTickCount();
    EXPECT_EQ(QxWaitEventTimeout(event.get(), 40), kTimedOut);
    EXPECT_GE(QxGetTickCount() - begin + 1, 40U);  // each tick is cut to a millisecond
    for (const long milliseconds : {LONG_MAX, LONG_MIN, 1999L}) {
        std::jthread setter([&] { QxSetEvent(event.get()); });
        EXPECT_EQ(QxWaitEventTimeout(event.get(), milliseconds), kSignalled) << milliseconds;
    }
}

TEST(Event, LosesNoWakeUpBetweenTwoThreads) {
    constexpr int kRounds = 20'000;
    const Event there = MakeEvent(false);
    const Event back = MakeEvent(false);
    std::jthread partner([&] {
        for (int i = 0; i < kRounds && QxWaitEventTimeout(there.get(), kDeadline) == kSignalled; ++i) {
            QxSetEvent(back.get());
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        QxSetEvent(there.get());
        ASSERT_EQ(QxWaitEventTimeout(back.get(), kDeadline), kSignalled) << i;
    }
}

TEST(Event, CancelledWaiterLeavesTheEventUsable) {
    const Event event = MakeEvent(false);
    const auto wait_for_ever = [](void* awaited) -> void* {
        QxWaitEventTimeout(awaited, -1);
        return nullptr;
    };
    for (int i = 0; i < 20; ++i) {
        pthread_t waiter = {};
        ASSERT_EQ(pthread_create(&waiter, nullptr, wait_for_ever, event.get()), 0);
        ASSERT_EQ(pthread_cancel(waiter), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(waiter, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    EXPECT_EQ(SignalledWaiters(event.get(), 300), 1);
}

TEST(CriticalSection, IsReEntrantForItsOwnerOnly) {
    pthread_mutex_t section;
    QxInitializeCriticalSection(&section);
    const auto lock = [&] { return pthread_mutex_trylock(&section) == 0; };
    EXPECT_TRUE(lock() && lock());
    pthread_mutex_unlock(&section);
    EXPECT_FALSE(std::async(std::launch::async, lock).get());
    pthread_mutex_unlock(&section);
    EXPECT_TRUE(std::async(std::launch::async, [&] { return lock() && pthread_mutex_unlock(&section) == 0; }).get());
    QxDeleteCriticalSection(&section);
}

}  // namespace
