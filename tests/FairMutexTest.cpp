// The mutex that nobody waits for while others are served again and again.
#include "FairMutex.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "WaitUntil.h"

namespace {

TEST(FairMutexTest, OneThreadAtATimeHoldsIt) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    CFairMutex mutex;
    int nRounds = 0;
    bool bInside = false;
    std::atomic<bool> bMet{false};
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < kThreads; ++iThread) {
        vThreads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                const FairMutexLock lock(mutex);
                bMet = bMet || bInside;
                bInside = true;
                ++nRounds;
                bInside = false;
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_FALSE(bMet);
    EXPECT_EQ(nRounds, kThreads * kRounds);
}

TEST(FairMutexTest, WhoHasWaitedIsNextThoughTheOwnerComesAgainAtOnce) {
    CFairMutex mutex;
    std::atomic<bool> bServed{false};
    mutex.lock();
    EXPECT_FALSE(mutex.IsDue());
    std::thread waiter([&] {
        const FairMutexLock lock(mutex);
        bServed = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return mutex.IsDue(); }));
    EXPECT_FALSE(bServed);
    mutex.unlock();
    mutex.lock();
    EXPECT_TRUE(bServed) << "the owner was served twice in a row";
    EXPECT_FALSE(mutex.IsDue());
    mutex.unlock();
    waiter.join();
}

TEST(FairMutexTest, WaitersAreServedInTheOrderInWhichTheyCame) {
    constexpr int kWaiters = 5;
    CFairMutex mutex;
    std::string sOrder;
    std::vector<std::thread> vThreads;
    mutex.lock();
    for (int iWaiter = 0; iWaiter < kWaiters; ++iWaiter) {
        vThreads.emplace_back([&, iWaiter] {
            const FairMutexLock lock(mutex);
            sOrder += std::to_string(iWaiter);
            // The next one has waited long enough by then: all were there before the first was served.
            EXPECT_TRUE(WaitUntil([&] { return iWaiter + 1 == kWaiters || mutex.IsDue(); }));
        });
        EXPECT_TRUE(WaitUntil([&] { return mutex.GetWaiterCount() == vThreads.size(); }));
    }
    EXPECT_TRUE(WaitUntil([&] { return mutex.IsDue(); }));
    mutex.unlock();
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(sOrder, "01234");
    EXPECT_EQ(mutex.GetWaiterCount(), 0U);
}

TEST(FairMutexTest, OwnerOfALongTimeOwesNothingToNobody) {
    CFairMutex mutex;
    const FairMutexLock lock(mutex);
    const auto until = std::chrono::steady_clock::now() + 2 * CFairMutex::kPatience;
    EXPECT_TRUE(WaitUntil([&] { return std::chrono::steady_clock::now() > until; }));
    EXPECT_FALSE(mutex.IsDue());
}

}  // namespace
