// Tests of the record a raw input driver emits: its parts as motion and buttons records.
#include "bridge/rawinputdriver.h"

#include <gtest/gtest.h>

namespace {

using zel::ButtonEvent;
using PointerData = zel::RawInputDriver::PointerData;

TEST(PointerDataTest, StartsAllZeroAndSplitsIntoMotionAndButtons) {
    PointerData data;
    EXPECT_EQ(data.offset.x, 0);
    EXPECT_EQ(data.offset.y, 0);
    EXPECT_EQ(data.screenPoint.x, 0);
    EXPECT_EQ(data.screenPoint.y, 0);
    EXPECT_EQ(data.left, ButtonEvent::None);

    data.offset = {5, -3};
    data.screenPoint = {100, 200};
    data.middle = ButtonEvent::Pressed;
    const zel::MotionEventData motion = data.motion();
    const zel::ButtonsEventData buttons = data.buttons();
    EXPECT_EQ(motion.offset.x, 5);
    EXPECT_EQ(motion.offset.y, -3);
    EXPECT_EQ(motion.screenPoint.x, 100);
    EXPECT_EQ(motion.screenPoint.y, 200);
    EXPECT_EQ(buttons.left, ButtonEvent::None);
    EXPECT_EQ(buttons.middle, ButtonEvent::Pressed);
    EXPECT_EQ(buttons.right, ButtonEvent::None);
    EXPECT_EQ(sizeof(PointerData), 28u);
}

TEST(PointerDataTest, EachPartCarriesOnlyItsOwnFields) {
    PointerData data;
    data.left = ButtonEvent::Released;
    data.right = ButtonEvent::Pressed;
    const zel::MotionEventData motion = data.motion();
    EXPECT_EQ(motion.offset.x, 0);
    EXPECT_EQ(motion.screenPoint.y, 0);
    const zel::ButtonsEventData buttons = data.buttons();
    EXPECT_EQ(buttons.left, ButtonEvent::Released);
    EXPECT_EQ(buttons.middle, ButtonEvent::None);
    EXPECT_EQ(buttons.right, ButtonEvent::Pressed);

    data = PointerData{};
    data.screenPoint = {-7, 9};
    EXPECT_EQ(data.motion().screenPoint.x, -7);
    EXPECT_EQ(data.motion().screenPoint.y, 9);
    EXPECT_EQ(data.buttons().left, ButtonEvent::None);
}

}  // namespace
