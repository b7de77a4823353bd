// Tests of class storage: one block per object, its shared state, strong and weak references, creation.
#include "common/com/comclass.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "comtestsupport.h"

namespace {

using common::ComPtr;
using common::com_internal::ComClassSharedState;
using common::com_internal::ComClassStorage;
using comtest::BlockEvent;
using comtest::ConcurrentProbe;
using comtest::CountingAllocator;
using comtest::expectReport;
using comtest::FailureRecorder;
using comtest::IProbe;
using comtest::journal;
using comtest::kComClassFile;
using comtest::probeStats;
using comtest::refs;
using comtest::ScopedCountingAllocator;
using comtest::SingleProbe;
using comtest::StrictProbe;

using Strings = std::vector<std::string>;

// Every test runs with a recording failure handler and a counting default allocator; both are removed after.
template <typename Probe>
class StorageTest : public ::testing::Test {
protected:
    using RC = typename Probe::ComPolicy__;
    using State = ComClassSharedState<RC>;
    using Storage = ComClassStorage<RC>;

    StorageTest() {
        journal().clear();
        m_constructedBefore = probeStats().constructed.load();
        m_destroyedBefore = probeStats().destroyed.load();
    }
    ~StorageTest() override { EXPECT_EQ(recorder.count(), 0u) << "unexpected failed checks"; }

    int constructed() const { return probeStats().constructed.load() - m_constructedBefore; }
    int destroyed() const { return probeStats().destroyed.load() - m_destroyedBefore; }

    static constexpr uint64_t kBlockSize = sizeof(State) + sizeof(Probe);

    FailureRecorder recorder;
    ScopedCountingAllocator allocator;

private:
    int m_constructedBefore;
    int m_destroyedBefore;
};

using Probes = ::testing::Types<SingleProbe, ConcurrentProbe, StrictProbe>;
TYPED_TEST_SUITE(StorageTest, Probes);

TYPED_TEST(StorageTest, BlockSizeIsSharedStatePlusObject) {
    static_assert(TestFixture::Storage::template blockSize<TypeParam>() == TestFixture::kBlockSize);
    static_assert(std::is_base_of_v<IWeakReference, typename TestFixture::State>);
    EXPECT_EQ(sizeof(typename TestFixture::State) % alignof(TypeParam), 0u);
}

TYPED_TEST(StorageTest, CreationTakesExactlyOneBlockHoldingStateThenObject) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(7);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->value(), 7);
    EXPECT_EQ(refs(probe.get()), 1u);

    const auto events = this->allocator->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, BlockEvent::Alloc);
    EXPECT_EQ(events[0].size, TestFixture::kBlockSize);
    EXPECT_FALSE(events[0].alignment.has_value());

    auto* object = static_cast<TypeParam*>(probe.get());
    auto& state = TestFixture::Storage::sharedState(*object);
    EXPECT_EQ(static_cast<void*>(&state), events[0].ptr);
    EXPECT_EQ(TestFixture::Storage::instancePtr(state), static_cast<void*>(object));
    EXPECT_EQ(reinterpret_cast<char*>(object) - reinterpret_cast<char*>(events[0].ptr),
              static_cast<std::ptrdiff_t>(sizeof(typename TestFixture::State)));
    EXPECT_EQ(state.instanceRefsCount(), 1u);
}

TYPED_TEST(StorageTest, LastReleaseRunsDestructorThenFreesBlockInTheSameCall) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1, true);
    void* block = this->allocator->events().at(0).ptr;
    IProbe* raw = probe.giveup();

    raw->release();

    EXPECT_EQ(this->destroyed(), 1);
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    const auto events = this->allocator->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].kind, BlockEvent::Free);
    EXPECT_EQ(events[1].ptr, block);
    EXPECT_EQ(events[1].size, TestFixture::kBlockSize);
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
    EXPECT_EQ(this->allocator->faults(), 0u);
    EXPECT_EQ(this->allocator->sizeMismatches(), 0u);
}

