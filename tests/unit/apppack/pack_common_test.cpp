// The session key table that the pack drivers share, and their plumbing.
#include "token/apppack/pack_common.h"

#include <gtest/gtest.h>

#include "token/apppack/pack_gost.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

TEST(PackKeys, TableGrowsWithEmptyEntriesSavesRestoresAndCopiesOut) {
    CPackGost pack(nullptr);
    auto unset = [&](unsigned long i) {
        return failureCode([&] { pack.keyGet(i); }) == code(0x6900);
    };
    EXPECT_TRUE(unset(0));
    pack.keySet(1, {0x11});
    pack.keySet(3, {});  // grows the table, but an empty key stays unset
    EXPECT_TRUE(unset(0) && unset(2) && unset(3) && unset(4) && unset(~0ul));
    EXPECT_EQ(failureCode([&] { pack.keySet(~0ul, {1}); }), code(0x6B00));
    pack.keySet(3, {0x33});
    pack.keySet(3, {0x34, 0x34});  // replaced in place
    TBytes copy = pack.keyGet(3);
    copy[0] = 9;
    EXPECT_EQ(pack.keyGet(3), hex("3434"));

    pack.keySave();
    EXPECT_TRUE(unset(1)) << "save empties the table";
    pack.keySet(1, {0xB1});  // the keys of a new PIN
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(1), hex("11"));
    pack.keyClear();
    EXPECT_TRUE(unset(1));
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(3), hex("3434")) << "clear leaves the saved table; restore repeats";
    pack.keySet(5, {0x55});
    pack.keySave();
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(5), hex("55")) << "a second save overwrites the first";

    CPackGost fresh(nullptr);
    fresh.keySet(0, {1});
    fresh.keyRestore();
    EXPECT_EQ(failureCode([&] { fresh.keyGet(0); }), code(0x6900)) << "nothing saved: empty";
}

TEST(PackGost, PlumbingGoesThroughTheAppletWithoutSecureMessagingOrChaining) {
    ScriptedSender sender;
    IApplet applet(&sender);
    CPackGost pack(&applet);
    TBytes response(258);
    sender.expect("00 B0 00 00 02", "01 02 6A 82");
    pack.send(hex("00 B0 00 00 02"), response);
    EXPECT_EQ(pack.extractSW(response), 0x6A82);
    EXPECT_EQ(failureCode([&] { pack.checkSW(response); }), code(0x6A82));
    EXPECT_EQ(failureCode([&] { pack.sm(hex("00 A4 00 00"), response); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { pack.chain(hex("00 A4 00 00"), response); }), code(0xFACE));
}

}  // namespace
