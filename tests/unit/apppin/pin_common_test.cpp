// The PIN driver base: paths built once on first demand, and access numbers.
#include "token/apppin/pin_common.h"

#include <gtest/gtest.h>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

// Builds its paths from the FIPS state, as the Pro driver does, and counts the builds.
struct ProLikePin : CPinCommon {
    explicit ProLikePin(IApplet* a) : CPinCommon(a) {}
    void NamesInitProc() override {
        if (++built == 1 && failFirst) APDU_RAISE(0x6F00);
        setPaths(PinPaths(isFips() ? TPinFamily::ProFips : TPinFamily::Pro));
    }
    int built = 0;
    bool failFirst = false;
};

TEST(PinCommon, PathsAreBuiltOnceOnFirstDemandAndAFailedBuildIsNotRetried) {
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    auto* info = applet.install<FixedInfo>(applet.info_, true);
    ProLikePin* pin = applet.install<ProLikePin>(applet.pin_);
    EXPECT_EQ(info->asked, 0);  // nothing asked at construction
    EXPECT_EQ(pin->pathAdmin(), TPath());
    EXPECT_EQ(pin->pathUser(), TPath{0x0011});
    EXPECT_EQ(pin->pathGlobal(), TPath());
    EXPECT_EQ(pin->built, 1);
    EXPECT_EQ(info->asked, 1);

    pin = applet.install<ProLikePin>(applet.pin_);
    pin->failFirst = true;
    EXPECT_EQ(failureCode([&] { pin->pathUser(); }), code(0x6F00));
    EXPECT_EQ(pin->pathUser(), TPath());
    EXPECT_EQ(pin->built, 1);

    EXPECT_EQ(PinExtractAccess({0x3F00, 0x0110}), 0x0110);
    EXPECT_EQ(PinExtractAccess(PinPaths(TPinFamily::Idprotect, 0x0042).user), 0x0042);
    EXPECT_EQ(failureCode([] { PinExtractAccess({}); }), code(0x6B00));
}

}  // namespace
