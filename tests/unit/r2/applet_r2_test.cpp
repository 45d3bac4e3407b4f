// The R2 applet's drivers against a scripted card: exact command bytes,
// little-endian fields, and status words that arrive low byte first.
#include "token/applet_r2.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "token/appinfo/info_r2.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kOk = "00 90";
const std::string kSelectRoot = "00 A4 00 00 04 00 01 00 3F 08";
const std::string kSelectLabelDir = "00 A4 00 00 06 00 02 00 3F 00 80 08";
const std::string kSelectLabel = "00 A4 00 00 08 00 03 00 3F 00 80 AA AA 08";
const std::string kSelectFile = "00 A4 00 00 06 00 02 00 3F 00 01 08";
const std::string kLogout = "00 DC 00 00 01 00";
// Select answers: a directory, a public file of 0x0123 bytes, a private one
// of 450 bytes.
const std::string kDir = "00 3F 02 00 00 00 00 00 00 90";
const std::string kFile = "AA AA 01 00 23 01 00 00 00 90";
const std::string kPrivate450 = "00 01 01 01 C2 01 00 00 00 90";

struct R2 : ::testing::Test {
    R2() { sender.setAtr("3B 81 1F 00 CC 52"); }
    ScriptedSender sender;
    CAppletR2 applet{&sender};
};

TEST_F(R2, SelectSendsTheWholePathLowByteFirstAndReadsTheFlag) {
    const std::tuple<TPath, std::string, std::string, std::vector<int>> rows[] = {
        {{}, kSelectRoot, kDir, {2, 0, 0, 1}},
        {{0x3F00}, kSelectRoot, kDir, {2, 0, 0, 1}},
        {{0x8000, 0xAAAA}, kSelectLabel, kFile, {1, 0x0123, 0, 1}},
        {{0x3F00, 0x0100}, kSelectFile, kPrivate450, {1, 450, 1, 1}},
    };
    for (const auto& [path, command, answer, info] : rows) {
        sender.expect(command, answer);
        applet.fs()->select(path);
        EXPECT_EQ(fields(applet.fs()->info()), info) << command;
    }
}

TEST_F(R2, StatusWordsAreReadLowByteFirstAndRewrittenPerCommand) {
    const auto select = [&] { applet.fs()->select({0x0100}); };
    const auto create = [&](WORD id, CFileInfo info) {
        return [=] { applet.fs()->create(id, info); };
    };
    const auto removeFile = [&] { applet.fs()->remove(); };
    const std::string newFile = "00 E0 00 00 06 01 07 23 01 34 12 00";
    const std::string remove = "00 E2 00 00 01 01";
    const auto createFile = create(0x1234, CFileInfo(1, 0x0123, 7, 1));
    run(sender,
        {
            {select, {kSelectFile, "07 64"}, code(0x6A82)},
            {select, {kSelectFile, "90 00"}, code(0xFFFF)},  // high byte first is an unknown word
            {select, {kSelectFile, "00 01 01 00 10 00 00 00 90"}, code(0x6281)},
            {createFile, {newFile, "08 64"}, code(0x6A89)},
            {createFile, {newFile, "82 69"}, code(0x6900)},
            {createFile, {newFile, kOk}, 0},
            {create(0x8000, {2, 0x55, 1, 1}), {"00 E0 00 00 06 02 00 00 00 00 80 00", kOk}, 0},
            {create(0x3F00, {2, 0, 0, 1}), {}, code(0x6900)},  // refused before any command
            {create(0x0001, {3, 0, 0, 1}), {}, code(0xFACE)},
            {removeFile, {remove, "06 64"}, code(0x6900)},
            {removeFile, {remove, "86 6F"}, code(0x6A82)},
            {removeFile, {remove, kOk}, 0},
        });
}

