// Tests of runtime checks and the failure-handler slot (with a handler installed; see runtimecheck_death_test.cpp for
// none).
#include "common/diagnostics/runtimecheck.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

namespace {

using common::diagnostics::FailureHandler;
using common::diagnostics::RuntimeCheck;
using common::diagnostics::RuntimeCheckInternal;
using common::diagnostics::SourceInfo;

// One failure as a handler saw it.
struct Report {
    std::string function;
    std::string file;
    std::optional<uint32_t> line;
    bool reservedIsNull;
    std::string reserved;
    std::string expression;
    bool messageIsNull;
    std::string message;
    std::thread::id thread;
};

class RuntimeCheckTest : public ::testing::Test {
protected:
    void TearDown() override { RuntimeCheckInternal::instance().removeFailureHandler(nullptr); }

    std::unique_ptr<FailureHandler> makeRecorder() {
        return FailureHandler::makeUnique(
            [this](SourceInfo const& source, char const* reserved, char const* expression, char const* message) {
                reports.push_back(Report{std::string(source.function), std::string(source.file), source.line,
                                         reserved == nullptr, reserved ? reserved : "", expression ? expression : "",
                                         message == nullptr, message ? message : "", std::this_thread::get_id()});
            });
    }
    void installRecorder() { RuntimeCheck::setFailureHandler(makeRecorder()); }
    /// Installs a handler that counts its calls in `oldCalls`; the result expires when the handler is destroyed.
    std::weak_ptr<int> installCounter() {
        auto marker = std::make_shared<int>(0);
        std::weak_ptr<int> alive = marker;
        RuntimeCheck::setFailureHandler(
            FailureHandler::makeUnique([marker = std::move(marker), this](SourceInfo const&, char const*, char const*,
                                                                          char const*) { ++oldCalls; }));
        return alive;
    }

    std::vector<Report> reports;
    int oldCalls = 0;
};

// A reference counter that, like the object model's, checks before it decrements.
struct Counter {
    int m_counter = 0;
    int removeRef() {
        COMMON_CHECK_AT("../common/include/common/com/refcounted", 88, m_counter > 0);
        return --m_counter;
    }
};

// --- passing and failing checks ---

TEST_F(RuntimeCheckTest, PassingCheckReportsNothing) {
    installRecorder();
    COMMON_CHECK_AT("file", 1, true);
    COMMON_CHECK_AT("file", 2, 1 + 1 == 2, "never {0}", 1);
    COMMON_CHECK_AT("file", 3, this);
    EXPECT_TRUE(reports.empty());
}

TEST_F(RuntimeCheckTest, PassingCheckWithoutHandlerDoesNothing) {
    COMMON_CHECK_AT("file", 1, true);
    COMMON_CHECK_IN("f", "file", 2, 2 > 1, "message {0}", 1);
    SUCCEED();
}

TEST_F(RuntimeCheckTest, FailedCheckReportsAndExecutionContinues) {
    installRecorder();
    bool reached = false;
    COMMON_CHECK_AT("../bridge/pointercapture", 12, 1 + 1 == 3);
    reached = true;
    EXPECT_TRUE(reached);
    ASSERT_EQ(reports.size(), 1u);
    const Report& r = reports[0];
    EXPECT_EQ(r.function, "TestBody");
    EXPECT_EQ(r.file, "../bridge/pointercapture");
    EXPECT_EQ(r.line, std::optional<uint32_t>(12));
    EXPECT_EQ(r.expression, "1 + 1 == 3");
}

TEST_F(RuntimeCheckTest, FailedReferenceCountCheckReportsOnceAndStillDecrements) {
    installRecorder();
    Counter counter;
    const int result = counter.removeRef();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(counter.m_counter, -1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].expression, "m_counter > 0");
    EXPECT_EQ(reports[0].function, "removeRef");
    EXPECT_EQ(reports[0].file, "../common/include/common/com/refcounted");
    EXPECT_EQ(reports[0].line, std::optional<uint32_t>(88));
}

TEST_F(RuntimeCheckTest, ReservedArgumentIsNullAndMissingMessageIsEmpty) {
    installRecorder();
    COMMON_CHECK_AT("file", 5, false);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(reports[0].reservedIsNull);
    EXPECT_FALSE(reports[0].messageIsNull);
    EXPECT_EQ(reports[0].message, "");
    EXPECT_EQ(reports[0].expression, "false");
}

