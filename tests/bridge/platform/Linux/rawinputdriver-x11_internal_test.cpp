// Tests of the pure pieces of the X11 input code: valuators, version acceptance, masks, event tests.
#include "bridge/platform/Linux/rawinputdriver-x11_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <memory>

#include "bridge/rawinputdriver.h"

namespace {

using namespace common::zel_internal;
using zel::ButtonEvent;
using zel::MouseButton;
using PointerData = zel::RawInputDriver::PointerData;

/// A raw event's valuators as libXi lays them out: one allocation of exactly the valuator mask (padded to a double),
/// the accelerated values and, last, the raw values, one of each per set bit of the mask. A read past the raw
/// values leaves the allocation, which AddressSanitizer reports.
class LibXiValuators {
public:
    LibXiValuators(std::initializer_list<unsigned char> mask, std::initializer_list<double> raw)
        : m_maskLength(static_cast<int>((mask.size() + 7) / 8 * 8)),
          m_count(static_cast<int>(raw.size())),
          m_block(std::make_unique<unsigned char[]>(m_maskLength + 2 * m_count * sizeof(double))) {
        std::copy(mask.begin(), mask.end(), m_block.get());
        EXPECT_EQ(setValuatorBits(m_block.get(), m_maskLength * 8), m_count) << "one value per set bit";
        std::memcpy(rawValues(), std::data(raw), m_count * sizeof(double));
    }

    /// The value of valuator `index` as the driver reads it.
    double value(int index) const { return rawValuatorValue(m_block.get(), m_maskLength, rawValues(), index); }

private:
    double* rawValues() const {
        return reinterpret_cast<double*>(m_block.get() + m_maskLength + m_count * sizeof(double));
    }

