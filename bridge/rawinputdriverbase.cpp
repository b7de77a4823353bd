// Reader thread and callback management shared by every raw input driver.
#include "bridge/rawinputdriverbase.h"

#include <mutex>
#include <utility>

#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"
#include "common/utils/exception.h"

namespace zel {

namespace {

constexpr const char* kFile = "../bridge/rawinputdriverbase";
using Level = common::diagnostics::Log::Level;

}  // namespace

RawInputDriverBase::~RawInputDriverBase() {
    releasePointerCapture();
    m_callback.reset();
}

void RawInputDriverBase::threadEntry__(void* driver) {
    static_cast<RawInputDriverBase*>(driver)->processInput();
}

void RawInputDriverBase::capturePointer(std::unique_ptr<Callback> callback) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    if (m_callback)
        COMMON_THROW_AT(kFile, 19, "Pointer already captured.");
    COMMON_CHECK_AT(kFile, 22, !m_thread);
    m_callback = std::move(callback);
    m_thread.emplace();
    if (const int result = uv_thread_create(&*m_thread, &RawInputDriverBase::threadEntry__, this); result != 0) {
        // No reader runs: leave the capture inert rather than pretending that one does.
        m_thread.reset();
        m_callback.reset();
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to start raw input thread (error {0})", result);
    }
}

void RawInputDriverBase::releasePointerCapture() {
    {
        std::lock_guard<common::threading::CriticalSection> lock(m_lock);
        m_callback.reset();
    }
    if (!m_thread)
        return;
    uv_thread_t handle = *m_thread;
    m_thread.reset();
    breakInputProcessing(static_cast<uint64_t>(handle));
    uv_thread_join(&handle);
    COMMON_LOG_AT(Level::Info, kFile, 49, "Pointer capture released");
}

bool RawInputDriverBase::pointerCaptured() const {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    return m_callback != nullptr;
}

void RawInputDriverBase::notifyPointerEvent(PointerData data) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    if (m_callback)
        m_callback->invoke(data);
}

}  // namespace zel
