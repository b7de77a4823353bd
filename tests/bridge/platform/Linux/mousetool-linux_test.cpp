// Tests of the button state query against the test Xvfb, driven by xinject.
#include "bridge/platform/Linux/mousetool-linux.h"

#include <gtest/gtest.h>

#include "tests/bridge/input_test_support.h"

namespace {

using namespace zel_test;
using zel::MouseButton;

#ifndef ZEL_XINJECT_PATH
#error "ZEL_XINJECT_PATH must name the xinject tool"
#endif

using MouseToolTest = InjectorTest;

TEST_F(MouseToolTest, ButtonStateFollowsHeldButtons) {
    for (MouseButton button : {MouseButton::Left, MouseButton::Middle, MouseButton::Right})
        EXPECT_FALSE(zel::MouseTool::getButtonState(button));

    injector->press(1);
    injector->sync();
    EXPECT_TRUE(zel::MouseTool::getButtonState(MouseButton::Left));
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Middle));
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Right));
    injector->release(1);
    injector->sync();
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Left));

    injector->press(2);
    injector->sync();
    EXPECT_TRUE(zel::MouseTool::getButtonState(MouseButton::Middle));
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Left));
    injector->release(2);
    injector->sync();
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Middle));
}

TEST_F(MouseToolTest, ButtonStateOfOtherValuesIsTheRightButton) {
    EXPECT_FALSE(zel::MouseTool::getButtonState(static_cast<MouseButton>(5)));
    injector->press(3);
    injector->sync();
    EXPECT_TRUE(zel::MouseTool::getButtonState(MouseButton::Right));
    EXPECT_TRUE(zel::MouseTool::getButtonState(static_cast<MouseButton>(5)));
    EXPECT_TRUE(zel::MouseTool::getButtonState(static_cast<MouseButton>(7)));
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Left));
    injector->release(3);
    injector->sync();
    EXPECT_FALSE(zel::MouseTool::getButtonState(static_cast<MouseButton>(5)));
    EXPECT_FALSE(zel::MouseTool::getButtonState(static_cast<MouseButton>(7)));
}

}  // namespace
