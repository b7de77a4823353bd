// Tests of the process-wide log and the console writer.
#include "common/diagnostics/log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/diagnostics/sourceinfo.h"

namespace {

using common::diagnostics::Log;
using common::diagnostics::LogContext;
using common::diagnostics::LogInternal;
using common::diagnostics::SourceInfo;
using Clock = std::chrono::system_clock;

static_assert(std::is_same_v<std::underlying_type_t<Log::Level>, int32_t>);
static_assert(static_cast<int>(Log::Level::Info) == 0);
static_assert(static_cast<int>(Log::Level::Warning) == 2);
static_assert(static_cast<int>(Log::Level::Error) == 3);
static_assert(
    std::is_same_v<Log::Handler,
                   common::FunctorClass<true, void, common::TypeList<Log::Level, LogContext const&, char const*>>>);

// One message as a handler saw it.
struct Entry {
    int level;
    std::string function;
    std::string file;
    std::optional<uint32_t> line;
    Clock::time_point timestamp;
    std::string message;
    std::thread::id thread;
    const LogContext* context;
};

class LogTest : public ::testing::Test {
protected:
    void TearDown() override { Log::setHandler(nullptr); }

    // Installs a handler appending every message to `entries`.
    void installRecorder() {
        Log::setHandler(
            Log::Handler::makeUnique([this](Log::Level level, LogContext const& context, char const* message) {
                entries.push_back(Entry{static_cast<int>(level), std::string(context.source.function),
                                        std::string(context.source.file), context.source.line, context.timestamp,
                                        message, std::this_thread::get_id(), &context});
            }));
    }

    std::vector<Entry> entries;
};

// --- no handler ---

TEST_F(LogTest, WritingWithoutHandlerPrintsNothing) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Log::write(Log::Level::Error,
               LogContext(SourceInfo{"processInput", "../bridge/platform/Linux/rawinputdriver-x11", 10}),
               "Fail to select XInput events mask");
    COMMON_LOG_AT(Log::Level::Info, "../bridge/pointercapture", 20, "Native: capture pointer");
    COMMON_LOG_AT(Log::Level::Warning, "../common/include/common/com/comptr", 30,
                  "Expected API not exposed: (%2). Source type (%1)", "A", "B");
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

// --- the handler's arguments ---

TEST_F(LogTest, HandlerReceivesMessageLevelTimestampAndLocation) {
    installRecorder();
    const auto before = Clock::now();
    COMMON_LOG_AT(Log::Level::Warning, "../bridge/platform/Linux/mousetool-linux", 57, "XQueryPointer returns False");
    const auto after = Clock::now();

    ASSERT_EQ(entries.size(), 1u);
    const Entry& e = entries[0];
    EXPECT_EQ(e.level, 2);
    EXPECT_EQ(e.message, "XQueryPointer returns False");
    EXPECT_EQ(e.function, "TestBody");
    EXPECT_EQ(e.file, "../bridge/platform/Linux/mousetool-linux");
    EXPECT_EQ(e.line, std::optional<uint32_t>(57));
    EXPECT_GE(e.timestamp, before);
    EXPECT_LE(e.timestamp, after);
}

TEST_F(LogTest, LevelNumbersReachTheHandlerUnchanged) {
    installRecorder();
    const SourceInfo where{"releasePointerCapture", "../bridge/rawinputdriverbase", 1};
    Log::write(Log::Level::Info, LogContext(where), "Pointer capture released");
    Log::write(Log::Level::Warning, LogContext(where), "warning");
    Log::write(Log::Level::Error, LogContext(where), "XInputExtension does not supported");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].level, 0);
    EXPECT_EQ(entries[1].level, 2);
    EXPECT_EQ(entries[2].level, 3);
    EXPECT_EQ(entries[0].message, "Pointer capture released");
    EXPECT_EQ(entries[2].message, "XInputExtension does not supported");
}

TEST_F(LogTest, EveryLevelIsDelivered) {
    installRecorder();
    Log::write(static_cast<Log::Level>(1), LogContext(SourceInfo{"f", "file", 1}), "reserved level");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 1);
}

TEST_F(LogTest, TimestampIsTakenWhenTheContextIsMade) {
    installRecorder();
    const auto before = Clock::now();
    const LogContext context(SourceInfo{"f", "file", 2});
    const auto after = Clock::now();
    EXPECT_GE(context.timestamp, before);
    EXPECT_LE(context.timestamp, after);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Log::write(Log::Level::Info, context, "late");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].timestamp, context.timestamp);
    EXPECT_EQ(entries[0].function, "f");
}

TEST_F(LogTest, LocationWithoutLine) {
    installRecorder();
    Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", std::nullopt}), "m");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_FALSE(entries[0].line.has_value());
}

