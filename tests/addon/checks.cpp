// The "checks" test component: failure handlers that report or record failed runtime checks, a check that
// fails on request, and a segmentation-fault reporter for crash tests.
#include <signal.h>
#include <unistd.h>
#include <v8.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/diagnostics/runtimecheck.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {

/// One failed check as the recording handler saw it.
struct FailureReport {
    std::string function;
    std::string file;
    int32_t line = -1;  ///< -1 when the site gave none
    std::string expression;
    std::string message;
    bool reservedIsNull = true;
    int32_t probe = -1;  ///< what the active failure probe answered, -1 without one

    struct ClassAttributes__ {
        using Class = FailureReport;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("function", &self->function),
                                       common::meta::createFieldInfo("file", &self->file),
                                       common::meta::createFieldInfo("line", &self->line),
                                       common::meta::createFieldInfo("expression", &self->expression),
                                       common::meta::createFieldInfo("message", &self->message),
                                       common::meta::createFieldInfo("reservedIsNull", &self->reservedIsNull),
                                       common::meta::createFieldInfo("probe", &self->probe));
            }});
        }
    };
};

/// Asked by the recording handler at the moment of a failure (set around calls that fail on purpose).
std::function<int32_t()>& failureProbe() {
    static std::function<int32_t()> probe;
    return probe;
}

namespace {

std::vector<FailureReport>& reports() {
    static std::vector<FailureReport> recorded;
    return recorded;
}

using common::diagnostics::FailureHandler;
using common::diagnostics::RuntimeCheck;
using common::diagnostics::SourceInfo;

// Writes the report to standard error in one piece, then aborts.
void reportAndAbort(const SourceInfo& source, const char* reserved, const char* expression, const char* message) {
    std::string text = "Runtime check failed: ";
    text += expression ? expression : "(null)";
    text += "\n  function: ";
    text.append(source.function);
    text += "\n  file: ";
    text.append(source.file);
    text += "\n  line: ";
    text += source.line ? std::to_string(*source.line) : std::string("none");
    text += "\n  message: ";
    text += message ? message : "(null)";
    text += "\n  reserved: ";
    text += reserved ? reserved : "null";
    text += "\n";
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    std::abort();
}

void record(const SourceInfo& source, const char* reserved, const char* expression, const char* message) {
    FailureReport report;
    report.function = std::string(source.function);
    report.file = std::string(source.file);
    report.line = source.line ? static_cast<int32_t>(*source.line) : -1;
    report.expression = expression ? expression : "";
    report.message = message ? message : "";
    report.reservedIsNull = reserved == nullptr;
    if (failureProbe())
        report.probe = failureProbe()();
    reports().push_back(std::move(report));
}

// Prints the faulting address, then lets the fault repeat with the default action (SA_RESETHAND).
void faultAddressHandler(int, siginfo_t* info, void*) {
    static constexpr char kPrefix[] = "fault address: 0x";
    char text[64] = {};
    size_t length = 0;
    for (; length + 1 < sizeof(kPrefix); ++length)
        text[length] = kPrefix[length];
    const char digits[] = "0123456789abcdef";
    auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    char hex[2 * sizeof(uintptr_t)];
    size_t count = 0;
    do {
        hex[count++] = digits[address & 0xF];
        address >>= 4;
    } while (address != 0);
    while (count > 0)
        text[length++] = hex[--count];
    text[length++] = '\n';
    (void)!write(STDERR_FILENO, text, length);
}

}  // namespace

/// Failure handlers for script tests. Install them before anything else runs: the slot is not locked.
class ChecksComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(ChecksComponent, common::SingleThreadRC, Component)

    ChecksComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<ChecksComponent>(isolate, object);
    }

    /// Every failed check then prints its report to standard error and aborts the process.
    static void installAbortingFailureHandler() {
        RuntimeCheck::setFailureHandler(FailureHandler::makeUnique(
            [](const SourceInfo& source, const char* reserved, const char* expression, const char* message) {
                reportAndAbort(source, reserved, expression, message);
            }));
    }

    /// Every failed check is then recorded and execution goes on after the check, as if it had passed.
    static void installRecordingFailureHandler() {
        RuntimeCheck::setFailureHandler(
            FailureHandler::makeUnique([](const SourceInfo& source, const char* reserved, const char* expression,
                                          const char* message) { record(source, reserved, expression, message); }));
    }

    /// Back to no handler: a failed check terminates the process.
    static void removeFailureHandler() {
        common::diagnostics::RuntimeCheckInternal::instance().removeFailureHandler(nullptr);
    }

    static int32_t failureReportCount() { return static_cast<int32_t>(reports().size()); }
    /// The recorded report `index` (an empty one when there is none).
    static FailureReport failureReport(int32_t index) {
        if (index < 0 || static_cast<size_t>(index) >= reports().size())
            return {};
        return reports()[static_cast<size_t>(index)];
    }
    static void clearFailureReports() { reports().clear(); }

    /// Fails a check whose expression is "checkedCondition" with `message`; returns when a handler lets it.
    static bool failCheck(std::string message) {
        const bool checkedCondition = false;
        COMMON_CHECK_AT(kTestkitFile, 4242, checkedCondition, "{0}", message);
        return true;
    }

    /// A segmentation fault then prints "fault address: 0x<hex>" to standard error before the process dies of it.
    static void installFaultAddressReporter() {
        static char alternateStack[1 << 16];
        stack_t stack{};
        stack.ss_sp = alternateStack;
        stack.ss_size = sizeof(alternateStack);
        sigaltstack(&stack, nullptr);
        struct sigaction action {};
        action.sa_sigaction = &faultAddressHandler;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, nullptr);
    }

    struct ClassAttributes__ {
        using Class = ChecksComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    createMethodInfo<&ChecksComponent::installAbortingFailureHandler>("installAbortingFailureHandler"),
                    createMethodInfo<&ChecksComponent::installRecordingFailureHandler>(
                        "installRecordingFailureHandler"),
                    createMethodInfo<&ChecksComponent::removeFailureHandler>("removeFailureHandler"),
                    createMethodInfo<&ChecksComponent::failureReportCount>("failureReportCount"),
                    createMethodInfo<&ChecksComponent::failureReport>("failureReport"),
                    createMethodInfo<&ChecksComponent::clearFailureReports>("clearFailureReports"),
                    createMethodInfo<&ChecksComponent::failCheck>("failCheck"),
                    createMethodInfo<&ChecksComponent::installFaultAddressReporter>("installFaultAddressReporter")});
        }
    };
};

ZEL_REGISTER_COMPONENT("checks", ChecksComponent);

}  // namespace zel::testkit
