// The session key table of the pack drivers, and their APDU plumbing.
#include "token/apppack/pack_common.h"

#include <gtest/gtest.h>

#include <functional>

#include "libapdu/exception.h"
#include "token/apppack/pack_gost.h"

using namespace libapdu;

namespace {

long raisedCode(const std::function<void()>& f) {
    try {
        f();
    } catch (const CAPDUException& e) {
        return e.code();
    }
    return 0;
}

constexpr long kNotSet = 0x86E06900L, kUnavailable = 0x86E0FACEL;

class ScriptedSender : public ISender {
public:
    TBytes lastCommand;
    TBytes answer;
    void send(const TBytes& command, TBytes& response) override {
        lastCommand = command;
        response = answer;
    }
    TBytes atr() override { return {}; }
};

TEST(PackKeys, UnsetKeysRaise) {
    CPackGost pack(nullptr);
    EXPECT_EQ(raisedCode([&] { pack.keyGet(0); }), kNotSet);
    pack.keySet(1, {0x11});
    pack.keySet(3, {0x33, 0x33});
    // Entry 2 was left empty by growing the table to 4.
    EXPECT_EQ(raisedCode([&] { pack.keyGet(2); }), kNotSet);
    EXPECT_EQ(raisedCode([&] { pack.keyGet(0); }), kNotSet);
    EXPECT_EQ(raisedCode([&] { pack.keyGet(4); }), kNotSet);
    EXPECT_EQ(pack.keyGet(1), TBytes{0x11});
    EXPECT_EQ(pack.keyGet(3), TBytes({0x33, 0x33}));
}

TEST(PackKeys, EmptyKeyGrowsTheTableButStaysUnset) {
    CPackGost pack(nullptr);
    pack.keySet(5, {});
    EXPECT_EQ(raisedCode([&] { pack.keyGet(5); }), kNotSet);
    pack.keySet(5, {1});
    pack.keySet(0, {2});
    EXPECT_EQ(pack.keyGet(5), TBytes{1}) << "the table does not shrink";
    pack.keySet(5, {3});
    EXPECT_EQ(pack.keyGet(5), TBytes{3}) << "replaced in place";
}

TEST(PackKeys, AnIndexThatCannotBeStoredIsRefused) {
    CPackGost pack(nullptr);
    EXPECT_EQ(raisedCode([&] { pack.keySet(~0ul, {1}); }), 0x86E06B00L);
    EXPECT_EQ(raisedCode([&] { pack.keyGet(~0ul); }), kNotSet);
}

TEST(PackKeys, KeyGetReturnsACopy) {
    CPackGost pack(nullptr);
    pack.keySet(0, {1, 2});
    TBytes k = pack.keyGet(0);
    k[0] = 9;
    EXPECT_EQ(pack.keyGet(0), TBytes({1, 2}));
}

TEST(PackKeys, SaveAndRestore) {
    CPackGost pack(nullptr);
    pack.keySet(0, {0xA0});
    pack.keySet(1, {0xA1});
    pack.keySave();
    EXPECT_EQ(raisedCode([&] { pack.keyGet(0); }), kNotSet) << "save empties the table";

    pack.keySet(0, {0xB0});  // the keys of a new PIN
    EXPECT_EQ(pack.keyGet(0), TBytes{0xB0});
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(0), TBytes{0xA0});
    EXPECT_EQ(pack.keyGet(1), TBytes{0xA1});

    pack.keyClear();
    EXPECT_EQ(raisedCode([&] { pack.keyGet(1); }), kNotSet);
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(1), TBytes{0xA1}) << "clear leaves the saved table; restore repeats";

    pack.keySet(2, {0xC2});
    pack.keySave();
    pack.keyRestore();
    EXPECT_EQ(raisedCode([&] { pack.keyGet(2 + 1); }), kNotSet);
    EXPECT_EQ(pack.keyGet(2), TBytes{0xC2}) << "a second save overwrites the first";
}

TEST(PackKeys, RestoreWithNothingSavedEmptiesTheTable) {
    CPackGost pack(nullptr);
    pack.keySet(0, {1});
    pack.keyRestore();
    EXPECT_EQ(raisedCode([&] { pack.keyGet(0); }), kNotSet);
}

TEST(PackGost, HasNoSecureMessagingOrChaining) {
    CPackGost pack(nullptr);
    TBytes response;
    EXPECT_EQ(raisedCode([&] { pack.sm({0x00, 0xA4, 0x00, 0x00}, response); }), kUnavailable);
    EXPECT_EQ(raisedCode([&] { pack.chain({0x00, 0xA4, 0x00, 0x00}, response); }), kUnavailable);
}

TEST(PackCommon, PlumbingGoesThroughTheApplet) {
    ScriptedSender sender;
    IApplet applet(&sender);
    CPackGost pack(&applet);
    sender.answer = {0x01, 0x02, 0x90, 0x00};
    TBytes response;
    pack.send({0x00, 0xB0, 0x00, 0x00, 0x02}, response);
    EXPECT_EQ(sender.lastCommand, TBytes({0x00, 0xB0, 0x00, 0x00, 0x02}));
    EXPECT_EQ(response, sender.answer);
    EXPECT_EQ(pack.extractSW(response), 0x9000);
    EXPECT_EQ(raisedCode([&] { pack.checkSW(response); }), 0);
    EXPECT_NE(raisedCode([&] { pack.checkSW({0x6A, 0x82}); }), 0);
    EXPECT_NE(raisedCode([&] { pack.raiseSW(0x6982); }), 0);
}

}  // namespace
