// Pointer event records and enumerations that cross the script boundary.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "common/meta/classinfo.h"

namespace zel {

/// How a button changed in one event.
enum class ButtonEvent : int32_t {
    None = 0,  ///< this button did not change
    Released = 1,
    Pressed = 2,
};

/// Argument of `getButtonState`; any other number is treated as `Right`.
enum class MouseButton : int32_t {
    Left = 0,
    Middle = 1,
    Right = 2,
};

/// A position or a displacement in screen pixels (raw device units for a displacement).
struct Point2 {
    int32_t x = 0;
    int32_t y = 0;

    struct ClassAttributes__ {
        using Class = Point2;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("x", &self->x),
                                       common::meta::createFieldInfo("y", &self->y));
            }});
        }
    };
};

/// Raw relative motion of one event and the pointer's screen position when it was read.
struct MotionEventData {
    Point2 offset;
    Point2 screenPoint;

    struct ClassAttributes__ {
        using Class = MotionEventData;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("offset", &self->offset),
                                       common::meta::createFieldInfo("screenPoint", &self->screenPoint));
            }});
        }
    };
};

/// Per-button change of one event.
struct ButtonsEventData {
    ButtonEvent left = ButtonEvent::None;
    ButtonEvent middle = ButtonEvent::None;
    ButtonEvent right = ButtonEvent::None;

    struct ClassAttributes__ {
        using Class = ButtonsEventData;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("left", &self->left),
                                       common::meta::createFieldInfo("middle", &self->middle),
                                       common::meta::createFieldInfo("right", &self->right));
            }});
        }
    };
};

/// How a capture goes, told to script in order with its records.
enum class CaptureStatus : int32_t {
    Live,           ///< the server has confirmed the raw event selection: input flows from here on
    Xwayland,       ///< the server is Xwayland: input arrives only while the pointer is over an X11 window
    NoDisplay,      ///< no X display could be opened: the capture did not start
    NoXInput,       ///< the server has no XInput 2.1: the capture did not start
    SelectRefused,  ///< the server refused the raw event selection: the capture did not start
    Lost,           ///< the connection to the X server was lost: the capture ended
    Failed,         ///< the system refused a thread or a descriptor: the capture did not start, or ended
    Closed,         ///< another X client sent the reader's window its close message: the capture ended
};

/// A capture status as script sees it: a stable code and a readable message.
struct StatusEventData {
    std::string_view code;
    std::string_view message;

    struct ClassAttributes__ {
        using Class = StatusEventData;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("code", &self->code),
                                       common::meta::createFieldInfo("message", &self->message));
            }});
        }
    };
};

/// The code and message of `status`.
constexpr StatusEventData statusEvent(CaptureStatus status) {
    switch (status) {
        case CaptureStatus::Live:
            return {"live", "Pointer capture is live"};
        case CaptureStatus::Xwayland:
            return {"xwayland",
                    "The X server is Xwayland: pointer input arrives only while the pointer is over an X11 window, "
                    "never over native Wayland windows. Run the application in its X11 mode to receive input over "
                    "its own window"};
        case CaptureStatus::NoDisplay:
            return {"no-display", "No X display could be opened: pointer capture did not start"};
        case CaptureStatus::NoXInput:
            return {"no-xinput", "The X server does not offer XInput 2.1: pointer capture did not start"};
        case CaptureStatus::SelectRefused:
            return {"select-refused",
                    "The X server refused the raw pointer event selection: pointer capture did not start"};
        case CaptureStatus::Lost:
            return {"lost", "The connection to the X server was lost: pointer capture ended"};
        case CaptureStatus::Closed:
            return {"closed",
                    "Another X client sent the \"_APP_CLOSE_INPUT\" message to the capture's window: pointer capture "
                    "ended"};
        case CaptureStatus::Failed:
            break;
    }
    return {"failed",
            "The system refused a thread or a descriptor that pointer capture needs: it did not start or has ended"};
}

}  // namespace zel
