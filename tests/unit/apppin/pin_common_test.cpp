#include "token/apppin/pin_common.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/scripted_sender.h"

namespace {

using namespace libapdu;
using krfs_test::code;
using krfs_test::failureCode;

struct FamilyCase {
    const char* name;
    TPinFamily family;
    TPath user, admin, global;
};

class PinPathTable : public ::testing::TestWithParam<FamilyCase> {};

TEST_P(PinPathTable, GivesTheFamilysObjects) {
    const FamilyCase& c = GetParam();
    const CPinPathSet p = PinPaths(c.family, 0x0042);
    EXPECT_EQ(p.user, c.user);
    EXPECT_EQ(p.admin, c.admin);
    EXPECT_EQ(p.global, c.global);
}

INSTANTIATE_TEST_SUITE_P(
    Families, PinPathTable,
    ::testing::Values(FamilyCase{"Pro", TPinFamily::Pro, {0x0001}, {0x0005}, {}},
                      FamilyCase{"ProFips", TPinFamily::ProFips, {0x0011}, {}, {}},
                      FamilyCase{"JavaJoker", TPinFamily::JavaJoker, {0x0011}, {0x0021}, {0x00FE}},
                      FamilyCase{"Idprotect",
                                 TPinFamily::Idprotect,
                                 {0x3F00, 0x0042},
                                 {0x3F00, 0x0010},
                                 {0x3F00, 0x0001}},
                      FamilyCase{"R2", TPinFamily::R2, {0x0001}, {}, {}},
                      FamilyCase{"Gost", TPinFamily::Gost, {0x0002}, {0x0001}, {}},
                      FamilyCase{"DataStore", TPinFamily::DataStore, {0x0001}, {0x0002}, {0x0003}}),
    [](const auto& i) { return std::string(i.param.name); });

// Builds its paths from the FIPS state, as the Pro driver does, and counts
// how often it was asked to.
class ProLikePin : public CPinCommon {
public:
    explicit ProLikePin(IApplet* a) : CPinCommon(a) {}
    void NamesInitProc() override {
        ++built;
        if (failFirst && built == 1) APDU_RAISE(0x6F00);
        setPaths(PinPaths(isFips() ? TPinFamily::ProFips : TPinFamily::Pro));
    }
    int built = 0;
    bool failFirst = false;
};

class PinCommon : public ::testing::Test {
protected:
    krfs_test::ScriptedSender sender;
    krfs_test::ScriptedApplet applet{&sender};
};

TEST_F(PinCommon, PathsAreBuiltOnceOnFirstDemand) {
    auto* info = applet.installInfo<krfs_test::FixedInfo>(true);
    ProLikePin* pin = applet.installPin<ProLikePin>();
    EXPECT_EQ(pin->built, 0);
    EXPECT_EQ(info->asked, 0);
    EXPECT_EQ(pin->pathAdmin(), TPath());
    EXPECT_EQ(pin->pathUser(), TPath{0x0011});
    EXPECT_EQ(pin->pathGlobal(), TPath());
    EXPECT_EQ(pin->built, 1);
    EXPECT_EQ(info->asked, 1);
}

TEST_F(PinCommon, FailedBuildIsNotRetried) {
    applet.installInfo<krfs_test::FixedInfo>(false);
    ProLikePin* pin = applet.installPin<ProLikePin>();
    pin->failFirst = true;
    EXPECT_EQ(failureCode([&] { pin->pathUser(); }), code(0x6F00));
    EXPECT_EQ(pin->pathUser(), TPath());
    EXPECT_EQ(pin->built, 1);
}

TEST_F(PinCommon, BaseLeavesPathsEmptyAndOtherOperationsUnavailable) {
    CPinCommon pin(&applet);
    EXPECT_TRUE(pin.pathUser().empty());
    EXPECT_EQ(failureCode([&] { pin.login({1, 2, 3}); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { pin.encoding(); }), code(0xFACE));
}

TEST(PinExtractAccess, IsTheLastElement) {
    EXPECT_EQ(PinExtractAccess({0x0011}), 0x0011);
    EXPECT_EQ(PinExtractAccess({0x3F00, 0x0110}), 0x0110);
    EXPECT_EQ(failureCode([] { PinExtractAccess({}); }), code(0x6B00));
}

}  // namespace
