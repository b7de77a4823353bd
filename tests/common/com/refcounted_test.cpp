// Tests of the root interfaces and the three reference-count policies.
#include "common/com/refcounted.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <thread>
#include <type_traits>

#include "comtestsupport.h"

namespace {

using comtest::expectReport;
using comtest::FailureRecorder;
using comtest::kRefCountedFile;

// The interfaces carry no data and have the documented bases.
static_assert(std::is_abstract_v<IAnything>);
static_assert(std::is_abstract_v<IRefCounted>);
static_assert(std::is_abstract_v<IWeakReference>);
static_assert(std::is_base_of_v<IAnything, IRefCounted>);
static_assert(std::is_polymorphic_v<common::Disposable>);
static_assert(!std::is_base_of_v<IAnything, common::Disposable>);
static_assert(!std::is_base_of_v<IAnything, IWeakReference>);
static_assert(std::has_virtual_destructor_v<IAnything>);
static_assert(!std::has_virtual_destructor_v<IWeakReference>);
static_assert(std::is_same_v<decltype(std::declval<IRefCounted&>().refsCount()), uint32_t>);
static_assert(std::is_same_v<decltype(std::declval<IRefCounted&>().getWeakRef()), IWeakReference*>);
static_assert(std::is_same_v<decltype(std::declval<IWeakReference&>().acquire()), IRefCounted*>);

// IRefCounted derives virtually from IAnything: a class reaching it twice holds one IAnything.
struct ILeft : public virtual IRefCounted {};
struct IRight : public virtual IRefCounted {};
struct Both : ILeft, IRight {
    bool is(const std::type_info&) const override { return false; }
    void* as(const std::type_info&) override { return nullptr; }
    void addRef() override {}
    void release() override {}
    IWeakReference* getWeakRef() override { return nullptr; }
    uint32_t refsCount() const override { return 0; }
};

TEST(InterfacesTest, RefCountedIsAVirtualBaseSoThereIsOneRoot) {
    Both both;
    ILeft& left = both;
    IRight& right = both;
    EXPECT_EQ(static_cast<IAnything*>(&left), static_cast<IAnything*>(&right));
    EXPECT_EQ(static_cast<IRefCounted*>(&left), static_cast<IRefCounted*>(&right));
}

template <typename RC>
class PolicyTest : public ::testing::Test {};

using Policies = ::testing::Types<common::SingleThreadRC, common::ConcurrentRC, common::StrictSingleThreadRC>;
TYPED_TEST_SUITE(PolicyTest, Policies);

TYPED_TEST(PolicyTest, NewCounterHoldsOneReference) {
    TypeParam rc;
    EXPECT_EQ(common::refsCount(rc), 1u);
    EXPECT_FALSE(rc.noRefs());
}

TYPED_TEST(PolicyTest, AddRefAndRemoveRefReturnTheCountBefore) {
    FailureRecorder recorder;
    TypeParam rc;
    EXPECT_EQ(rc.addRef(), 1u);
    EXPECT_EQ(rc.addRef(), 2u);
    EXPECT_EQ(common::refsCount(rc), 3u);
    EXPECT_EQ(rc.removeRef(), 3u);
    EXPECT_EQ(rc.removeRef(), 2u);
    EXPECT_EQ(common::refsCount(rc), 1u);
    EXPECT_EQ(recorder.count(), 0u);
}

TYPED_TEST(PolicyTest, RemovingTheLastReferenceReturnsOneAndLeavesZero) {
    FailureRecorder recorder;
    TypeParam rc;
    EXPECT_EQ(rc.removeRef(), 1u);
    EXPECT_EQ(common::refsCount(rc), 0u);
    EXPECT_TRUE(rc.noRefs());
    EXPECT_FALSE(common::tryAddRef(rc));
    EXPECT_EQ(common::refsCount(rc), 0u);
    EXPECT_TRUE(rc.noRefs());
    EXPECT_EQ(recorder.count(), 0u);
}

TYPED_TEST(PolicyTest, TryAddRefOnALiveCountIncrements) {
    FailureRecorder recorder;
    TypeParam rc;
    EXPECT_TRUE(common::tryAddRef(rc));
    EXPECT_EQ(common::refsCount(rc), 2u);
    EXPECT_TRUE(common::tryAddRef(rc));
    EXPECT_EQ(common::refsCount(rc), 3u);
    EXPECT_EQ(recorder.count(), 0u);
}

// The expression text each policy reports for a dead count.
template <typename RC>
const char* deadCountExpression() {
    return std::is_same_v<RC, common::ConcurrentRC> ? "prev > 0" : "m_counter > 0";
}

TYPED_TEST(PolicyTest, AddRefOnZeroReportsAndStillIncrements) {
    FailureRecorder recorder;
    TypeParam rc;
    rc.removeRef();
    ASSERT_EQ(recorder.count(), 0u);

    EXPECT_EQ(rc.addRef(), 0u);
    EXPECT_EQ(common::refsCount(rc), 1u);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], deadCountExpression<TypeParam>(), "addRef", kRefCountedFile);
}