TEST_F(RuntimeCheckTest, MessageIsFormatted) {
    installRecorder();
    struct IFoo {};
    const void* empty = nullptr;
    COMMON_CHECK_AT("../common/include/common/com/comptr", 1, empty != nullptr, "ComPtr<%1> is not dereferencible",
                    typeid(IFoo));
    COMMON_CHECK_AT("../common/include/common/meta/classinfo", 2, false, "Class <{0}> must expose IRefCounted API",
                    "Widget");
    COMMON_CHECK_AT("../common/include/common/v8binding/v8utils", 3, false, "Fail to allocate js string: ({0})",
                    std::string("text"));
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0].message, std::string("ComPtr<") + typeid(IFoo).name() + "> is not dereferencible");
    EXPECT_EQ(reports[0].expression, "empty != nullptr");
    EXPECT_TRUE(reports[0].reservedIsNull);
    EXPECT_EQ(reports[1].message, "Class <Widget> must expose IRefCounted API");
    EXPECT_EQ(reports[2].message, "Fail to allocate js string: (text)");
}

TEST_F(RuntimeCheckTest, MessageWithoutArgumentsIsKeptAsWritten) {
    installRecorder();
    COMMON_CHECK_AT("../bridge/pointercapture", 1, false, "Pointer capture motion callback already set.");
    COMMON_CHECK_AT("../common/include/common/meta/classinfo", 2, false,
                    "Attempt to access filed of uninitialized instance");
    COMMON_CHECK_AT("file", 3, false, "100%% {0}");
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0].message, "Pointer capture motion callback already set.");
    EXPECT_EQ(reports[1].message, "Attempt to access filed of uninitialized instance");
    EXPECT_EQ(reports[2].message, "100%% {0}");
}

TEST_F(RuntimeCheckTest, CheckWithAnExplicitFunctionName) {
    installRecorder();
    constexpr bool RUNTIME_FAILURE = false;
    COMMON_CHECK_IN("toValue", "../common/include/common/v8binding/v8binding", 99, RUNTIME_FAILURE,
                    "Unexpected exception type");
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].function, "toValue");
    EXPECT_EQ(reports[0].file, "../common/include/common/v8binding/v8binding");
    EXPECT_EQ(reports[0].line, std::optional<uint32_t>(99));
    EXPECT_EQ(reports[0].expression, "RUNTIME_FAILURE");
    EXPECT_EQ(reports[0].message, "Unexpected exception type");
}

TEST_F(RuntimeCheckTest, NullPointerConditionFails) {
    installRecorder();
    int* pointer = nullptr;
    COMMON_CHECK_AT("file", 1, pointer);
    void (*function)() = nullptr;
    COMMON_CHECK_AT("file", 2, function);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].expression, "pointer");
    EXPECT_EQ(reports[1].expression, "function");
}

TEST_F(RuntimeCheckTest, EachFailureReportsOnce) {
    installRecorder();
    for (int i = 0; i < 3; ++i)
        COMMON_CHECK_AT("file", 1, i < 0);
    EXPECT_EQ(reports.size(), 3u);
}

TEST_F(RuntimeCheckTest, HandlerRunsOnTheCheckingThread) {
    installRecorder();
    std::thread::id checker;
    std::thread t([&checker] {
        checker = std::this_thread::get_id();
        COMMON_CHECK_AT("../bridge/rawinputdriverbase", 1, false);
    });
    t.join();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].thread, checker);
}

TEST_F(RuntimeCheckTest, HandlerExceptionPropagatesToTheCheckSite) {
    RuntimeCheck::setFailureHandler(FailureHandler::makeUnique(
        [](SourceInfo const&, char const*, char const*, char const*) { throw std::runtime_error("from handler"); }));
    bool after = false;
    EXPECT_THROW(
        {
            COMMON_CHECK_AT("file", 1, false);
            after = true;
        },
        std::runtime_error);
    EXPECT_FALSE(after);
}

TEST_F(RuntimeCheckTest, RaiseFailurePassesItsArgumentsThrough) {
    installRecorder();
    RuntimeCheck::raiseFailure(SourceInfo{"fn", "path", std::nullopt}, "reserved text", "a == b", "msg");
    RuntimeCheck::raiseFailure(SourceInfo{"fn", "path", 3}, nullptr, "c", "");
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].function, "fn");
    EXPECT_FALSE(reports[0].line.has_value());
    EXPECT_FALSE(reports[0].reservedIsNull);
    EXPECT_EQ(reports[0].reserved, "reserved text");
    EXPECT_EQ(reports[0].expression, "a == b");
    EXPECT_EQ(reports[0].message, "msg");
    EXPECT_TRUE(reports[1].reservedIsNull);
    EXPECT_EQ(reports[1].message, "");
}

// --- the handler slot ---

