// Object-model failures with no failure handler installed: each ends the process, printing nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "common/com/comclass.h"
#include "common/com/comptr.h"
#include "common/diagnostics/runtimecheck.h"
#include "common/meta/classinfo.h"
#include "comtestsupport.h"

namespace {

using common::ComPtr;
using comtest::IProbe;
using comtest::ScopedCountingAllocator;
using comtest::SingleProbe;

constexpr int kTerminateExitCode = 77;

// Makes std::terminate end the process with a known exit code and no text of its own; standard output goes to
// standard error so that the matcher sees both.
void prepareChild() {
    std::fflush(stdout);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    std::set_terminate([] { std::_Exit(kTerminateExitCode); });
}

ComPtr<IProbe> createProbe() { return common::com::createInstance<SingleProbe, IProbe>(); }

common::meta::FieldInfo<int> unboundField() { return common::meta::FieldInfo<int>{"x", nullptr}; }

class ComDeathTest : public ::testing::Test {
protected:
    ComDeathTest() {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        common::diagnostics::RuntimeCheckInternal::instance().removeFailureHandler(nullptr);
    }
};

TEST_F(ComDeathTest, AllocatorGivingNoBlockInsideCreateInstanceEndsTheProcess) {
    EXPECT_EXIT(
        {
            prepareChild();
            ScopedCountingAllocator allocator;
            allocator->failNext();
            ComPtr<IProbe> probe = createProbe();
            std::fputs("survived", stderr);
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(ComDeathTest, DereferencingAnEmptyHandleEndsTheProcess) {
    EXPECT_EXIT(
        {
            prepareChild();
            ComPtr<IProbe> empty;
            std::fprintf(stderr, "%d", empty->value());
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(ComDeathTest, AddRefOnADeadCountEndsTheProcess) {
    EXPECT_EXIT(
        {
            prepareChild();
            common::SingleThreadRC rc;
            rc.removeRef();
            rc.addRef();
            std::fputs("survived", stderr);
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(ComDeathTest, ReadingAnUnboundFieldEndsTheProcess) {
    EXPECT_EXIT(
        {
            prepareChild();
            std::fprintf(stderr, "%d", unboundField().value());
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(ComDeathTest, WithoutTheHandlerOverrideTerminationAborts) {
    EXPECT_DEATH(
        {
            ComPtr<IProbe> empty;
            std::fprintf(stderr, "%d", empty->value());
        },
        "");
}

}  // namespace
