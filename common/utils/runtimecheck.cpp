// The process-wide failure handler slot of runtime checks.
#include "common/diagnostics/runtimecheck.h"

#include <exception>

namespace common::diagnostics {

FailureHandler* RuntimeCheck::setFailureHandler(std::unique_ptr<FailureHandler> handler,
                                                std::unique_ptr<FailureHandler>* previous) {
    return RuntimeCheckInternal::instance().setFailureHandler(std::move(handler), previous);
}

void RuntimeCheck::raiseFailure(SourceInfo source, const char* reserved, const char* expression, std::string message) {
    RuntimeCheckInternal::instance().raiseFailure(source, reserved, expression, message);
}

RuntimeCheckInternal& RuntimeCheckInternal::instance() {
    static RuntimeCheckInternal instance;
    return instance;
}

FailureHandler* RuntimeCheckInternal::setFailureHandler(std::unique_ptr<FailureHandler> handler,
                                                        std::unique_ptr<FailureHandler>* previous) {
    if (previous)
        *previous = std::move(m_handler);
    m_handler = std::move(handler);
    return m_handler.get();
}

void RuntimeCheckInternal::removeFailureHandler(const void*) { m_handler.reset(); }

void RuntimeCheckInternal::raiseFailure(const SourceInfo& source, const char* reserved, const char* expression,
                                        const std::string& message) {
    if (!m_handler)
        std::terminate();
    m_handler->invoke(source, reserved, expression, message.c_str());
}

}  // namespace common::diagnostics