TEST_F(LogTest, SiteMessagesAreFormatted) {
    installRecorder();
    COMMON_LOG_AT(Log::Level::Warning, "../common/include/common/com/comptr", 30,
                  "Expected API not exposed: (%2). Source type (%1)", "ISource", "ITarget");
    COMMON_LOG_AT(Log::Level::Error, "../bridge/platform/Linux/rawinputdriver-x11", 40,
                  "Required XInputExtension ver. {0}.{1}, but only ver. {2}.{3}", 2, 1, 2, 0);
    struct Widget {};
    COMMON_LOG_AT(Log::Level::Warning, "../common/include/common/v8binding/v8binding", 50,
                  "Return null instance where expected ComPtr<{0}>", typeid(Widget));
    COMMON_LOG_AT(Log::Level::Warning, "../common/include/common/v8binding/v8binding", 60,
                  "Fail to create object-wrapper for types instance:  ComPtr<{0}>", "IFoo");
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].message, "Expected API not exposed: (ITarget). Source type (ISource)");
    EXPECT_EQ(entries[1].message, "Required XInputExtension ver. 2.1, but only ver. 2.0");
    EXPECT_EQ(entries[2].message,
              std::string("Return null instance where expected ComPtr<") + typeid(Widget).name() + ">");
    EXPECT_EQ(entries[3].message, "Fail to create object-wrapper for types instance:  ComPtr<IFoo>");
}

TEST_F(LogTest, MessageWithoutArgumentsIsNotFormatted) {
    installRecorder();
    COMMON_LOG_AT(Log::Level::Info, "file", 1, "100%% {0} %1");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].message, "100%% {0} %1");
}

TEST_F(LogTest, HandlerRunsOnTheWritingThread) {
    installRecorder();
    std::thread::id writer;
    std::thread t([&writer] {
        writer = std::this_thread::get_id();
        Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "from a thread");
    });
    t.join();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].thread, writer);
    EXPECT_EQ(entries[0].message, "from a thread");
}

TEST_F(LogTest, HandlerExceptionReachesTheWriter) {
    Log::setHandler(Log::Handler::makeUnique(
        [](Log::Level, LogContext const&, char const*) { throw std::runtime_error("handler failed"); }));
    EXPECT_THROW(Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "m"), std::runtime_error);
}

// --- replacing and removing the handler ---

TEST_F(LogTest, SecondHandlerDestroysTheFirst) {
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> firstAlive = marker;
    int firstCalls = 0;
    int secondCalls = 0;
    Log::setHandler(Log::Handler::makeUnique(
        [marker = std::move(marker), &firstCalls](Log::Level, LogContext const&, char const*) { ++firstCalls; }));
    Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "one");
    EXPECT_EQ(firstCalls, 1);

    Log::setHandler(
        Log::Handler::makeUnique([&secondCalls](Log::Level, LogContext const&, char const*) { ++secondCalls; }));
    EXPECT_TRUE(firstAlive.expired());
    Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "two");
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 1);
}

TEST_F(LogTest, EmptyHandlerLeavesNoHandler) {
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> alive = marker;
    int calls = 0;
    Log::setHandler(Log::Handler::makeUnique(
        [marker = std::move(marker), &calls](Log::Level, LogContext const&, char const*) { ++calls; }));
    Log::setHandler(nullptr);
    EXPECT_TRUE(alive.expired());
    testing::internal::CaptureStdout();
    Log::write(Log::Level::Error, LogContext(SourceInfo{"f", "file", 1}), "dropped");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(calls, 0);
}

TEST_F(LogTest, InternalSetHandlerReturnsTheNewHandler) {
    auto handler = Log::Handler::makeUnique([](Log::Level, LogContext const&, char const*) {});
    Log::Handler* raw = handler.get();
    EXPECT_EQ(LogInternal::instance().setHandler(std::move(handler)), raw);
    EXPECT_EQ(LogInternal::instance().setHandler(nullptr), nullptr);
}

TEST_F(LogTest, RemoveHandlerIgnoresItsToken) {
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> alive = marker;
    int calls = 0;
    auto handler = Log::Handler::makeUnique(
        [marker = std::move(marker), &calls](Log::Level, LogContext const&, char const*) { ++calls; });
    LogInternal::instance().setHandler(std::move(handler));
    const int unrelated = 0;
    LogInternal::instance().removeHandler(&unrelated);
    EXPECT_TRUE(alive.expired());
    Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "dropped");
    EXPECT_EQ(calls, 0);

    installRecorder();
    LogInternal::instance().removeHandler(nullptr);
    Log::write(Log::Level::Info, LogContext(SourceInfo{"f", "file", 1}), "dropped");
    EXPECT_TRUE(entries.empty());
}

TEST_F(LogTest, InstanceIsASingleton) { EXPECT_EQ(&LogInternal::instance(), &LogInternal::instance()); }

// --- console output ---

TEST(WriteDebugString, WritesTextAndEndOfLineToStdout) {
    testing::internal::CaptureStdout();
    zel::writeDebugString("Native: capture pointer");
    zel::writeDebugString("");
    zel::writeDebugString("second");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Native: capture pointer\n\nsecond\n");
}

}  // namespace
