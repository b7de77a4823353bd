// Pointer event records and enumerations that cross the script boundary.
#pragma once

#include <cstdint>
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

}  // namespace zel
