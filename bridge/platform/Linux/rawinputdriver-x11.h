// The X11 / XInput2 raw input driver. Xlib declarations stay in the implementation: its macros
// (None, True, Status...) would clash with the names of including code.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "bridge/rawinputdriverbase.h"
#include "common/com/comclass.h"
#include "common/com/refcounted.h"

namespace zel {

/// Reads XInput2 raw motion and raw button events of all master devices on its own X connection, one
/// connection per capture, and turns each into a `PointerData` record.
class XRawInputDriver final : public RawInputDriverBase {
    COMMON_COM_CLASS(XRawInputDriver, common::ConcurrentRC, RawInputDriverBase);

public:
    XRawInputDriver();
    /// Stops a running reader while the X part of the driver still exists.
    ~XRawInputDriver() override;

    using RawInputDriverBase::capturePointer;
    void capturePointer(std::unique_ptr<Callback> callback, std::unique_ptr<StatusCallback> statusCallback) override;
    void processInput() override;
    void breakInputProcessing(uint64_t threadHandle) override;

private:
    class InputClient;
    enum class ReadOutcome;

    /// Value of valuator `index` of a raw event (`XIRawEvent`), 0.0 when the valuator is not set.
    template <typename RawEvent>
    static double rawValuator(const RawEvent& event, int index);
    /// Prints a raw event (`XIRawEvent`) to standard output; a debugging aid, not called in normal operation.
    template <typename RawEvent>
    static void dumpRawEvent(const RawEvent& event);

    /// Logs the loss of the reader's connection and tells the capture, unless a stop dropped it.
    void reportConnectionLost(const std::string& displayName);

    /// Wakes the reader for a stop (an eventfd the reader polls with its connection); -1 if it could not be made.
    const int m_wakeFd;
    /// Set by `breakInputProcessing`; the reader checks it before it connects and between events.
    std::atomic<bool> m_stopRequested{false};
    /// Tells a waiting stop that the reader has ended (an eventfd the reader writes last); -1 if it could not be made.
    const int m_endedFd;
    std::mutex m_readerLock;  ///< guards m_connectionFd
    int m_connectionFd = -1;  ///< a duplicate of the reader's connection descriptor while it has one
};

}  // namespace zel