TYPED_TEST(StorageTest, BlockIsFreedWhileTheObjectStillHoldsItsAllocator) {
    const uint32_t baseRefs = this->allocator->refsCount();
    {
        ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>();
        // The shared state keeps a reference to the allocator the block came from.
        EXPECT_EQ(this->allocator->refsCount(), baseRefs + 1);
    }
    EXPECT_EQ(this->allocator->refsCount(), baseRefs);
    const auto events = this->allocator->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].allocatorRefs, baseRefs + 1);  // the creation's own handle during alloc
    EXPECT_EQ(events[1].allocatorRefs, baseRefs + 1);  // still held by the dying block during free
}

TYPED_TEST(StorageTest, WeakReferenceKeepsTheBlockUntilItsOwnRelease) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1, true);
    IWeakReference* weak = probe->getWeakRef();
    ASSERT_NE(weak, nullptr);
    EXPECT_EQ(static_cast<void*>(weak), this->allocator->events().at(0).ptr);  // the shared state itself
    EXPECT_EQ(refs(probe.get()), 1u);                                          // weak refs do not count as strong
    EXPECT_FALSE(weak->isDead());

    probe.release();

    EXPECT_EQ(this->destroyed(), 1);
    EXPECT_EQ(journal().events(), (Strings{"dtor"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 1u);
    EXPECT_TRUE(weak->isDead());
    EXPECT_EQ(weak->acquire(), nullptr);
    EXPECT_EQ(weak->acquire(), nullptr);  // changes nothing: still dead, block still held
    EXPECT_TRUE(weak->isDead());
    EXPECT_EQ(this->allocator->liveBlocks(), 1u);

    weak->release();

    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
    EXPECT_EQ(this->allocator->frees(), 1u);
    EXPECT_EQ(this->destroyed(), 1);
}

TYPED_TEST(StorageTest, AcquireOnLiveObjectAddsAStrongReference) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(3, true);
    IWeakReference* weak = probe->getWeakRef();

    IRefCounted* strong = weak->acquire();

    ASSERT_NE(strong, nullptr);
    EXPECT_EQ(strong, static_cast<IRefCounted*>(probe.get()));
    EXPECT_EQ(refs(probe.get()), 2u);
    EXPECT_FALSE(weak->isDead());

    probe.release();  // the acquired reference keeps the object alive
    EXPECT_EQ(this->destroyed(), 0);
    EXPECT_EQ(strong->refsCount(), 1u);
    EXPECT_EQ(strong->as<IProbe*>()->value(), 3);

    strong->release();  // last strong reference: destructor, but the weak one keeps the block
    EXPECT_EQ(this->destroyed(), 1);
    EXPECT_EQ(this->allocator->liveBlocks(), 1u);
    EXPECT_TRUE(weak->isDead());

    weak->release();
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
}

TYPED_TEST(StorageTest, EveryWeakReferenceHoldsTheBlock) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1, true);
    IWeakReference* first = probe->getWeakRef();
    IWeakReference* second = probe->getWeakRef();
    EXPECT_EQ(first, second);  // one shared state, two references to it
    first->addWeakRef();       // a third

    probe.release();
    first->release();
    second->release();
    EXPECT_EQ(journal().events(), (Strings{"dtor"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 1u);
    EXPECT_TRUE(first->isDead());

    first->release();
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
}

TYPED_TEST(StorageTest, CopiesAddAndRemoveStrongReferences) {
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1, true);
    {
        ComPtr<IProbe> copy = probe;
        ComPtr<IProbe> another = copy;
        EXPECT_EQ(refs(probe.get()), 3u);
    }
    EXPECT_EQ(refs(probe.get()), 1u);
    EXPECT_EQ(this->destroyed(), 0);
    probe.release();
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
}

