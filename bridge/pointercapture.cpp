// The pointer capture: records queued on the reader thread, handed to the script thread by a libuv async
// handle, delivered to the script callbacks in arrival order.
#include "bridge/pointercapture.h"

#include <node.h>
#include <uv.h>

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "common/com/comclass.h"
#include "common/diagnostics/log.h"
#include "common/utils/criticalsection.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8binding.h"

namespace zel {
namespace {

constexpr const char* kFile = "../bridge/pointercapture";
/// Capacity, in records, that a queue buffer keeps between deliveries; a steady stream needs a handful per wake-up.
constexpr size_t kRetainedRecords = 256;
using Level = common::diagnostics::Log::Level;
using PointerData = RawInputDriver::PointerData;

bool hasMotion(const PointerData& record) { return record.offset.x != 0 || record.offset.y != 0; }

bool hasButtons(const PointerData& record) {
    return record.left != ButtonEvent::None || record.middle != ButtonEvent::None || record.right != ButtonEvent::None;
}

/// Keeps the event loop alive while it exists: the capture callback holds one, so the loop is kept alive
/// exactly while the driver holds this object's callback, whichever capture object ends the capture (the
/// driver drops callbacks on the script thread).
class LoopRef {
public:
    explicit LoopRef(uv_async_t* handle) : m_handle(reinterpret_cast<uv_handle_t*>(handle)) { uv_ref(m_handle); }
    LoopRef(LoopRef&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    LoopRef(const LoopRef&) = delete;
    LoopRef& operator=(const LoopRef&) = delete;
    LoopRef& operator=(LoopRef&&) = delete;
    ~LoopRef() {
        if (m_handle)
            uv_unref(m_handle);
    }

private:
    uv_handle_t* m_handle;
};

}  // namespace

class PointerCaptureImpl final : public PointerCapture, public common::js::V8WeakReferenceHolder {
    COMMON_COM_CLASS(PointerCaptureImpl, common::StrictSingleThreadRC, PointerCapture,
                     common::js::V8WeakReferenceHolder)

    explicit PointerCaptureImpl(common::ComPtr<RawInputDriver> driver);
    ~PointerCaptureImpl() override;

    void setButtonsEventCallback(std::unique_ptr<ButtonsCallback> callback) override;
    void setMotionEventCallback(std::unique_ptr<MotionCallback> callback) override;
    void startCapturing() override;
    void stopCapturing() override;
    void setStatusCallback(std::unique_ptr<StatusCallback> callback) override;

private:
    /// A status as the reader queued it: after `position` records of the queue, in capture number `run`.
    struct QueuedStatus {
        size_t position;
        uint32_t run;
        CaptureStatus status;
    };

    static void onAsync(uv_async_t* handle);
    static void onEnvironmentCleanup(void* self);
    void deliver();
    void invokeCallbacks();
    void releasePointerCapture();

    common::ComPtr<RawInputDriver> m_driver;
    uv_async_t* m_async = nullptr;
    std::unique_ptr<ButtonsCallback> m_buttonsCallback;
    std::unique_ptr<MotionCallback> m_motionCallback;
    std::unique_ptr<StatusCallback> m_statusCallback;
    common::threading::CriticalSection m_lock;
    std::vector<PointerData> m_queue;      ///< guarded by m_lock
    std::vector<QueuedStatus> m_statuses;  ///< guarded by m_lock

    // Script-thread state: the context callbacks run in, and the buffer the queue is swapped into
    // (both buffers keep up to kRetainedRecords of capacity, so a steady stream allocates nothing per record).
    v8::Isolate* m_isolate = nullptr;
    v8::Global<v8::Context> m_context;
    std::vector<PointerData> m_delivering;
    std::vector<QueuedStatus> m_deliveringStatuses;
    /// Counts this object's starts and stops: a status of an earlier capture is not told.
    uint32_t m_run = 0;
    /// Set when a start failed at once (no reader thread): keeps the process alive until its status is told.
    std::optional<LoopRef> m_untoldFailure;
};

common::ComPtr<PointerCapture> PointerCapture::create(common::ComPtr<RawInputDriver> driver) {
    return common::com::createInstance<PointerCaptureImpl, PointerCapture>(std::move(driver));
}

PointerCaptureImpl::PointerCaptureImpl(common::ComPtr<RawInputDriver> driver) : m_driver(std::move(driver)) {
    COMMON_LOG_AT(Level::Info, kFile, 20, "Native: capture pointer");
    m_isolate = v8::Isolate::GetCurrent();
    uv_loop_t* loop = m_isolate ? node::GetCurrentEventLoop(m_isolate) : nullptr;
    if (!loop) {
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "No event loop to deliver pointer records on");
        m_driver.release();
        return;
    }
    m_context.Reset(m_isolate, m_isolate->GetCurrentContext());
    m_async = new uv_async_t();
    m_async->data = this;
    if (const int result = uv_async_init(loop, m_async, &PointerCaptureImpl::onAsync); result != 0) {
        // Without a wake-up the records could never be delivered: the capture stays inert.
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to initialize pointer capture wake-up (error {0})", result);
        delete std::exchange(m_async, nullptr);
        m_driver.release();
        return;
    }
    // The handle keeps the process alive only while this object captures (see LoopRef).
    uv_unref(reinterpret_cast<uv_handle_t*>(m_async));
    // Stop the reader and close the handle before the environment (and its loop) goes away.
    node::AddEnvironmentCleanupHook(m_isolate, &PointerCaptureImpl::onEnvironmentCleanup, this);
}

PointerCaptureImpl::~PointerCaptureImpl() {
    if (m_async) {
        // node finds the environment through the entered context, and a collection started by an allocation in
        // compiled code runs the wrapper's weak callback (and so this destructor) with no context entered.
        v8::HandleScope handleScope(m_isolate);
        v8::Context::Scope contextScope(m_context.Get(m_isolate));
        node::RemoveEnvironmentCleanupHook(m_isolate, &PointerCaptureImpl::onEnvironmentCleanup, this);
    }
    releasePointerCapture();
}

void PointerCaptureImpl::onEnvironmentCleanup(void* self) {
    static_cast<PointerCaptureImpl*>(self)->releasePointerCapture();
}

void PointerCaptureImpl::releasePointerCapture() {
    if (m_driver) {
        m_driver->releasePointerCapture();
        m_driver.release();
    }
    m_untoldFailure.reset();
    if (m_async) {
        uv_async_t* handle = std::exchange(m_async, nullptr);
        handle->data = nullptr;
        uv_close(reinterpret_cast<uv_handle_t*>(handle),
                 [](uv_handle_t* closed) { delete reinterpret_cast<uv_async_t*>(closed); });
    }
}

void PointerCaptureImpl::setButtonsEventCallback(std::unique_ptr<ButtonsCallback> callback) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    COMMON_CHECK_AT(kFile, 70, !m_buttonsCallback, "Pointer capture buttons callback already set.");
    if (!m_buttonsCallback)
        m_buttonsCallback = std::move(callback);
}