TEST_F(RuntimeCheckTest, SetFailureHandlerReturnsTheNewHandler) {
    auto handler = makeRecorder();
    FailureHandler* raw = handler.get();
    EXPECT_EQ(RuntimeCheck::setFailureHandler(std::move(handler)), raw);
    auto other = makeRecorder();
    FailureHandler* otherRaw = other.get();
    EXPECT_EQ(RuntimeCheckInternal::instance().setFailureHandler(std::move(other), nullptr), otherRaw);
}

TEST_F(RuntimeCheckTest, SetFailureHandlerWithPreviousHandsBackTheOldHandler) {
    const std::weak_ptr<int> oldAlive = installCounter();

    std::unique_ptr<FailureHandler> previous;
    auto replacement = makeRecorder();
    FailureHandler* replacementRaw = replacement.get();
    EXPECT_EQ(RuntimeCheck::setFailureHandler(std::move(replacement), &previous), replacementRaw);
    ASSERT_NE(previous, nullptr);
    EXPECT_FALSE(oldAlive.expired());

    COMMON_CHECK_AT("file", 1, false);
    EXPECT_EQ(reports.size(), 1u);
    EXPECT_EQ(oldCalls, 0);

    // The caller owns the old handler and can still use it.
    previous->invoke(SourceInfo{"f", "file", 1}, nullptr, "x", "");
    EXPECT_EQ(oldCalls, 1);
    previous.reset();
    EXPECT_TRUE(oldAlive.expired());
}

TEST_F(RuntimeCheckTest, SetFailureHandlerWithPreviousWhenNoneIsInstalled) {
    auto previous = makeRecorder();
    RuntimeCheck::setFailureHandler(makeRecorder(), &previous);
    EXPECT_EQ(previous, nullptr);
}

TEST_F(RuntimeCheckTest, SetFailureHandlerWithoutPreviousDestroysTheOldHandler) {
    const std::weak_ptr<int> oldAlive = installCounter();
    EXPECT_FALSE(oldAlive.expired());
    RuntimeCheck::setFailureHandler(makeRecorder(), nullptr);
    EXPECT_TRUE(oldAlive.expired());
    COMMON_CHECK_AT("file", 1, false);
    EXPECT_EQ(oldCalls, 0);
    EXPECT_EQ(reports.size(), 1u);
}

TEST_F(RuntimeCheckTest, SettingAnEmptyHandlerDestroysTheOldOne) {
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> alive = marker;
    RuntimeCheck::setFailureHandler(FailureHandler::makeUnique(
        [marker = std::move(marker)](SourceInfo const&, char const*, char const*, char const*) {}));
    EXPECT_EQ(RuntimeCheck::setFailureHandler(nullptr), nullptr);
    EXPECT_TRUE(alive.expired());
}

TEST_F(RuntimeCheckTest, RemoveFailureHandlerIgnoresItsToken) {
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> alive = marker;
    auto handler = FailureHandler::makeUnique(
        [marker = std::move(marker)](SourceInfo const&, char const*, char const*, char const*) {});
    const FailureHandler* installed = RuntimeCheck::setFailureHandler(std::move(handler));
    const int unrelated = 0;
    RuntimeCheckInternal::instance().removeFailureHandler(&unrelated);
    EXPECT_TRUE(alive.expired());

    // Also the handler's own address, and null, remove whatever is installed.
    installed = RuntimeCheck::setFailureHandler(makeRecorder());
    RuntimeCheckInternal::instance().removeFailureHandler(installed);
    installed = RuntimeCheck::setFailureHandler(makeRecorder());
    RuntimeCheckInternal::instance().removeFailureHandler(nullptr);
    // Removing from an empty slot is harmless.
    RuntimeCheckInternal::instance().removeFailureHandler(&unrelated);
    EXPECT_TRUE(reports.empty());
}

TEST_F(RuntimeCheckTest, InstanceIsASingleton) {
    EXPECT_EQ(&RuntimeCheckInternal::instance(), &RuntimeCheckInternal::instance());
}

// --- the condition's truth value ---

TEST(SafeBoolean, TruthValues) {
    using common::diagnostics_internal::safeBoolean;
    int value = 0;
    int* null = nullptr;
    void (*noFunction)() = nullptr;
    void (*function)() = [] {};
    EXPECT_TRUE(safeBoolean(true));
    EXPECT_FALSE(safeBoolean(false));
    EXPECT_TRUE(safeBoolean(&value));
    EXPECT_FALSE(safeBoolean(null));
    EXPECT_TRUE(safeBoolean(function));
    EXPECT_FALSE(safeBoolean(noFunction));
}

}  // namespace