    int m_maskLength;
    int m_count;
    std::unique_ptr<unsigned char[]> m_block;
};

TEST(RawValuatorTest, BothValuatorsSetAreTruncatedTowardZero) {
    const LibXiValuators event({0x03}, {2.7, -3.9});
    EXPECT_DOUBLE_EQ(event.value(0), 2.7);
    EXPECT_DOUBLE_EQ(event.value(1), -3.9);
    EXPECT_EQ(truncateOffset(event.value(0)), 2);
    EXPECT_EQ(truncateOffset(event.value(1)), -3);
}

TEST(RawValuatorTest, OnlyValuatorOneSetReadsItsOwnValue) {
    // A purely vertical motion from a driver that reports only the axes that moved: one raw value, which is
    // valuator 1's; there is no element 1 to read.
    const LibXiValuators event({0x02}, {7.5});
    EXPECT_DOUBLE_EQ(event.value(0), 0.0);
    EXPECT_DOUBLE_EQ(event.value(1), 7.5);
    EXPECT_EQ(truncateOffset(event.value(0)), 0);
    EXPECT_EQ(truncateOffset(event.value(1)), 7);
}

TEST(RawValuatorTest, ValuatorsBelowTheCountOfValuesAreReadByTheirNumber) {
    // Valuators 1 and 3 carry two values: valuator 1 is read at element 1, which is valuator 3's value.
    const LibXiValuators event({0x0a}, {5.0, 9.0});
    EXPECT_DOUBLE_EQ(event.value(0), 0.0);
    EXPECT_DOUBLE_EQ(event.value(1), 9.0);
    EXPECT_DOUBLE_EQ(event.value(3), 9.0);
}

TEST(RawValuatorTest, IndexBeyondTheMaskReadsZero) {
    const LibXiValuators event({0xff}, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_DOUBLE_EQ(event.value(7), 8.0);
    EXPECT_DOUBLE_EQ(event.value(32), 0.0);
    EXPECT_DOUBLE_EQ(event.value(-1), 0.0);
    const double raw[1] = {1.0};
    const unsigned char none[1] = {0xff};
    EXPECT_DOUBLE_EQ(rawValuatorValue(none, 0, raw, 0), 0.0);
}

TEST(RawValuatorTest, AValuatorAloneInALaterMaskByteReadsItsOwnValue) {
    const LibXiValuators event({0x00, 0x04}, {-42.25});  // valuator 10
    EXPECT_DOUBLE_EQ(event.value(10), -42.25);
    EXPECT_DOUBLE_EQ(event.value(9), 0.0);
    EXPECT_DOUBLE_EQ(event.value(1), 0.0);
}

TEST(RawValuatorTest, FractionalMotionBelowOneIsLost) {
    EXPECT_EQ(truncateOffset(0.99), 0);
    EXPECT_EQ(truncateOffset(-0.99), 0);
}

TEST(RawValuatorTest, OutOfRangeValuesSaturate) {
    EXPECT_EQ(truncateOffset(1e12), INT32_MAX);
    EXPECT_EQ(truncateOffset(-1e12), INT32_MIN);
    EXPECT_EQ(truncateOffset(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(truncateOffset(std::numeric_limits<double>::infinity()), INT32_MAX);
}

TEST(XIVersionTest, VersionTwoOneIsAccepted) { EXPECT_FALSE(xiVersionRefusal(0, 2, 1).has_value()); }

TEST(XIVersionTest, VersionTwoZeroIsRefusedWithTheVersions) {
    const auto refusal = xiVersionRefusal(1, 2, 0);
    ASSERT_TRUE(refusal.has_value());
    EXPECT_EQ(*refusal, "Required XInputExtension ver. 2.1, but only ver. 2.0");
    // The server may answer 2.0 with success as well: still refused.
    EXPECT_EQ(xiVersionRefusal(0, 2, 0).value_or(""), "Required XInputExtension ver. 2.1, but only ver. 2.0");
}

TEST(XIVersionTest, OnlyExactlyTwoOneIsAccepted) {
    EXPECT_EQ(xiVersionRefusal(0, 2, 2).value_or(""), "Required XInputExtension ver. 2.1, but only ver. 2.2");
    EXPECT_EQ(xiVersionRefusal(0, 3, 1).value_or(""), "Required XInputExtension ver. 2.1, but only ver. 3.1");
    EXPECT_EQ(xiVersionRefusal(1, 2, 1).value_or(""), "Required XInputExtension ver. 2.1, but only ver. 2.1");
}

TEST(ButtonMaskTest, ButtonsMapToTheirStateMaskBits) {
    EXPECT_EQ(buttonStateMask(MouseButton::Left), 256u);
    EXPECT_EQ(buttonStateMask(MouseButton::Middle), 512u);
    EXPECT_EQ(buttonStateMask(MouseButton::Right), 1024u);
}

TEST(ButtonMaskTest, AnyOtherValueIsTheRightButton) {
    EXPECT_EQ(buttonStateMask(static_cast<MouseButton>(5)), 1024u);
    EXPECT_EQ(buttonStateMask(static_cast<MouseButton>(7)), 1024u);
    EXPECT_EQ(buttonStateMask(static_cast<MouseButton>(-1)), 1024u);
}

TEST(EventMaskTest, RawEventsSetBitsFifteenToSeventeenOfFourBytes) {
    unsigned char mask[kRawEventMaskLength];
    for (auto& byte : mask)
        byte = 0xaa;  // filling starts from zero
    fillRawEventMask(mask);
    EXPECT_EQ(kRawEventMaskLength, 4);
    EXPECT_EQ(mask[0], 0x00);
    EXPECT_EQ(mask[1], 0x80);  // bit 15
    EXPECT_EQ(mask[2], 0x03);  // bits 16 and 17
    EXPECT_EQ(mask[3], 0x00);
    for (int bit = 0; bit < 32; ++bit)
        EXPECT_EQ(eventMaskBit(mask, 4, bit), bit >= 15 && bit <= 17) << bit;
}

TEST(EventMaskTest, SetBitIsBitModEightOfByteDivEight) {
    unsigned char mask[4] = {};
    setEventMaskBit(mask, 0);
    setEventMaskBit(mask, 9);
    setEventMaskBit(mask, 31);
    EXPECT_EQ(mask[0], 0x01);
    EXPECT_EQ(mask[1], 0x02);
    EXPECT_EQ(mask[2], 0x00);
    EXPECT_EQ(mask[3], 0x80);
}

TEST(CloseEventTest, ClientMessageWithTheCloseAtomIsAStopRequest) {
    EXPECT_TRUE(isCloseMessage(kClientMessage, 300, 300));
}

TEST(CloseEventTest, ClientMessageWithAnotherAtomIsNot) { EXPECT_FALSE(isCloseMessage(kClientMessage, 301, 300)); }

TEST(CloseEventTest, OtherEventTypesAreNot) {
    EXPECT_FALSE(isCloseMessage(kGenericEvent, 300, 300));
    EXPECT_FALSE(isCloseMessage(2, 300, 300));
}

TEST(EventFilterTest, GenericEventsOrEventsOfTheExtensionAreAdmitted) {
    EXPECT_TRUE(admitsInputEvent(kGenericEvent, 0, 131));
    EXPECT_TRUE(admitsInputEvent(kGenericEvent, 131, 131));
    EXPECT_TRUE(admitsInputEvent(kClientMessage, 131, 131));
    EXPECT_FALSE(admitsInputEvent(kClientMessage, 0, 131));
}

TEST(EventFilterTest, OnlyRawButtonAndMotionEventsAreRead) {
    EXPECT_TRUE(isRawPointerEvent(15));
    EXPECT_TRUE(isRawPointerEvent(16));
    EXPECT_TRUE(isRawPointerEvent(17));
    EXPECT_FALSE(isRawPointerEvent(13));  // raw key press
    EXPECT_FALSE(isRawPointerEvent(14));
    EXPECT_FALSE(isRawPointerEvent(18));  // raw touch begin
    EXPECT_FALSE(isRawPointerEvent(6));   // device motion
}

TEST(RawButtonTest, ButtonsOneToThreeSetLeftMiddleRight) {
    PointerData data;
    applyRawButton(data, kXIRawButtonPress, 1);
    EXPECT_EQ(data.left, ButtonEvent::Pressed);
    EXPECT_EQ(data.middle, ButtonEvent::None);
    EXPECT_EQ(data.right, ButtonEvent::None);

    PointerData middle;
    applyRawButton(middle, kXIRawButtonRelease, 2);
    EXPECT_EQ(middle.left, ButtonEvent::None);
    EXPECT_EQ(middle.middle, ButtonEvent::Released);
    EXPECT_EQ(middle.right, ButtonEvent::None);

    PointerData right;
    applyRawButton(right, kXIRawButtonPress, 3);
    EXPECT_EQ(right.right, ButtonEvent::Pressed);
    EXPECT_EQ(right.left, ButtonEvent::None);
}

TEST(RawButtonTest, WheelAndExtraButtonsSetNothing) {
    for (int detail : {0, 4, 5, 6, 7, 8, 9}) {
        PointerData data;
        applyRawButton(data, kXIRawButtonPress, detail);
        EXPECT_EQ(data.left, ButtonEvent::None) << detail;
        EXPECT_EQ(data.middle, ButtonEvent::None) << detail;
        EXPECT_EQ(data.right, ButtonEvent::None) << detail;
        EXPECT_EQ(data.offset.x, 0);
        EXPECT_EQ(data.screenPoint.y, 0);
    }
}

TEST(XwaylandTest, DeviceNamesThatOnlyXwaylandGivesAreRecognised) {
    for (const char* name : {"xwayland-pointer:13", "xwayland-relative-pointer:13", "xwayland-pointer-gestures:13",
                             "xwayland-keyboard:13"})
        EXPECT_TRUE(isXwaylandDeviceName(name)) << name;
    for (const char* name : {"Virtual core pointer", "Virtual core XTEST pointer", "Xwayland pointer", "xwayland",
                             " xwayland-pointer:13", ""})
        EXPECT_FALSE(isXwaylandDeviceName(name)) << name;
}

}  // namespace