TYPED_TEST(StorageTest, InplaceBlockIsNeverFreed) {
    struct alignas(16) Area {
        unsigned char bytes[TestFixture::kBlockSize];
    } area;
    ComPtr<IProbe> probe = common::com::createInstanceInplace<TypeParam, IProbe>(area);
    ASSERT_TRUE(probe);
    EXPECT_EQ(refs(probe.get()), 1u);
    EXPECT_EQ(static_cast<void*>(&TestFixture::Storage::sharedState(*static_cast<TypeParam*>(probe.get()))),
              static_cast<void*>(&area));
    IWeakReference* weak = probe->getWeakRef();

    probe.release();
    EXPECT_EQ(this->destroyed(), 1);
    EXPECT_TRUE(weak->isDead());
    weak->release();

    EXPECT_EQ(this->allocator->allocs(), 0u);
    EXPECT_EQ(this->allocator->frees(), 0u);
    EXPECT_EQ(this->allocator->faults(), 0u);
}

TYPED_TEST(StorageTest, InplaceWithAnAllocatorAsWellReportsAndNeverFreesTheInplaceBlock) {
    struct alignas(16) Area {
        unsigned char bytes[TestFixture::kBlockSize];
    } area;
    TypeParam* object = TestFixture::Storage::template createInstance__<TypeParam>(
        &area, ComPtr<common::Allocator>(this->allocator.handle()), 5);

    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "(!inplaceMemBlock && allocator) || (inplaceMemBlock && !allocator)", "createInstance__",
                 kComClassFile);
    this->recorder.clear();

    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->value(), 5);
    // The allocator, being given, supplied the block.
    EXPECT_EQ(this->allocator->allocs(), 1u);
    static_cast<IRefCounted*>(object)->release();
    EXPECT_EQ(this->destroyed(), 1);
    for (const auto& event : this->allocator->events())
        EXPECT_NE(event.ptr, static_cast<void*>(&area));
    EXPECT_EQ(this->allocator->faults(), 0u);
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
}

TYPED_TEST(StorageTest, NeitherSourceOfMemoryReportsAndGivesNull) {
    TypeParam* object =
        TestFixture::Storage::template createInstance__<TypeParam>(nullptr, ComPtr<common::Allocator>());
    EXPECT_EQ(object, nullptr);
    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "(!inplaceMemBlock && allocator) || (inplaceMemBlock && !allocator)", "createInstance__",
                 kComClassFile);
    this->recorder.clear();
    EXPECT_EQ(this->constructed(), 0);
}

TYPED_TEST(StorageTest, AllocationFailureGivesNullFromStorage) {
    this->allocator->failNext();
    TypeParam* object = TestFixture::Storage::template createInstance<TypeParam>(1);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(this->constructed(), 0);
    EXPECT_EQ(this->allocator->allocs(), 0u);
}

TYPED_TEST(StorageTest, AllocationFailureReportsTheInterfaceCheckInCreateInstance) {
    this->allocator->failNext();
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1);
    EXPECT_FALSE(probe);
    EXPECT_EQ(this->constructed(), 0);
    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "itf", "createInstance", kComClassFile);
    this->recorder.clear();
}

// What the dying object sees of itself from inside its destructor.
struct InsideDestructor {
    uint32_t strongCount = 99;
    bool weakDead = false;
    bool weakAcquired = true;
};
InsideDestructor g_inside;

void lookAtItselfWhileDying(IProbe& self) {
    g_inside.strongCount = self.refsCount();
    IWeakReference* weak = self.getWeakRef();  // a weak reference taken while dying holds the block as usual
    g_inside.weakDead = weak->isDead();
    IRefCounted* strong = weak->acquire();
    g_inside.weakAcquired = strong != nullptr;
    weak->release();
}

TYPED_TEST(StorageTest, DestructorSeesItsObjectDeadAndMayUseAWeakReference) {
    g_inside = InsideDestructor{};
    ComPtr<IProbe> probe = common::com::createInstance<TypeParam, IProbe>(1, true, &lookAtItselfWhileDying);
    probe.release();
    EXPECT_EQ(g_inside.strongCount, 0u);
    EXPECT_TRUE(g_inside.weakDead);
    EXPECT_FALSE(g_inside.weakAcquired);
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
    EXPECT_EQ(this->allocator->faults(), 0u);
}

