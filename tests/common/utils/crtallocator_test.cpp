// Tests of the allocator over the C library heap: its blocks are the C library's, its count is shared by threads.
#include "common/utils/crtallocator.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using common::Allocator;
using common::ComPtr;
using common::CrtAllocator;

static_assert(std::is_final_v<CrtAllocator>);
static_assert(std::is_same_v<CrtAllocator::ComPolicy__, common::ConcurrentRC>);
static_assert(std::is_same_v<CrtAllocator::ComInterfaces__, common::TypeList<Allocator>>);

TEST(CrtAllocator, BlocksAreTheCLibrarysInBothDirections) {
    ComPtr<Allocator> heap = common::crtAllocator();
    void* ours = heap->alloc(100);
    ASSERT_NE(ours, nullptr);
    EXPECT_GE(malloc_usable_size(ours), 100u);
    std::free(ours);

    void* theirs = std::malloc(32);
    ASSERT_NE(theirs, nullptr);
    std::memset(theirs, 0x11, 32);
    void* grown = heap->realloc(theirs, 4096);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(grown)[31], 0x11);
    heap->free(grown);
}

TEST(CrtAllocator, ResizingKeepsTheContents) {
    ComPtr<Allocator> heap = common::crtAllocator();
    auto* block = static_cast<unsigned char*>(heap->alloc(64));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 64; ++i)
        block[i] = static_cast<unsigned char>(i);
    block = static_cast<unsigned char*>(heap->realloc(block, 1 << 20));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(block[i], i) << i;
    block = static_cast<unsigned char*>(heap->realloc(block, 16));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(block[i], i) << i;
    heap->free(block, 16);
}

TEST(CrtAllocator, FreeIgnoresTheSizeAndTakesNull) {
    ComPtr<Allocator> heap = common::crtAllocator();
    void* block = heap->alloc(48);
    ASSERT_NE(block, nullptr);
    heap->free(block, 3);  // a wrong size is not passed on: the C library frees the whole block
    heap->free(nullptr);
    heap->free(nullptr, 8);
}

TEST(CrtAllocator, FirstUseFromSeveralThreadsBuildsOneObject) {
    constexpr int kThreads = 8;
    std::vector<Allocator*> seen(kThreads);
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&seen, t] { seen[t] = common::crtAllocator().get(); });
        for (auto& thread : threads)
            thread.join();
    }
    for (Allocator* allocator : seen)
        EXPECT_EQ(allocator, seen[0]);
    EXPECT_EQ(common::crtAllocator().get(), seen[0]);
}

TEST(CrtAllocator, HandlesMadeAndDroppedOnManyThreadsKeepTheCount) {
    ComPtr<Allocator> heap = common::crtAllocator();
    const uint32_t base = heap->refsCount();
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < kRounds; ++i) {
                ComPtr<Allocator> mine = common::crtAllocator();
                ComPtr<Allocator> copy = mine;
                void* block = copy->alloc(16);
                copy->free(block);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(heap->refsCount(), base);
}

}  // namespace
