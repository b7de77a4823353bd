// Tests of the module's X I/O error handler without an X server: the handler is called directly, as Xlib would call
// it, with stand-in display pointers (it only compares them).
#include <gtest/gtest.h>

#include <thread>
#include <vector>

// Last: Xlib's macros (None, Bool...) must not reach the headers above.
#include "bridge/platform/Linux/xioerror.h"

namespace {

std::vector<Display*>& passedOn() {
    thread_local std::vector<Display*> displays;
    return displays;
}

/// The handler the module's handler replaces: records the display and returns (as a host's handler might).
int recordingHandler(Display* display) {
    passedOn().push_back(display);
    return 0;
}

/// The module's handler, installed over `recordingHandler` once for this process.
XIOErrorHandler moduleHandler() {
    static const XIOErrorHandler handler = [] {
        XSetIOErrorHandler(&recordingHandler);
        zel::x11::installIOErrorHandler();
        zel::x11::installIOErrorHandler();  // a second call changes nothing
        const XIOErrorHandler installed = XSetIOErrorHandler(nullptr);
        XSetIOErrorHandler(installed);
        return installed;
    }();
    return handler;
}

char g_displayA;
char g_displayB;
Display* const kDisplayA = reinterpret_cast<Display*>(&g_displayA);
Display* const kDisplayB = reinterpret_cast<Display*>(&g_displayB);

class XIOErrorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(moduleHandler(), &recordingHandler);
        passedOn().clear();
    }
};

TEST_F(XIOErrorTest, AnErrorOnTheGuardedDisplayUnwindsToTheGuardedCall) {
    bool after = false;
    EXPECT_FALSE(zel::x11::guardedXCall(kDisplayA, [&] {
        moduleHandler()(kDisplayA);
        after = true;
    }));
    EXPECT_FALSE(after);
    EXPECT_TRUE(passedOn().empty());
}

TEST_F(XIOErrorTest, ACallWithoutErrorCompletes) {
    bool ran = false;
    EXPECT_TRUE(zel::x11::guardedXCall(kDisplayA, [&] { ran = true; }));
    EXPECT_TRUE(ran);
}

TEST_F(XIOErrorTest, AnyOtherDisplayGoesToTheReplacedHandler) {
    moduleHandler()(kDisplayA);  // no guarded call at all
    bool after = false;
    EXPECT_TRUE(zel::x11::guardedXCall(kDisplayA, [&] {
        moduleHandler()(kDisplayB);  // a guarded call, but for another display
        after = true;
    }));
    EXPECT_TRUE(after);
    EXPECT_EQ(passedOn(), (std::vector<Display*>{kDisplayA, kDisplayB}));
}

TEST_F(XIOErrorTest, AGuardOnAnotherThreadDoesNotCatchThisThreadsError) {
    bool guardedOnOtherThread = false;
    bool otherCompleted = false;
    std::thread other([&] {
        otherCompleted = zel::x11::guardedXCall(kDisplayA, [&] {
            guardedOnOtherThread = true;
            std::thread([&] { moduleHandler()(kDisplayA); }).join();
        });
    });
    other.join();
    EXPECT_TRUE(guardedOnOtherThread);
    EXPECT_TRUE(otherCompleted);
}

TEST_F(XIOErrorTest, AnErrorOnAnOuterGuardsDisplayUnwindsToTheOuterCall) {
    bool innerReturned = false;
    EXPECT_FALSE(zel::x11::guardedXCall(kDisplayB, [&] {
        zel::x11::guardedXCall(kDisplayA, [&] { moduleHandler()(kDisplayB); });
        innerReturned = true;
    }));
    EXPECT_FALSE(innerReturned);
    // The guards are left: an error now goes to the replaced handler.
    moduleHandler()(kDisplayB);
    EXPECT_EQ(passedOn(), (std::vector<Display*>{kDisplayB}));
}

}  // namespace