TYPED_TEST(PolicyTest, RemoveRefOnZeroReportsAndStillDecrements) {
    FailureRecorder recorder;
    TypeParam rc;
    rc.removeRef();

    EXPECT_EQ(rc.removeRef(), 0u);
    EXPECT_EQ(common::refsCount(rc), std::numeric_limits<uint32_t>::max());
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], deadCountExpression<TypeParam>(), "removeRef", kRefCountedFile);
}

TEST(ConcurrentRCTest, MemberTryAddRefRefusesZero) {
    common::ConcurrentRC rc;
    EXPECT_TRUE(rc.tryAddRef());
    EXPECT_EQ(rc.removeRef(), 2u);
    EXPECT_EQ(rc.removeRef(), 1u);
    EXPECT_FALSE(rc.tryAddRef());
    EXPECT_EQ(common::refsCount(rc), 0u);
}

// A strict counter used from a thread other than its owner reports the owner check before anything else.
class StrictForeignThreadTest : public ::testing::Test {
protected:
    template <typename F>
    static void onOtherThread(F&& f) {
        std::thread thread(std::forward<F>(f));
        thread.join();
    }

    FailureRecorder recorder;
    common::StrictSingleThreadRC rc;
};

constexpr const char* kOwnerCheck = "m_ownerThreadId == std::this_thread::get_id()";

TEST_F(StrictForeignThreadTest, RecordsTheConstructingThread) {
    EXPECT_EQ(rc.m_ownerThreadId, std::this_thread::get_id());
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(StrictForeignThreadTest, AddRefReportsOwnerCheckAndStillIncrements) {
    uint32_t before = 0;
    std::thread::id foreign;
    onOtherThread([&] {
        foreign = std::this_thread::get_id();
        before = rc.addRef();
    });
    EXPECT_EQ(before, 1u);
    EXPECT_EQ(common::refsCount(rc), 2u);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], kOwnerCheck, "addRef", kRefCountedFile);
    EXPECT_EQ(reports[0].thread, foreign);
}

TEST_F(StrictForeignThreadTest, RemoveRefReportsOwnerCheckAndStillDecrements) {
    uint32_t before = 0;
    onOtherThread([&] { before = rc.removeRef(); });
    EXPECT_EQ(before, 1u);
    EXPECT_EQ(common::refsCount(rc), 0u);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], kOwnerCheck, "removeRef", kRefCountedFile);
}

TEST_F(StrictForeignThreadTest, OwnerCheckComesBeforeTheCountCheck) {
    rc.removeRef();
    onOtherThread([&] { rc.addRef(); });
    onOtherThread([&] {
        rc.removeRef();
        rc.removeRef();
    });
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 5u);
    expectReport(reports[0], kOwnerCheck, "addRef", kRefCountedFile);
    expectReport(reports[1], "m_counter > 0", "addRef", kRefCountedFile);
    expectReport(reports[2], kOwnerCheck, "removeRef", kRefCountedFile);
    expectReport(reports[3], kOwnerCheck, "removeRef", kRefCountedFile);
    expectReport(reports[4], "m_counter > 0", "removeRef", kRefCountedFile);
    EXPECT_EQ(common::refsCount(rc), std::numeric_limits<uint32_t>::max());
}

TEST_F(StrictForeignThreadTest, NoRefsReportsOwnerCheck) {
    bool none = true;
    onOtherThread([&] { none = rc.noRefs(); });
    EXPECT_FALSE(none);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], kOwnerCheck, "noRefs", kRefCountedFile);
}

TEST_F(StrictForeignThreadTest, FreeRefsCountReportsWithItsParameterName) {
    uint32_t count = 0;
    onOtherThread([&] { count = common::refsCount(rc); });
    EXPECT_EQ(count, 1u);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 1u);
    expectReport(reports[0], "rc_.m_ownerThreadId == std::this_thread::get_id()", "refsCount", kRefCountedFile);
}

TEST_F(StrictForeignThreadTest, TryAddRefChecksTheOwnerOnEveryStep) {
    bool added = false;
    onOtherThread([&] { added = common::tryAddRef(rc); });
    EXPECT_TRUE(added);
    EXPECT_EQ(common::refsCount(rc), 2u);
    const auto reports = recorder.reports();
    ASSERT_EQ(reports.size(), 2u);
    expectReport(reports[0], kOwnerCheck, "noRefs", kRefCountedFile);
    expectReport(reports[1], kOwnerCheck, "addRef", kRefCountedFile);
}

TEST_F(StrictForeignThreadTest, OwnerThreadReportsNothing) {
    rc.addRef();
    rc.removeRef();
    EXPECT_FALSE(rc.noRefs());
    EXPECT_EQ(common::refsCount(rc), 1u);
    EXPECT_EQ(recorder.count(), 0u);
}

}  // namespace
