// Tests of the owning handle ComPtr and of the interface casts behind IAnything::is and IAnything::as.
#include "common/com/comptr.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "common/com/comclass.h"
#include "comtestsupport.h"

namespace {

using common::ComPtr;
using common::com::TakeOwnership;
using comtest::expectReport;
using comtest::FailureRecorder;
using comtest::IProbe;
using comtest::IUnrelated;
using comtest::kComPtrFile;
using comtest::LogRecorder;
using comtest::ProbeBase;
using comtest::probeStats;
using comtest::refs;
using comtest::SingleProbe;
using comtest::StrictProbe;

static_assert(sizeof(ComPtr<IProbe>) == sizeof(IProbe*));
static_assert(std::is_nothrow_destructible_v<ComPtr<IProbe>>);

class ComPtrTest : public ::testing::Test {
protected:
    ComPtrTest() : m_destroyedBefore(probeStats().destroyed.load()) {}
    ~ComPtrTest() override { EXPECT_EQ(recorder.count(), 0u) << "unexpected failed checks"; }

    int destroyed() const { return probeStats().destroyed.load() - m_destroyedBefore; }

    static ComPtr<IProbe> make(int value = 0) { return common::com::createInstance<SingleProbe, IProbe>(value); }

    FailureRecorder recorder;

private:
    int m_destroyedBefore;
};

TEST_F(ComPtrTest, DefaultAndNullAreEmpty) {
    ComPtr<IProbe> a;
    ComPtr<IProbe> b = nullptr;
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_FALSE(a);
    EXPECT_FALSE(b);
    EXPECT_TRUE(a == nullptr);
    EXPECT_TRUE(a == b);
}

TEST_F(ComPtrTest, CreationGivesOneHandleWithCountOne) {
    ComPtr<IProbe> a = make(5);
    ASSERT_TRUE(a);
    EXPECT_EQ(refs(a.get()), 1u);
    EXPECT_EQ(a->value(), 5);
    EXPECT_EQ((*a).value(), 5);
}

TEST_F(ComPtrTest, TakeOwnershipAdoptsWithoutAddRef) {
    IProbe* raw = make().giveup();
    EXPECT_EQ(refs(raw), 1u);
    {
        ComPtr<IProbe> adopted{TakeOwnership<IProbe>(raw)};
        EXPECT_EQ(adopted.get(), raw);
        EXPECT_EQ(refs(raw), 1u);
    }
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(ComPtrTest, GiveupThenTakeOwnershipKeepsTheCount) {
    ComPtr<IProbe> a = make();
    ComPtr<IProbe> keep = a;
    EXPECT_EQ(refs(a.get()), 2u);
    IProbe* raw = a.giveup();
    EXPECT_FALSE(a);
    EXPECT_EQ(refs(raw), 2u);
    ComPtr<IProbe> b{TakeOwnership<IProbe>(raw)};
    EXPECT_EQ(refs(raw), 2u);
    EXPECT_EQ(b.get(), keep.get());
}

TEST_F(ComPtrTest, GetDoesNotChangeTheCount) {
    ComPtr<IProbe> a = make();
    IProbe* raw = a.get();
    EXPECT_EQ(raw, a.get());
    EXPECT_EQ(refs(raw), 1u);
}

TEST_F(ComPtrTest, CopyAddsAReference) {
    ComPtr<IProbe> a = make();
    {
        ComPtr<IProbe> b(a);
        EXPECT_EQ(b.get(), a.get());
        EXPECT_EQ(refs(a.get()), 2u);
    }
    EXPECT_EQ(refs(a.get()), 1u);
    ComPtr<IProbe> empty;
    ComPtr<IProbe> copyOfEmpty(empty);
    EXPECT_FALSE(copyOfEmpty);
}

TEST_F(ComPtrTest, CopyAssignmentReleasesTheOldAndAddsTheNew) {
    ComPtr<IProbe> a = make(1);
    ComPtr<IProbe> b = make(2);
    IProbe* first = a.get();
    a = b;
    EXPECT_EQ(destroyed(), 1);  // the first object had only that reference
    EXPECT_EQ(a.get(), b.get());
    EXPECT_NE(a.get(), first);
    EXPECT_EQ(refs(b.get()), 2u);

    ComPtr<IProbe>& alias = a;
    a = alias;  // self-assignment keeps the object
    EXPECT_EQ(refs(b.get()), 2u);
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(ComPtrTest, MoveTakesThePointerWithoutCountChange) {
    ComPtr<IProbe> a = make();
    IProbe* raw = a.get();
    ComPtr<IProbe> b(std::move(a));
    EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(b.get(), raw);
    EXPECT_EQ(refs(raw), 1u);
}

TEST_F(ComPtrTest, MoveAssignmentReleasesTheOldAndTakesOverTheOther) {
    ComPtr<IProbe> a = make(1);
    ComPtr<IProbe> b = make(2);
    IProbe* second = b.get();
    a = std::move(b);
    EXPECT_EQ(destroyed(), 1);
    EXPECT_FALSE(b);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(a.get(), second);
    EXPECT_EQ(refs(second), 1u);

    ComPtr<IProbe>& alias = a;
    a = std::move(alias);  // giveup first: the handle gets its own reference back
    EXPECT_EQ(a.get(), second);
    EXPECT_EQ(refs(second), 1u);
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(ComPtrTest, DestructorReleases) {
    ComPtr<IProbe> keep = make();
    {
        ComPtr<IProbe> copy = keep;
        EXPECT_EQ(refs(keep.get()), 2u);
    }
    EXPECT_EQ(refs(keep.get()), 1u);
    { ComPtr<IProbe> last = std::move(keep); }
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(ComPtrTest, ReleaseOnEmptyDoesNothing) {
    ComPtr<IProbe> a;
    a.release();
    a.release();
    EXPECT_FALSE(a);
}

TEST_F(ComPtrTest, ReleaseEmptiesAndDropsTheReference) {
    ComPtr<IProbe> a = make();
    ComPtr<IProbe> keep = a;
    a.release();
    EXPECT_FALSE(a);
    EXPECT_EQ(refs(keep.get()), 1u);
    keep.release();
    EXPECT_EQ(destroyed(), 1);
}

// The handle a destructor re-enters.
ComPtr<IProbe> g_reentered;
bool g_emptyInDestructor = false;
int g_destructorRuns = 0;

void reenterHandle(IProbe&) {
    ++g_destructorRuns;
    g_emptyInDestructor = !g_reentered;
    g_reentered.release();  // must be a no-op: the handle was cleared before the object was released
}

TEST_F(ComPtrTest, ReleaseClearsTheHandleBeforeTheDestructorReentersIt) {
    g_destructorRuns = 0;
    g_emptyInDestructor = false;
    g_reentered = common::com::createInstance<SingleProbe, IProbe>(0, false, &reenterHandle);
    g_reentered.release();
    EXPECT_EQ(g_destructorRuns, 1);
    EXPECT_TRUE(g_emptyInDestructor);
    EXPECT_FALSE(g_reentered);
}

TEST_F(ComPtrTest, ResetClearsTheHandleBeforeTheDestructorReentersIt) {
    g_destructorRuns = 0;
    g_reentered = common::com::createInstance<SingleProbe, IProbe>(0, false, &reenterHandle);
    g_reentered.reset();
    EXPECT_EQ(g_destructorRuns, 1);
    EXPECT_TRUE(g_emptyInDestructor);
    EXPECT_FALSE(g_reentered);
}

TEST_F(ComPtrTest, AcquireOfTheObjectAlreadyHeldKeepsItAlive) {
    // With a single-owner count, a release before the addRef would destroy the object and then report
    // "m_counter > 0"; the recorder stays empty and the destructor does not run.
    ComPtr<IProbe> a = make();
    a.acquire(a.get());
    EXPECT_EQ(destroyed(), 0);
    EXPECT_EQ(refs(a.get()), 1u);
    a.reset(a.get());
    EXPECT_EQ(destroyed(), 0);
    EXPECT_EQ(refs(a.get()), 1u);

    ComPtr<IProbe> strict = common::com::createInstance<StrictProbe, IProbe>();
    strict.acquire(strict.get());
    EXPECT_EQ(refs(strict.get()), 1u);
    EXPECT_EQ(destroyed(), 0);
}

TEST_F(ComPtrTest, AcquireAddsTheNewAndReleasesTheOld) {
    ComPtr<IProbe> a = make(1);
    ComPtr<IProbe> b = make(2);
    a.acquire(b.get());
    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_EQ(refs(b.get()), 2u);
    a.acquire(nullptr);
    EXPECT_FALSE(a);
    EXPECT_EQ(refs(b.get()), 1u);
}

TEST_F(ComPtrTest, ResetIsAcquire) {
    ComPtr<IProbe> a = make(1);
    ComPtr<IProbe> b = make(2);
    a.reset(b.get());
    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(refs(b.get()), 2u);
    a.reset();
    EXPECT_FALSE(a);
    EXPECT_EQ(refs(b.get()), 1u);
}

TEST_F(ComPtrTest, MoveAcquireReleasesTheOldAndAdoptsWithoutAddRef) {
    ComPtr<IProbe> a = make(1);
    IProbe* raw = make(2).giveup();
    a.moveAcquire(raw);
    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(a.get(), raw);
    EXPECT_EQ(refs(raw), 1u);
}

TEST_F(ComPtrTest, ConvertingCopyAsksTheObjectAndAddsAReference) {
    LogRecorder log;
    ComPtr<IProbe> probe = make(8);
    ComPtr<IRefCounted> root(probe);
    EXPECT_EQ(root.get(), static_cast<IRefCounted*>(probe.get()));
    EXPECT_EQ(refs(probe.get()), 2u);

    ComPtr<IProbe> back(root);
    EXPECT_EQ(back.get(), probe.get());
    EXPECT_EQ(refs(probe.get()), 3u);

    ComPtr<ProbeBase> base(root);
    EXPECT_EQ(base.get(), static_cast<ProbeBase*>(static_cast<SingleProbe*>(probe.get())));
    ComPtr<SingleProbe> concrete(base);  // `as` answers the concrete type
    EXPECT_EQ(concrete.get(), static_cast<SingleProbe*>(probe.get()));
    EXPECT_EQ(refs(probe.get()), 5u);
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(ComPtrTest, ConvertingCopyFromEmptyStaysEmptyQuietly) {
    LogRecorder log;
    ComPtr<IRefCounted> empty;
    ComPtr<IProbe> probe(empty);
    EXPECT_FALSE(probe);
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(ComPtrTest, ConvertingCopyNotAnsweredWarnsAndStaysEmpty) {
    LogRecorder log;
    ComPtr<IProbe> probe = make();
    ComPtr<IUnrelated> other(probe);
    EXPECT_FALSE(other);
    EXPECT_EQ(refs(probe.get()), 1u);
    ASSERT_EQ(log.entries().size(), 1u);
    const auto& entry = log.entries()[0];
    EXPECT_EQ(entry.level, 2);
    EXPECT_EQ(entry.function, "acquire");
    EXPECT_EQ(entry.file, kComPtrFile);
    EXPECT_EQ(entry.message, std::string("Expected API not exposed: (") + typeid(IUnrelated).name() +
                                 "). Source type (" + typeid(IProbe).name() + ")");
}

TEST_F(ComPtrTest, CrossTypeAcquireReleasesFirstEvenWhenNotAnswered) {
    LogRecorder log;
    ComPtr<IUnrelated> handle;
    ComPtr<IProbe> probe = make();
    ComPtr<IRefCounted> root(probe);
    handle.acquire(root.get());
    EXPECT_FALSE(handle);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].message, std::string("Expected API not exposed: (") + typeid(IUnrelated).name() +
                                            "). Source type (" + typeid(IRefCounted).name() + ")");

    ComPtr<IProbe> held = make(1);
    ComPtr<IProbe> other = make(2);
    ComPtr<IRefCounted> otherRoot(other);
    held.acquire(otherRoot.get());  // the old object goes first, then the new one is asked for IProbe
    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(held.get(), other.get());
    EXPECT_EQ(refs(other.get()), 3u);
    held.acquire(static_cast<IRefCounted*>(nullptr));
    EXPECT_FALSE(held);
    EXPECT_EQ(refs(other.get()), 2u);
    EXPECT_EQ(log.entries().size(), 1u);
}

TEST_F(ComPtrTest, DereferencingEmptyReportsWithTheTypeName) {
    ComPtr<IProbe> empty;
    IProbe* result = empty.operator->();
    EXPECT_EQ(result, nullptr);  // the handler returned: the (null) pointer is handed on
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "m_instance", "operator->", kComPtrFile,
                 std::string("ComPtr<") + typeid(IProbe).name() + "> is not dereferencible");
    recorder.clear();
}

TEST_F(ComPtrTest, Equality) {
    ComPtr<IProbe> a = make();
    ComPtr<IProbe> b = a;
    ComPtr<IProbe> c = make();
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == nullptr);
}

TEST_F(ComPtrTest, AsRefCountedAdjustsThroughTheVirtualBase) {
    ComPtr<IProbe> a = make();
    IRefCounted& rc = common::com_internal::asRefCounted(*a);
    EXPECT_EQ(&rc, static_cast<IRefCounted*>(a.get()));
}

// Casts: the same shape as the system's drivers, a concrete class over an abstract base over an interface.
class CastTest : public ComPtrTest {
protected:
    ComPtr<SingleProbe> object = common::com::createInstance<SingleProbe, SingleProbe>(11);
};

TEST_F(CastTest, IsAnswersRootsAndDeclaredInterfacesButNotTheConcreteClass) {
    const IAnything& anything = *object;
    EXPECT_TRUE(anything.is(typeid(IAnything)));
    EXPECT_TRUE(anything.is(typeid(IRefCounted)));
    EXPECT_TRUE(anything.is(typeid(ProbeBase)));
    EXPECT_TRUE(anything.is(typeid(IProbe)));  // declared by the base, flattened
    EXPECT_FALSE(anything.is(typeid(SingleProbe)));
    EXPECT_FALSE(anything.is(typeid(IUnrelated)));
    EXPECT_FALSE(anything.is(typeid(common::Disposable)));
    EXPECT_FALSE(anything.is(typeid(int)));
}

TEST_F(CastTest, AsAnswersTheConcreteClassAndEveryDeclaredView) {
    SingleProbe* concrete = object.get();
    IAnything& anything = *concrete;
    EXPECT_EQ(anything.as(typeid(SingleProbe)), static_cast<void*>(concrete));
    EXPECT_EQ(anything.as(typeid(ProbeBase)), static_cast<void*>(static_cast<ProbeBase*>(concrete)));
    EXPECT_EQ(anything.as(typeid(IProbe)), static_cast<void*>(static_cast<IProbe*>(concrete)));
    EXPECT_EQ(anything.as(typeid(IRefCounted)), static_cast<void*>(static_cast<IRefCounted*>(concrete)));
    EXPECT_EQ(anything.as(typeid(IAnything)), static_cast<void*>(static_cast<IAnything*>(concrete)));
    EXPECT_EQ(anything.as(typeid(IUnrelated)), nullptr);
    EXPECT_EQ(anything.as(typeid(common::Disposable)), nullptr);

    EXPECT_EQ(anything.as<SingleProbe*>(), concrete);
    EXPECT_EQ(anything.as<IProbe*>(), static_cast<IProbe*>(concrete));
    EXPECT_EQ(anything.as<const IProbe*>(), static_cast<IProbe*>(concrete));
    EXPECT_EQ(anything.as<IUnrelated*>(), nullptr);
    EXPECT_EQ(refs(concrete), 1u);  // queries add no reference
}

TEST_F(CastTest, FreeFunctionsMatchTheMembers) {
    SingleProbe& concrete = *object;
    EXPECT_TRUE(common::com::rtIs<SingleProbe>(typeid(IProbe)));
    EXPECT_FALSE(common::com::rtIs<SingleProbe>(typeid(SingleProbe)));
    EXPECT_EQ(common::com::rtCast(concrete, typeid(SingleProbe)), static_cast<void*>(&concrete));
    EXPECT_EQ(common::com::rtCast(concrete, typeid(IUnrelated)), nullptr);
    EXPECT_EQ(common::com::cast<IProbe>(concrete), static_cast<IProbe*>(&concrete));
    EXPECT_EQ(common::com::cast<ProbeBase>(concrete), static_cast<ProbeBase*>(&concrete));
    EXPECT_EQ(common::com::cast<IRefCounted>(concrete), static_cast<IRefCounted*>(&concrete));
    EXPECT_EQ(common::com::cast<IAnything>(concrete), static_cast<IAnything*>(&concrete));
}

// A concrete class with two declared bases, one of them the disposal marker.
class DisposableProbe final : public ProbeBase, public common::Disposable {
    COMMON_COM_CLASS(DisposableProbe, common::SingleThreadRC, ProbeBase, common::Disposable)

public:
    DisposableProbe() : ProbeBase(0) {}
    void dispose() override { ++disposed; }
    int disposed = 0;
};

TEST_F(CastTest, EveryDeclaredBaseIsAnswered) {
    ComPtr<IProbe> probe = common::com::createInstance<DisposableProbe, IProbe>();
    auto* concrete = static_cast<DisposableProbe*>(probe.get());
    EXPECT_TRUE(probe->is(typeid(common::Disposable)));
    EXPECT_TRUE(probe->is(typeid(IProbe)));
    EXPECT_FALSE(probe->is(typeid(DisposableProbe)));
    common::Disposable* disposable = probe->as<common::Disposable*>();
    ASSERT_EQ(disposable, static_cast<common::Disposable*>(concrete));
    disposable->dispose();
    EXPECT_EQ(concrete->disposed, 1);
    EXPECT_EQ(object->as<common::Disposable*>(), nullptr);
}

}  // namespace