void PointerCaptureImpl::setMotionEventCallback(std::unique_ptr<MotionCallback> callback) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    COMMON_CHECK_AT(kFile, 78, !m_motionCallback, "Pointer capture motion callback already set.");
    if (!m_motionCallback)
        m_motionCallback = std::move(callback);
}

void PointerCaptureImpl::setStatusCallback(std::unique_ptr<StatusCallback> callback) {
    std::lock_guard<common::threading::CriticalSection> lock(m_lock);
    if (m_statusCallback)
        COMMON_THROW_AT(kFile, __LINE__, "Pointer capture status callback already set.");
    m_statusCallback = std::move(callback);
}

void PointerCaptureImpl::startCapturing() {
    if (!m_driver || m_driver->pointerCaptured())
        return;
    ++m_run;
    // Both run on the reader thread, inside the driver's lock; the send happens while m_lock is held.
    m_driver->capturePointer(
        RawInputDriver::Callback::makeUnique([this, loopRef = LoopRef(m_async)](PointerData record) {
            std::lock_guard<common::threading::CriticalSection> lock(m_lock);
            m_queue.push_back(record);
            uv_async_send(m_async);
        }),
        RawInputDriver::StatusCallback::makeUnique([this, run = m_run](CaptureStatus status) {
            std::lock_guard<common::threading::CriticalSection> lock(m_lock);
            m_statuses.push_back(QueuedStatus{m_queue.size(), run, status});
            uv_async_send(m_async);
        }));
    // The driver dropped the record callback, and its hold on the loop, before the failure could be delivered.
    if (!m_driver->pointerCaptured())
        m_untoldFailure.emplace(m_async);
}

void PointerCaptureImpl::stopCapturing() {
    if (!m_driver || !m_driver->pointerCaptured())
        return;
    ++m_run;
    m_driver->releasePointerCapture();
}

void PointerCaptureImpl::onAsync(uv_async_t* handle) {
    auto* self = static_cast<PointerCaptureImpl*>(handle->data);
    if (!self)
        return;
    // A collection during a callback may drop the wrapper's reference: keep the object alive meanwhile.
    common::ComPtr<PointerCaptureImpl> keepAlive;
    keepAlive.acquire(self);
    self->deliver();
}

void PointerCaptureImpl::deliver() {
    m_delivering.clear();
    m_deliveringStatuses.clear();
    {
        std::lock_guard<common::threading::CriticalSection> lock(m_lock);
        std::swap(m_queue, m_delivering);
        std::swap(m_statuses, m_deliveringStatuses);
    }
    // Released before the callbacks run: one of them may start a capture that holds the loop again.
    m_untoldFailure.reset();
    if ((!m_delivering.empty() && (m_motionCallback || m_buttonsCallback)) ||
        (!m_deliveringStatuses.empty() && m_statusCallback))
        invokeCallbacks();
    // After a burst this buffer (the queue again after the next swap) can be far larger than a steady stream needs:
    // let it go rather than keep it for the capture's life.
    if (m_delivering.capacity() > kRetainedRecords)
        std::vector<PointerData>().swap(m_delivering);
}

void PointerCaptureImpl::invokeCallbacks() {
    v8::HandleScope handleScope(m_isolate);
    v8::Local<v8::Context> context = m_context.Get(m_isolate);
    v8::Context::Scope contextScope(context);
    // Runs queued microtasks and ticks after the callbacks, as for any other callback from the loop.
    node::CallbackScope callbackScope(m_isolate, v8::Object::New(m_isolate), node::async_context{0, 0});
    // Each status goes before the record that was queued after it.
    size_t nextStatus = 0;
    const auto tellStatusesBefore = [&](size_t position) {
        for (; nextStatus < m_deliveringStatuses.size() && m_deliveringStatuses[nextStatus].position <= position;
             ++nextStatus) {
            const QueuedStatus& queued = m_deliveringStatuses[nextStatus];
            if (m_statusCallback && queued.run == m_run)
                m_statusCallback->invoke(statusEvent(queued.status));
        }
    };
    for (size_t position = 0; position < m_delivering.size(); ++position) {
        tellStatusesBefore(position);
        const PointerData& record = m_delivering[position];
        if (m_motionCallback && hasMotion(record))
            m_motionCallback->invoke(record.motion());
        if (m_buttonsCallback && hasButtons(record))
            m_buttonsCallback->invoke(record.buttons());
    }
    tellStatusesBefore(m_delivering.size());
}

}  // namespace zel
