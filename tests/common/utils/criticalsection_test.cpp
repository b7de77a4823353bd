// Tests of the mutex wrapper: exclusion between threads, try_lock, and use through the standard lock types.
#include "common/utils/criticalsection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using common::threading::CriticalSection;
using namespace std::chrono_literals;

static_assert(!std::is_copy_constructible_v<CriticalSection> && !std::is_copy_assignable_v<CriticalSection>);

/// Whether another thread can take `lock` right now (try_lock on the owning thread is not allowed).
bool freeForAnotherThread(CriticalSection& lock) {
    return std::async(std::launch::async,
                      [&lock] {
                          if (!lock.try_lock())
                              return false;
                          lock.unlock();
                          return true;
                      })
        .get();
}

TEST(CriticalSection, TryLockFailsWhileAnotherThreadHoldsIt) {
    CriticalSection lock;
    EXPECT_TRUE(freeForAnotherThread(lock));
    lock.lock();
    EXPECT_FALSE(freeForAnotherThread(lock));
    lock.unlock();
    EXPECT_TRUE(freeForAnotherThread(lock));
}

TEST(CriticalSection, TryLockTakesAFreeLock) {
    CriticalSection lock;
    ASSERT_TRUE(lock.try_lock());
    EXPECT_FALSE(freeForAnotherThread(lock));
    lock.unlock();
    EXPECT_TRUE(freeForAnotherThread(lock));
}

TEST(CriticalSection, StandardLockTypesHoldItForTheirScope) {
    CriticalSection lock;
    {
        std::lock_guard<CriticalSection> guard(lock);
        EXPECT_FALSE(freeForAnotherThread(lock));
    }
    EXPECT_TRUE(freeForAnotherThread(lock));
    {
        std::unique_lock<CriticalSection> unique(lock, std::try_to_lock);
        ASSERT_TRUE(unique.owns_lock());
        EXPECT_FALSE(freeForAnotherThread(lock));
        unique.unlock();
        EXPECT_TRUE(freeForAnotherThread(lock));
    }
    CriticalSection other;
    {
        std::scoped_lock both(lock, other);
        EXPECT_FALSE(freeForAnotherThread(lock));
        EXPECT_FALSE(freeForAnotherThread(other));
    }
    EXPECT_TRUE(freeForAnotherThread(other));
}

TEST(CriticalSection, LockWaitsForTheHolder) {
    CriticalSection lock;
    lock.lock();
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        std::lock_guard<CriticalSection> guard(lock);
        acquired = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(acquired.load());
    lock.unlock();
    waiter.join();
    EXPECT_TRUE(acquired.load());
}

TEST(CriticalSection, ThreadsNeverInterleaveInsideIt) {
    CriticalSection lock;
    int inside = 0;  // guarded by `lock`
    int overlaps = 0;
    long total = 0;
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                std::lock_guard<CriticalSection> guard(lock);
                overlaps += ++inside != 1;
                ++total;
                if (i % 1000 == 0)
                    std::this_thread::yield();  // give another thread the chance to barge in
                --inside;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(total, long{kThreads} * kRounds);
}

}  // namespace
