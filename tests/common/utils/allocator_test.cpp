// Tests of the allocator interface, the heap allocator singleton and the default-allocator slot.
#include "common/utils/allocator.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "common/utils/crtallocator.h"
#include "tests/common/com/comtestsupport.h"

namespace {

using common::Allocator;
using common::ComPtr;
using common::CrtAllocator;
using comtest::BlockEvent;
using comtest::CountingAllocator;
using comtest::FailureRecorder;
using comtest::IProbe;
using comtest::probeStats;
using comtest::ScopedCountingAllocator;
using comtest::SingleProbe;

static_assert(std::is_base_of_v<IRefCounted, Allocator>);
static_assert(std::is_abstract_v<Allocator>);

class AllocatorTest : public ::testing::Test {
protected:
    AllocatorTest() { common::setDefaultAllocator({}); }
    ~AllocatorTest() override {
        common::setDefaultAllocator({});
        EXPECT_EQ(recorder.count(), 0u) << "unexpected failed checks";
    }

    FailureRecorder recorder;
};

TEST_F(AllocatorTest, DefaultAndHeapAllocatorAreTheSameObjectAndEachCallAddsAReference) {
    ComPtr<Allocator> heap = common::crtAllocator();
    ASSERT_TRUE(heap);
    const uint32_t base = heap->refsCount();

    ComPtr<Allocator> byDefault = common::defaultAllocator();
    EXPECT_EQ(byDefault.get(), heap.get());
    EXPECT_EQ(heap->refsCount(), base + 1);

    ComPtr<Allocator> again = common::crtAllocator();
    EXPECT_EQ(again.get(), heap.get());
    EXPECT_EQ(heap->refsCount(), base + 2);

    ComPtr<Allocator> third = common::defaultAllocator();
    EXPECT_EQ(heap->refsCount(), base + 3);

    byDefault.release();
    again.release();
    third.release();
    EXPECT_EQ(heap->refsCount(), base);
}

TEST_F(AllocatorTest, HeapAllocatorIsACrtAllocatorDeclaringTheAllocatorInterface) {
    ComPtr<Allocator> heap = common::crtAllocator();
    EXPECT_TRUE(heap->is(typeid(Allocator)));
    EXPECT_TRUE(heap->is(typeid(IRefCounted)));
    EXPECT_FALSE(heap->is(typeid(CrtAllocator)));
    EXPECT_NE(heap->as<CrtAllocator*>(), nullptr);
    EXPECT_EQ(heap->as<IProbe*>(), nullptr);
}

TEST_F(AllocatorTest, AlignmentRequestOnTheHeapAllocatorGivesOrdinaryHeapMemory) {
    ComPtr<Allocator> heap = common::crtAllocator();
    void* block = heap->alloc(24, 4096);
    ASSERT_NE(block, nullptr);
    // Heap memory: the C library knows the block and can resize it.
    EXPECT_GE(malloc_usable_size(block), 24u);
    std::memset(block, 0x5a, 24);
    void* grown = heap->realloc(block, 1 << 16);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(grown)[23], 0x5a);
    EXPECT_GE(malloc_usable_size(grown), size_t{1} << 16);
    heap->free(grown, 1 << 16);

    void* plain = heap->alloc(24);
    ASSERT_NE(plain, nullptr);
    heap->free(plain);
    heap->free(nullptr);
}

TEST_F(AllocatorTest, AllocIsReallocOfNothing) {
    ComPtr<CountingAllocator> counting = common::com::createInstance<CountingAllocator, CountingAllocator>(true);
    void* a = counting->alloc(40);
    void* b = counting->alloc(8, 64);
    const auto events = counting->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].size, 40u);
    EXPECT_FALSE(events[0].alignment.has_value());
    EXPECT_EQ(events[1].size, 8u);
    EXPECT_EQ(events[1].alignment, std::optional<uint64_t>(64));
    counting->free(a, 40);
    counting->free(b, 8);
    EXPECT_EQ(counting->liveBlocks(), 0u);
    EXPECT_EQ(counting->faults(), 0u);
}

