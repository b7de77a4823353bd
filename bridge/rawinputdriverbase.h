// The logic every platform driver shares: one capture callback, one reader thread, the lock between them.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "bridge/rawinputdriver.h"
#include "common/com/comclass.h"
#include "common/utils/criticalsection.h"

namespace zel {

/// A platform driver supplies `processInput` and `breakInputProcessing`; everything else lives here.
class RawInputDriverBase : public RawInputDriver {
    COMMON_COM_BASES(RawInputDriverBase, RawInputDriver);

public:
    void capturePointer(std::unique_ptr<Callback> callback) final;
    void capturePointer(std::unique_ptr<Callback> callback, std::unique_ptr<StatusCallback> statusCallback) override;
    void releasePointerCapture() override;
    bool pointerCaptured() const override;

protected:
    RawInputDriverBase() = default;
    /// Releases a running capture. The platform part is gone by then: owners release first.
    ~RawInputDriverBase() override;

    /// Hands one record to the callback under the lock, or drops it when no callback is installed.
    void notifyPointerEvent(PointerData data);
    /// Hands a status to the status callback under the lock (so in order with the records), or drops it.
    void notifyStatus(CaptureStatus status);

private:
    class RunningReaders;

    static void threadEntry__(void* driver);
    /// Stops and joins the reader thread, if there is one; whether there was.
    bool joinReader__();

    mutable common::threading::CriticalSection m_lock;
    std::optional<uv_thread_t> m_thread;               ///< engaged while a reader thread exists
    std::unique_ptr<Callback> m_callback;              ///< non-null exactly while the pointer is captured
    std::unique_ptr<StatusCallback> m_statusCallback;  ///< the capture's, if it has one; dropped with m_callback
};

}  // namespace zel
