// Reader thread and callback management shared by every raw input driver.
#include "bridge/rawinputdriverbase.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"
#include "common/utils/exception.h"

namespace zel {

namespace {

constexpr const char* kFile = "../bridge/rawinputdriverbase";
using Level = common::diagnostics::Log::Level;

}  // namespace

/// Drivers whose reader thread runs, with the thread that started it. At process exit the exiting thread stops the
/// readers it started before the libraries they use (Xlib) are torn down; it never touches other threads' drivers.
class RawInputDriverBase::RunningReaders {
public:
    static RunningReaders& instance() {
        static RunningReaders readers;
        return readers;
    }

    void add(RawInputDriverBase* driver) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_readers.push_back(Reader{driver, uv_thread_self()});
    }

    void remove(RawInputDriverBase* driver) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_readers.erase(std::remove_if(m_readers.begin(), m_readers.end(),
                                       [driver](const Reader& reader) { return reader.driver == driver; }),
                        m_readers.end());
    }

    ~RunningReaders() {
        std::vector<RawInputDriverBase*> own;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            const uv_thread_t self = uv_thread_self();
            for (const Reader& reader : m_readers) {
                if (uv_thread_equal(&reader.owner, &self))
                    own.push_back(reader.driver);
            }
        }
        for (RawInputDriverBase* driver : own)
            driver->joinReader__();
    }

private:
    struct Reader {
        RawInputDriverBase* driver;
        uv_thread_t owner;
    };
    std::mutex m_lock;
    std::vector<Reader> m_readers;
};

RawInputDriverBase::~RawInputDriverBase() {
    releasePointerCapture();
    m_callback.reset();
}

void RawInputDriverBase::threadEntry__(void* driver) { static_cast<RawInputDriverBase*>(driver)->processInput(); }

void RawInputDriverBase::capturePointer(std::unique_ptr<Callback> callback) {
    capturePointer(std::move(callback), nullptr);
}

void RawInputDriverBase::capturePointer(std::unique_ptr<Callback> callback,
                                        std::unique_ptr<StatusCallback> statusCallback) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    if (m_callback)
        COMMON_THROW_AT(kFile, 19, "Pointer already captured.");
    COMMON_CHECK_AT(kFile, 22, !m_thread);
    m_callback = std::move(callback);
    m_statusCallback = std::move(statusCallback);
    RunningReaders& running = RunningReaders::instance();  // created before the thread: destroyed after it stops
    m_thread.emplace();
    if (const int result = uv_thread_create(&*m_thread, &RawInputDriverBase::threadEntry__, this); result != 0) {
        // No reader runs: leave the capture inert rather than pretending that one does.
        m_thread.reset();
        if (m_statusCallback)
            m_statusCallback->invoke(CaptureStatus::Failed);
        m_callback.reset();
        m_statusCallback.reset();
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to start raw input thread (error {0})", result);
        return;
    }
    running.add(this);
}

void RawInputDriverBase::releasePointerCapture() {
    {
        std::lock_guard<common::threading::CriticalSection> lock(m_lock);
        m_callback.reset();
        m_statusCallback.reset();
    }
    if (joinReader__())
        COMMON_LOG_AT(Level::Info, kFile, 49, "Pointer capture released");
}

bool RawInputDriverBase::joinReader__() {
    if (!m_thread)
        return false;
    RunningReaders::instance().remove(this);
    uv_thread_t handle = *m_thread;
    m_thread.reset();
    breakInputProcessing(static_cast<uint64_t>(handle));
    uv_thread_join(&handle);
    return true;
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

void RawInputDriverBase::notifyStatus(CaptureStatus status) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    if (m_statusCallback)
        m_statusCallback->invoke(status);
}

}  // namespace zel