TEST_F(AllocatorTest, EmptySlotAtStartMeansTheHeapAllocator) {
    EXPECT_EQ(common::defaultAllocator().get(), common::crtAllocator().get());
}

TEST_F(AllocatorTest, CustomDefaultServesNewObjectsWhileOlderObjectsReturnToTheHeap) {
    ComPtr<Allocator> heap = common::crtAllocator();
    const uint32_t heapBase = heap->refsCount();

    // Created from the heap allocator: its shared state holds a heap reference.
    ComPtr<IProbe> older = common::com::createInstance<SingleProbe, IProbe>(1);
    EXPECT_EQ(heap->refsCount(), heapBase + 1);

    ComPtr<CountingAllocator> counting = common::com::createInstance<CountingAllocator, CountingAllocator>(true);
    EXPECT_EQ(heap->refsCount(), heapBase + 2);
    common::setDefaultAllocator(ComPtr<Allocator>(counting));
    EXPECT_EQ(common::defaultAllocator().get(), static_cast<Allocator*>(counting.get()));

    ComPtr<IProbe> newer = common::com::createInstance<SingleProbe, IProbe>(2);
    EXPECT_EQ(counting->allocs(), 1u);
    EXPECT_EQ(heap->refsCount(), heapBase + 2);

    older.release();  // back to the heap allocator, not to the counting one
    EXPECT_EQ(counting->frees(), 0u);
    EXPECT_EQ(heap->refsCount(), heapBase + 1);

    common::setDefaultAllocator({});  // newer objects keep the allocator they came from
    EXPECT_EQ(common::defaultAllocator().get(), heap.get());
    newer.release();
    EXPECT_EQ(counting->frees(), 1u);
    EXPECT_EQ(counting->liveBlocks(), 0u);
    EXPECT_EQ(counting->faults(), 0u);
    EXPECT_EQ(counting->sizeMismatches(), 0u);
    const auto events = counting->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].ptr, events[1].ptr);
    EXPECT_EQ(events[1].size,
              (common::com_internal::ComClassStorage<common::SingleThreadRC>::blockSize<SingleProbe>()));
}

TEST_F(AllocatorTest, SettingTheSlotReleasesWhatWasThere) {
    ComPtr<CountingAllocator> first = common::com::createInstance<CountingAllocator, CountingAllocator>(true);
    ComPtr<CountingAllocator> second = common::com::createInstance<CountingAllocator, CountingAllocator>(true);
    common::setDefaultAllocator(ComPtr<Allocator>(first));
    EXPECT_EQ(first->refsCount(), 2u);
    common::setDefaultAllocator(ComPtr<Allocator>(second));
    EXPECT_EQ(first->refsCount(), 1u);
    EXPECT_EQ(second->refsCount(), 2u);
    ComPtr<Allocator> current = common::defaultAllocator();
    EXPECT_EQ(current.get(), static_cast<Allocator*>(second.get()));
    EXPECT_EQ(second->refsCount(), 3u);
    current.release();
    common::setDefaultAllocator({});
    EXPECT_EQ(second->refsCount(), 1u);
}

TEST_F(AllocatorTest, EachCreationFetchesTheDefaultOnceAndKeepsItUntilTheBlockGoes) {
    ScopedCountingAllocator counting;
    const uint32_t base = counting->refsCount();
    {
        ComPtr<IProbe> a = common::com::createInstance<SingleProbe, IProbe>();
        ComPtr<IProbe> b = common::com::createInstance<SingleProbe, IProbe>();
        EXPECT_EQ(counting->refsCount(), base + 2);
        IWeakReference* weak = a->getWeakRef();
        a.release();
        EXPECT_EQ(counting->refsCount(), base + 2);  // the dead object's block still holds it
        weak->release();
        EXPECT_EQ(counting->refsCount(), base + 1);
    }
    EXPECT_EQ(counting->refsCount(), base);
    EXPECT_EQ(counting->allocs(), 2u);
    EXPECT_EQ(counting->frees(), 2u);
}

}  // namespace
