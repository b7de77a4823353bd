// Pure pieces of the X11 input code, free of Xlib declarations so that they can be tested alone.
// The numbers mirror the X protocol constants; the implementation checks them against the X headers.
#pragma once

#include <climits>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "bridge/pointerevents.h"
#include "bridge/rawinputdriver.h"
#include "common/utils/format.h"

namespace common::zel_internal {

inline constexpr int kBadRequest = 1;      ///< BadRequest
inline constexpr int kClientMessage = 33;  ///< ClientMessage
inline constexpr int kGenericEvent = 35;   ///< GenericEvent

inline constexpr int kXIAllMasterDevices = 1;
inline constexpr int kXIRawButtonPress = 15;
inline constexpr int kXIRawButtonRelease = 16;
inline constexpr int kXIRawMotion = 17;

inline constexpr unsigned kButton1Mask = 1u << 8;
inline constexpr unsigned kButton2Mask = 1u << 9;
inline constexpr unsigned kButton3Mask = 1u << 10;

/// The XInput version the driver asks for and accepts.
inline constexpr int kRequiredXIMajor = 2;
inline constexpr int kRequiredXIMinor = 1;

/// Length in bytes of the raw event selection mask.
inline constexpr int kRawEventMaskLength = 4;

/// Sets event bit `bit` (bit `bit` mod 8 of byte `bit` / 8) of a selection mask.
inline void setEventMaskBit(unsigned char* mask, int bit) {
    mask[bit >> 3] |= static_cast<unsigned char>(1u << (bit & 7));
}

/// Whether event bit `bit` is set in a mask of `length` bytes.
inline bool eventMaskBit(const unsigned char* mask, int length, int bit) {
    return bit >= 0 && bit < length * 8 && (mask[bit >> 3] & (1u << (bit & 7))) != 0;
}

/// Fills a zeroed `kRawEventMaskLength`-byte mask with raw motion, raw press and raw release, in that order.
inline void fillRawEventMask(unsigned char* mask) {
    for (int i = 0; i < kRawEventMaskLength; ++i)
        mask[i] = 0;
    setEventMaskBit(mask, kXIRawMotion);
    setEventMaskBit(mask, kXIRawButtonPress);
    setEventMaskBit(mask, kXIRawButtonRelease);
}

/// How many of the first `bits` bits of a valuator mask are set: the number of values an event carries for them.
inline int setValuatorBits(const unsigned char* mask, int bits) {
    int count = 0;
    for (int i = 0; i < bits; ++i)
        count += (mask[i / 8] >> (i % 8)) & 1;
    return count;
}

/// Value of valuator `index` of a raw event, 0.0 when its bit is not set in the `maskLength`-byte valuator mask.
/// `rawValues` holds one value per set bit, in valuator order. The array is indexed by the valuator number itself
/// where that number is below the count of values; beyond it (valuator 1 alone, from a driver that reports only
/// the axes that moved) the valuator's own value is read, at its place among the set bits, so that the read never
/// leaves the array.
inline double rawValuatorValue(const unsigned char* mask, int maskLength, const double* rawValues, int index) {
    if (index < 0 || index >= maskLength * 8 || ((mask[index / 8] >> (index % 8)) & 1) == 0)
        return 0.0;
    const int count = setValuatorBits(mask, maskLength * 8);
    return rawValues[index < count ? index : setValuatorBits(mask, index)];
}

/// A valuator value as a 32-bit offset, truncated toward zero (saturated outside the range, 0 for NaN).
inline int32_t truncateOffset(double value) {
    if (std::isnan(value))
        return 0;
    if (value >= static_cast<double>(INT32_MAX))
        return INT32_MAX;
    if (value <= static_cast<double>(INT32_MIN))
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

/// The refusal message for the result of an XInput version query, or nothing when version 2.1 was granted.
/// Only exactly 2.1 is accepted.
inline std::optional<std::string> xiVersionRefusal(int status, int major, int minor) {
    if (status != kBadRequest && major == kRequiredXIMajor && minor == kRequiredXIMinor)
        return std::nullopt;
    return common::format("Required XInputExtension ver. {0}.{1}, but only ver. {2}.{3}", kRequiredXIMajor,
                          kRequiredXIMinor, major, minor);
}

/// The stop request test: a client message carrying the close atom (the window is not compared).
inline bool isCloseMessage(int type, unsigned long messageType, unsigned long closeAtom) {
    return type == kClientMessage && messageType == closeAtom;
}

/// Whether the read loop looks at an event at all: a generic event or one of the XInput extension.
inline bool admitsInputEvent(int type, int extension, int xiOpcode) {
    return type == kGenericEvent || extension == xiOpcode;
}

/// Whether a generic event type is one of the raw events the driver reads.
inline bool isRawPointerEvent(int evtype) {
    return evtype == kXIRawButtonPress || evtype == kXIRawButtonRelease || evtype == kXIRawMotion;
}

/// Records a raw press (15) or release (16) of button `detail`: 1 left, 2 middle, 3 right; others set nothing.
inline void applyRawButton(zel::RawInputDriver::PointerData& data, int evtype, int detail) {
    const zel::ButtonEvent value = evtype == kXIRawButtonPress ? zel::ButtonEvent::Pressed : zel::ButtonEvent::Released;
    switch (detail) {
        case 1:
            data.left = value;
            break;
        case 2:
            data.middle = value;
            break;
        case 3:
            data.right = value;
            break;
        default:
            break;
    }
}

/// Whether an input device name is one that Xwayland gives its devices ("xwayland-pointer:13", ...): no other X
/// server names its devices so, and before version 23.1 Xwayland has no extension of its own that would say what it is.
inline bool isXwaylandDeviceName(std::string_view name) { return name.starts_with("xwayland-"); }

/// The pointer state mask bit of a button: left Button1Mask, middle Button2Mask, any other Button3Mask.
inline unsigned buttonStateMask(zel::MouseButton button) {
    switch (button) {
        case zel::MouseButton::Left:
            return kButton1Mask;
        case zel::MouseButton::Middle:
            return kButton2Mask;
        default:
            return kButton3Mask;
    }
}

}  // namespace common::zel_internal