TEST_F(R2, ListTakesIdentifiersAfterTwoBytesAndOnlyOnADirectory) {
    sender.expect(kSelectRoot, kDir);
    applet.fs()->select({});
    sender.expect("00 D2 00 00 03 00 04 02 00", "02 00 01 20 02 20 " + kOk);
    EXPECT_EQ(applet.fs()->list(2), (TPath{0x2001, 0x2002}));
    // Any kind but 2 lists files; an odd trailing byte is no identifier.
    sender.expect("00 D2 00 00 03 00 04 01 00", "01 00 AA AA BB " + kOk);
    EXPECT_EQ(applet.fs()->list(7), (TPath{0xAAAA}));
    for (const std::string& empty : {"00 00 " + kOk, kOk}) {
        sender.expect("00 D2 00 00 03 00 04 01 00", empty);
        EXPECT_TRUE(applet.fs()->list(1).empty());
    }
    sender.expect(kSelectFile, kFile);
    applet.fs()->select({0x0100});
    EXPECT_EQ(failureCode([&] { applet.fs()->list(1); }), code(0x6283));
}

TEST_F(R2, ReadAndWriteGoIn200ByteBlocksWithLittleEndianOffsets) {
    sender.expect(kSelectFile, kPrivate450);
    applet.fs()->select({0x0100});

    sender.expect("00 B0 00 00 04 00 00 C8 00 00", bytes(200, "11") + kOk);
    sender.expect("00 B0 00 00 04 C8 00 C8 00 00", bytes(200, "22") + kOk);
    sender.expect("00 B0 00 00 04 90 01 32 00 00", bytes(50, "33") + kOk);
    TBytes data(450);
    applet.fs()->read(data, 0);
    EXPECT_EQ(data, hex(bytes(200, "11") + bytes(200, "22") + bytes(50, "33")));

    sender.expect("00 D0 00 00 CC C8 00 C8 00 " + bytes(200, "5A"), kOk);
    sender.expect("00 D0 00 00 36 90 01 32 00 " + bytes(50, "5A"), kOk);
    applet.fs()->write(TBytes(250, 0x5A), 200);

    // A short answer, and ranges past the end, which send nothing.
    sender.expect("00 B0 00 00 04 00 00 0A 00 00", bytes(9, "00") + kOk);
    TBytes ten(10);
    EXPECT_EQ(failureCode([&] { applet.fs()->read(ten, 0); }), code(0x6282));
    EXPECT_EQ(failureCode([&] { applet.fs()->read(ten, 441); }), code(0x6282));
    EXPECT_EQ(failureCode([&] { applet.fs()->write(ten, 441); }), code(0x6A84));
}

TEST_F(R2, PinIsPlainAndChangeAlwaysLogsOut) {
    IAppPin* pin = applet.pin();
    const TBytes p{'1', '2', '3', '4'};
    const std::string login = "00 20 00 00 05 04 31 32 33 34";
    const std::string change = "00 D4 00 00 05 04 31 32 33 34";
    run(sender, {
                    {[&] { pin->login(p); }, {login, kOk}, 0},
                    {[&] { pin->login(p); }, {login, "16 64"}, code(0x6300)},
                    {[&] { pin->login(p); }, {login, "82 69"}, code(0x6300)},
                    {[&] { pin->login(p); }, {login, "83 69"}, code(0x6983)},
                    {[&] { pin->change(p); }, {change, kOk, kLogout, kOk}, 0},
                    {[&] { pin->change(p); }, {change, "16 64", kLogout, kOk}, code(0x6300)},
                    // Only login reads 0x6982 as a wrong PIN; change reports it as such.
                    {[&] { pin->change(p); }, {change, "82 69", kLogout, kOk}, code(0x6900)},
                    {[&] { pin->logout(); }, {kLogout, kOk}, 0},
                    {[&] { pin->unblock(p); }, {}, code(0xFACE)},
                    {[&] { pin->select({0x0002}); }, {}, code(0x6A82)},
                    {[&] { pin->select(pin->pathUser()); }, {}, 0},
                });
    EXPECT_EQ(pin->pathUser(), TPath{0x0001});
    EXPECT_TRUE(pin->pathAdmin().empty());
    EXPECT_EQ(pinFields(pin->info()), std::vector<int>({4, 16, 0xFF, 0xFF, 0x0010}));
    EXPECT_EQ(pin->encoding(), 2u);
}