TYPED_TEST(StorageTest, LastReleaseFromAnotherHandleAfterCopies) {
    ComPtr<IProbe> first = common::com::createInstance<TypeParam, IProbe>(1, true);
    ComPtr<IProbe> second = first;
    IWeakReference* weak = first->getWeakRef();
    IRefCounted* third = weak->acquire();
    weak->release();
    EXPECT_EQ(refs(first.get()), 3u);
    first.release();
    third->release();
    EXPECT_EQ(this->destroyed(), 0);
    EXPECT_EQ(this->allocator->liveBlocks(), 1u);
    second.release();
    EXPECT_EQ(journal().events(), (Strings{"dtor", "free"}));
    EXPECT_EQ(this->allocator->liveBlocks(), 0u);
}

// A strong release too many, made on the shared state of a dead object that a weak reference still holds.
TYPED_TEST(StorageTest, StrongReleaseOfADeadObjectReportsAndDropsTheBlock) {
    struct alignas(16) Area {
        unsigned char bytes[TestFixture::kBlockSize];
    } area;
    ComPtr<IProbe> probe = common::com::createInstanceInplace<TypeParam, IProbe>(area);
    auto& state = TestFixture::Storage::sharedState(*static_cast<TypeParam*>(probe.get()));
    IWeakReference* weak = probe->getWeakRef();
    probe.release();
    ASSERT_TRUE(weak->isDead());

    state.releaseInstanceRef();  // nobody holds a strong reference: the count goes below zero

    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 2u);
    expectReport(reports[0],
                 std::is_same_v<typename TestFixture::RC, common::ConcurrentRC> ? "prev > 0" : "m_counter > 0",
                 "removeRef", comtest::kRefCountedFile);
    // The weak reference's hold on the block went with it.
    expectReport(reports[1], "m_instanceRC.noRefs()", "releaseStorageRef", kComClassFile);
    this->recorder.clear();
    EXPECT_EQ(this->destroyed(), 1);
}

// A state built by hand, to reach the checks that creation itself never fails.
template <typename RC>
struct alignas(16) StateArea {
    unsigned char bytes[sizeof(ComClassSharedState<RC>)];
};

IRefCounted* acquireNothing(void*) { return nullptr; }
void destroyNothing(void*) {}

TYPED_TEST(StorageTest, SharedStateChecksItsFunctionPointers) {
    using State = typename TestFixture::State;
    StateArea<typename TestFixture::RC> area;
    auto* state = new (&area) State(ComPtr<common::Allocator>(), nullptr, nullptr, 0);
    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 2u);
    expectReport(reports[0], "m_acquire", "ComClassSharedState", kComClassFile);
    expectReport(reports[1], "m_destructor", "ComClassSharedState", kComClassFile);
    this->recorder.clear();
    state->~State();
}

TYPED_TEST(StorageTest, ReleasingTheBlockWithALiveObjectReports) {
    using State = typename TestFixture::State;
    StateArea<typename TestFixture::RC> area;
    auto* state = new (&area) State(ComPtr<common::Allocator>(), &acquireNothing, &destroyNothing, sizeof(area));
    EXPECT_EQ(this->recorder.count(), 0u);
    EXPECT_EQ(state->instanceRefsCount(), 1u);

    state->releaseStorageRef();  // the one block reference goes while the strong count is still 1

    const auto reports = this->recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "m_instanceRC.noRefs()", "releaseStorageRef", kComClassFile);
    this->recorder.clear();
    EXPECT_EQ(this->allocator->frees(), 0u);
}

// A probe whose constructor throws after the block and the shared state exist.
class ThrowingProbe final : public comtest::ProbeBase {
    COMMON_COM_CLASS(ThrowingProbe, common::SingleThreadRC, comtest::ProbeBase)

public:
    ThrowingProbe() : ProbeBase(0) { throw std::runtime_error("constructor failed"); }
};

