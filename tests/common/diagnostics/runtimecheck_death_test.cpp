// Tests that end the process: failed checks without a handler and throwing value writers.
#include <ostream>
#include <stdexcept>

// A value whose writer throws; declared before the formatter so that its writer can find the overload.
struct ThrowingValue {};
namespace common::formatters {
void formatValue(std::ostream& out, const ThrowingValue& value);
}

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "common/diagnostics/runtimecheck.h"
#include "common/utils/format.h"

void common::formatters::formatValue(std::ostream&, const ThrowingValue&) { throw std::runtime_error("writer failed"); }

namespace {

using common::diagnostics::FailureHandler;
using common::diagnostics::RuntimeCheck;
using common::diagnostics::RuntimeCheckInternal;
using common::diagnostics::SourceInfo;

constexpr int kTerminateExitCode = 77;

// Routes standard output into standard error, so that the death-test matcher sees both.
void mergeStdoutIntoStderr() {
    std::fflush(stdout);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

// Makes std::terminate end the process with a known exit code and no text.
void exitQuietlyOnTerminate() {
    std::set_terminate([] { std::_Exit(kTerminateExitCode); });
}

// Makes std::terminate abort without the C++ runtime's own report.
void abortQuietlyOnTerminate() {
    std::set_terminate([] { std::abort(); });
}

class DeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override { RuntimeCheckInternal::instance().removeFailureHandler(nullptr); }
};

TEST_F(DeathTest, FailedCheckWithoutHandlerEndsThroughTerminateSilently) {
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            exitQuietlyOnTerminate();
            COMMON_CHECK_AT("../common/include/common/com/refcounted", 10, 1 > 2, "message {0}", 5);
            std::fputs("continued after the check", stderr);
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(DeathTest, FailedCheckWithoutHandlerAbortsWithoutOutput) {
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            abortQuietlyOnTerminate();
            COMMON_CHECK_AT("../bridge/pointercapture", 20, false, "Pointer capture buttons callback already set.");
        },
        ::testing::KilledBySignal(SIGABRT), "^$");
}

TEST_F(DeathTest, FailedCheckWithTheDefaultTerminateHandlerPrintsNothingOfItsOwn) {
    // Whatever appears comes from the C++ runtime's terminate handler, never from the check.
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            COMMON_CHECK_AT("../bridge/pointercapture", 30, false, "Pointer capture motion callback already set.");
        },
        ::testing::KilledBySignal(SIGABRT), "^(terminate called without an active exception\n)?$");
}

TEST_F(DeathTest, FailedCheckAfterHandlerRemovalTerminates) {
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            exitQuietlyOnTerminate();
            RuntimeCheck::setFailureHandler(
                FailureHandler::makeUnique([](SourceInfo const&, char const*, char const*, char const*) {}));
            COMMON_CHECK_AT("file", 1, false);  // handled: goes on
            const int token = 0;
            RuntimeCheckInternal::instance().removeFailureHandler(&token);
            COMMON_CHECK_AT("file", 2, false);  // no handler any more
            std::fputs("continued after the check", stderr);
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(DeathTest, FailedCheckAfterEmptyHandlerTerminates) {
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            exitQuietlyOnTerminate();
            RuntimeCheck::setFailureHandler(nullptr);
            COMMON_CHECK_AT("file", 1, false);
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(DeathTest, RaiseFailureWithoutHandlerTerminates) {
    EXPECT_EXIT(
        {
            mergeStdoutIntoStderr();
            exitQuietlyOnTerminate();
            RuntimeCheck::raiseFailure(SourceInfo{"f", "file", 1}, nullptr, "x", "message");
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "^$");
}

TEST_F(DeathTest, ThrowingValueWriterTerminates) {
    EXPECT_EXIT(
        {
            exitQuietlyOnTerminate();
            (void)common::format("{0}", ThrowingValue{});
        },
        ::testing::ExitedWithCode(kTerminateExitCode), "");
}

}  // namespace