TEST_F(R2, LabelIsAFileExactlyAsLongAsTheLabel) {
    sender.expect(kSelectLabel, "AA AA 01 00 03 00 00 00 00 90");
    sender.expect("00 B0 00 00 04 00 00 03 00 00", "61 62 63 " + kOk);
    EXPECT_EQ(applet.label()->read(), hex("61 62 63"));

    // Write: the old file goes (a missing one is fine), the directory stays.
    sender.expect(kSelectLabel, "07 64");
    sender.expect(kSelectLabelDir, kDir);
    sender.expect(kSelectLabelDir, kDir);
    sender.expect("00 E0 00 00 06 01 00 02 00 AA AA 00", kOk);
    sender.expect(kSelectLabel, "AA AA 01 00 02 00 00 00 00 90");
    sender.expect("00 D0 00 00 06 00 00 02 00 78 79", kOk);
    applet.label()->write({'x', 'y'});

    // Any other failure of the removal stops the write.
    sender.expect(kSelectLabel, "AA AA 01 00 02 00 00 00 00 90");
    sender.expect("00 E2 00 00 01 01", "82 69");
    EXPECT_EQ(failureCode([&] { applet.label()->write({'x'}); }), code(0x6900));

    // Refused before any command: a zero byte, more than 32 bytes.
    EXPECT_EQ(failureCode([&] { applet.label()->write({'a', 0, 'b'}); }), code(0x6B00));
    EXPECT_EQ(failureCode([&] { applet.label()->write(TBytes(33, 'a')); }), code(0x6B00));
    EXPECT_EQ(applet.label()->encoding(), 2u);
}

TEST(R2Info, EveryOperationReadsItsFieldFromAFreshBlockOfAtLeastNineteenBytes) {
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    CInfoR2* info = applet.install<CInfoR2>(applet.info_);
    const char* kConfig = "00 DA 00 00 01 00 00";
    // Identifier, version, total memory (LE), eight unused bytes, free memory (LE), colour.
    const std::string block = "A1 A2 A3 A4 05 06 00 80 00 00 00 00 00 00 00 00 34 12 09";
    const std::function<unsigned()> calls[] = {
        [&] { return info->id(2) == hex("A1 A2 A3 A4") ? 1u : 0u; },
        [&] { return info->version(7) == hex("05 06") ? 1u : 0u; },
        [&] { return info->memoryTotal(); }, [&] { return info->memoryFree(); },
        [&] { return info->color(); }};
    const unsigned want[] = {1, 1, 0x8000, 0x1234, 9};
    for (size_t i = 0; i < 5; ++i) {
        sender.expect(kConfig, block + " EE 90 00");
        EXPECT_EQ(calls[i](), want[i]) << i;
        sender.expect(kConfig, block.substr(0, block.size() - 3) + " 90 00");  // a byte short
        EXPECT_EQ(failureCode(calls[i]), code(0x6281)) << i;
    }
    sender.expect(kConfig, block + " EE 90 00");
    EXPECT_EQ(info->config(), hex(block + " EE"));
    EXPECT_EQ(sender.offered.back(), 258u);
    sender.expect(kConfig, "6D 00");
    EXPECT_EQ(failureCode([&] { info->id(0); }), code(0x6D00));
    EXPECT_FALSE(info->isFips());  // and what R2 lacks, which sends nothing
    EXPECT_EQ(failureCode([&] { info->rnd(8); }), code(0xFACE));
}

}  // namespace