TEST(StrictStorageTest, ForeignThreadReportsTheOwnerCheckOfEachCount) {
    FailureRecorder recorder;
    ComPtr<IProbe> probe = common::com::createInstance<StrictProbe, IProbe>(1);
    std::thread([&] {
        probe->addRef();
        probe->release();
    }).join();
    EXPECT_EQ(probe->refsCount(), 1u);
    const auto reports = recorder.reports();
    constexpr const char* kOwnerCheck = "m_ownerThreadId == std::this_thread::get_id()";
    // The strong count and the block count are both checked, in that order, by each operation.
    ASSERT_EQ(reports.size(), 4u);
    expectReport(reports[0], kOwnerCheck, "addRef", comtest::kRefCountedFile);
    expectReport(reports[1], kOwnerCheck, "addRef", comtest::kRefCountedFile);
    expectReport(reports[2], kOwnerCheck, "removeRef", comtest::kRefCountedFile);
    expectReport(reports[3], kOwnerCheck, "removeRef", comtest::kRefCountedFile);
}

TEST(StorageThrowTest, ThrowingConstructorPropagatesAndLeavesTheBlock) {
    FailureRecorder recorder;
    ScopedCountingAllocator allocator;
    const uint32_t baseRefs = allocator->refsCount();
    EXPECT_THROW((common::com::createInstance<ThrowingProbe, IProbe>()), std::runtime_error);
    EXPECT_EQ(recorder.count(), 0u);

    // Nothing released or freed the block; its shared state still holds the allocator.
    ASSERT_EQ(allocator->allocs(), 1u);
    EXPECT_EQ(allocator->frees(), 0u);
    EXPECT_EQ(allocator->refsCount(), baseRefs + 1);

    // Tidy up by hand.
    using State = ComClassSharedState<common::SingleThreadRC>;
    auto* state = static_cast<State*>(allocator->events().at(0).ptr);
    state->~State();
    EXPECT_EQ(allocator->refsCount(), baseRefs);
    allocator->free(state, ComClassStorage<common::SingleThreadRC>::blockSize<ThrowingProbe>());
    EXPECT_EQ(allocator->liveBlocks(), 0u);
}

// A class made once per process in a static area of its own.
class SingletonProbe final : public comtest::ProbeBase {
    COMMON_COM_CLASS(SingletonProbe, common::ConcurrentRC, comtest::ProbeBase)

public:
    SingletonProbe() : ProbeBase(42) {}
};

TEST(StorageSingletonTest, SingletonLivesInStaticStorageAndIsNeverFreed) {
    FailureRecorder recorder;
    ScopedCountingAllocator allocator;
    ComPtr<IProbe> probe = common::com::createInstanceSingleton<SingletonProbe, IProbe>();
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->value(), 42);
    EXPECT_EQ(probe->refsCount(), 1u);
    auto& state = ComClassStorage<common::ConcurrentRC>::sharedState(*static_cast<SingletonProbe*>(probe.get()));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&state) % 16, 0u);
    probe.release();
    EXPECT_EQ(allocator->allocs(), 0u);
    EXPECT_EQ(allocator->frees(), 0u);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST(StorageCreateTest, CreationForwardsArgumentsAndAdoptsTheBirthReference) {
    FailureRecorder recorder;
    ComPtr<IProbe> probe = common::com::createInstance<SingleProbe, IProbe>(99);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->value(), 99);
    EXPECT_EQ(probe->refsCount(), 1u);
    ComPtr<SingleProbe> concrete = common::com::createInstance<SingleProbe, SingleProbe>(4);
    EXPECT_EQ(concrete->value(), 4);
    EXPECT_EQ(concrete->refsCount(), 1u);
    ComPtr<IRefCounted> root = common::com::createInstance<SingleProbe, IRefCounted>();
    EXPECT_EQ(root->refsCount(), 1u);
    EXPECT_EQ(recorder.count(), 0u);
}

}  // namespace
