// The DataStore applet against a scripted card: choice of layout, the PIN,
// label and information drivers on the status record, and both file system
// layouts with their record commands byte for byte. Selection by AID and the
// plain PIN and file stories run end to end.
#include "token/applet_datastore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <tuple>
#include <vector>

#include "token/appfs/fs_datastore.h"
#include "token/appfs/fs_datastore_v2.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
const std::string kOk = "90 00";
const std::string kSelectAid = "00 A4 04 00 08 A0 00 00 04 48 00 03 01 00";
const std::string kStatus = "80 30 30 00 1E";

// One byte, and a 16-bit number, as they go on the wire.
std::string b(unsigned v) {
    char s[4];
    return std::snprintf(s, sizeof s, "%02X ", v & 0xFF), s;
}
std::string w(unsigned v) { return b(v >> 8) + b(v); }

// One record of a list answer: number, label, flags, size.
std::string rec(unsigned id, unsigned label, unsigned flags, unsigned size) {
    return w(id) + w(label) + b(flags) + w(size);
}
std::string listFrom(unsigned next) { return "80 20 60 00 02 " + w(next) + "00"; }
std::string begin(unsigned size) { return "80 20 10 00 02 " + w(size) + "00"; }
std::string finishNew(unsigned flag, unsigned label) {
    return "80 20 50 00 04 01 " + b(flag) + w(label) + "00";
}
std::string finishOver(unsigned r) { return "80 20 50 00 03 00 " + w(r) + "00"; }
std::string numbered(unsigned r) { return w(r) + "90 00"; }
std::string readRec(unsigned r, unsigned at, unsigned n) {
    return "80 20 30 00 06 " + w(r) + w(at) + w(n) + "00";
}
std::string deleteRec(unsigned r) { return "80 20 20 00 02 " + w(r) + "00"; }
// The write to the update buffer of `data` at `at`.
std::string writeBuf(unsigned at, const TBytes& data) {
    const unsigned n = static_cast<unsigned>(data.size());
    return "80 20 40 00 " + b(n + 4) + w(at) + w(n) + toHex(data) + "00";
}

// The status record: version 01 02 03, free memory `free`, PIN columns
// (logged in, wrong, total, min, max): 1 (0,1,10,4,8), 2 (FF,0,10,6,16),
// 3 (0,5,5,8,32); identifier 11..88.
std::string status(unsigned free = 0x1000) {
    return "01 02 03 00 00 " + w(free) + "00 FF 00 01 00 05 0A 0A 05 04 06 08 08 10 20 " +
           "11 22 33 44 55 66 77 88 90 00";
}

// A table image with the slots {slot, parent, name}, little-endian.
TBytes tableOf(std::initializer_list<std::array<unsigned, 3>> slots) {
    TBytes t(2048);
    for (const auto& s : slots)
        for (unsigned i = 0; i < 4; ++i) t[4 * s[0] + i] = (i < 2 ? s[1] : s[2]) >> (i % 2 * 8);
    return t;
}

// A fresh applet, its AID selection already played.
struct Card {
    ScriptedSender sender;
    CAppletDataStore applet{&sender.expect(kSelectAid, kOk)};

    void play(const std::vector<std::string>& steps) { sender.play(steps); }
    // Whole content of `data` in 240-byte blocks through the update buffer.
    void blocks(const TBytes& data) {
        for (std::size_t at = 0; at < data.size(); at += 240) {
            const std::size_t n = std::min<std::size_t>(240, data.size() - at);
            sender.expect(writeBuf(at, TBytes(data.begin() + at, data.begin() + at + n)), kOk);
        }
    }
};

// The table of record `r` read in 240-byte blocks: 9 reads, the last of 128.
void playTableRead(Card& c, unsigned r, const TBytes& table) {
    for (unsigned at = 0; at < 2048; at += 240) {
        const unsigned n = std::min(240u, 2048 - at);
        c.sender.expect(readRec(r, at, n),
                        toHex(TBytes(table.begin() + at, table.begin() + at + n)) + kOk);
    }
}

// The whole table written: begin 0x800, 9 blocks, then `finish`.
void playTableWrite(Card& c, const TBytes& table, const std::string& finish,
                    const std::string& answer) {
    c.sender.expect(begin(0x800), kOk);
    c.blocks(table);
    c.sender.expect(finish, answer);
}

TEST(DataStoreApplet, PinColumnsComeFromTheStatusRecordAndOnlyTheMaximumIsChecked) {
    Card c;
    IAppPin* pin = c.applet.pin();
    const std::tuple<TPath, std::string, std::vector<int>, long> rows[] = {
        {{1}, status(), {4, 8, 9, 10, 0}, 0},
        {{3}, status(), {8, 32, 0, 5, 0}, 0},
        {{4}, status(), {0, 0, 0xFF, 0xFF, 0x10}, code(0x6B00)},
        {{1}, "01 02 03 " + toHex(TBytes(26, 0x00)) + kOk, {0, 0, 0xFF, 0xFF, 0x10}, code(0x6281)},
    };
    for (const auto& [path, answer, info, failure] : rows) {
        c.sender.expect(kStatus, answer);
        EXPECT_EQ(failureCode([&] { pin->select(path); }), failure);
        EXPECT_EQ(pinFields(pin->info()), info);
    }

    c.sender.expect(kStatus, status());
    pin->select({1});
    const TBytes p{'1', '2', '3', '4'};
    const std::string login = "80 10 10 00 06 00 04 31 32 33 34";
    run(c.sender,
        {
            {[&] { pin->login(p); }, {login, "63 C2"}, code(0x6300), 8, 0},
            {[&] { pin->login(p); }, {login, kOk}, 0, 10, 0xFF},
            {[&] { pin->change(p); }, {"80 10 20 00 06 00 04 31 32 33 34 00", kOk}, 0, 10, 0xFF},
            {[&] { pin->logout(); }, {"80 10 30 00 00 00", "67 04"}, code(0x6983), 10, 0},
        },
        pin);
}

TEST(DataStoreApplet, LabelAndInformationFromTheApplet) {
    Card c;
    IAppLabel* label = c.applet.label();
    c.sender.expect("80 30 10 00 00", "20 41 20 42 00 20 20 " + kOk);
    EXPECT_EQ(label->read(), hex("20 41 20 42 00"));
    // No limit here: the length byte keeps its low 8 bits.
    c.sender.expect("80 30 20 00 2C " + toHex(TBytes(300, 0x61)) + "02", "67 0A");
    EXPECT_EQ(failureCode([&] { label->write(TBytes(300, 'a')); }), code(0x6B00));
    // The applet's own folding: 0x6F00 is no room here.
    c.sender.expect("80 30 20 00 01 41 02", "6F 00");
    EXPECT_EQ(failureCode([&] { label->write({'A'}); }), code(0x6400));

    IAppInfo* info = c.applet.info();
    c.play({kStatus, status(0x1234), kStatus, status(0x1234), kStatus, status(0xFFFE)});
    EXPECT_EQ(info->version(1), hex("01 02 03"));
    EXPECT_EQ(info->id(2), hex("11 22 33 44 55 66 77 88"));
    EXPECT_EQ(info->memoryFree(), 0xFFFEu);
    c.sender.expect(kStatus, toHex(TBytes(29, 0x00)) + kOk);
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0x6281));
}

CFileInfo file(WORD size, unsigned char read) { return CFileInfo(1, size, read, 1); }
CFileInfo dir(WORD size = 0, unsigned char read = 0) { return CFileInfo(2, size, read, 1); }

// Labels: root 0x3F3F (record 05); CC01 (12) and CC02 (18) under it; 0001
// under 12 (0xA9, private) and at the root (alias 0xAF); F000 under 12 in a
// second round; CC00 under 18, listed before its parent; codes 00 and 33 are
// no identifiers.
void playLabelCard(Card& c) {
    c.play({listFrom(0),
            rec(0x05, 0x3F3F, 0, 0) + rec(0x12, 0x05C1, 0, 0) + rec(0x13, 0x12A9, 1, 0x20) +
                rec(0x14, 0x1200, 0, 4) + rec(0x15, 0x3333, 0, 0x800) + rec(0x16, 0x05AF, 0, 0x10) +
                rec(0x17, 0x18C0, 0, 0) + rec(0x18, 0x05C2, 0, 0) + kOk,
            listFrom(0x19), rec(0x30, 0x12F0, 0, 5) + kOk, listFrom(0x31), kOk});
}

TEST(DataStoreV1, TreeComesFromParentAndCodeInEachLabelShrinksByRemoveGrowsByCreate) {
    Card c;
    playLabelCard(c);
    IAppFS* fs = c.applet.fs();
    fs->select({});
    EXPECT_EQ(fs->list(2), (TPath{0xCC01, 0xCC02}));
    EXPECT_EQ(fs->list(1), TPath{0x0001});
    fs->select({0xCC01});
    EXPECT_EQ(fs->list(1), (TPath{0x0001, 0xF000}));
    // A parent listed after its child leaves the child out of the tree.
    for (const TPath& p : {TPath{0xCC00}, TPath{0xCC02, 0xCC00}})
        EXPECT_EQ(failureCode([&] { fs->select(p); }), code(0x6A82));
    fs->select({0xCC02});
    c.sender.expect(deleteRec(0x18), kOk);
    fs->remove();
    fs->select({});
    EXPECT_EQ(fs->list(2), TPath{0xCC01});

    // Create makes labels from the code table.
    fs->select({0xCC01});
    const auto create = [&](WORD id, CFileInfo info) { return [=] { fs->create(id, info); }; };
    run(c.sender,
        {{create(0xCC00, file(0x10, 0)),
          {kStatus, status(), begin(0x10), kOk, finishNew(0, 0x12C0), numbered(0x40)},
          0},
         // A directory's size is forced to 0.
         {create(0xCC03, dir(0x10, 1)), {begin(0), kOk, finishNew(1, 0x12C3), numbered(0x41)}, 0},
         {create(0x3F00, dir()), {}, code(0x6900)}});
}

TEST(DataStoreV1, EmptyCardMakesTheRootRecordAtTheFirstCreate) {
    Card c;
    c.play({listFrom(0), kOk});
    IAppFS* fs = c.applet.fs();
    fs->select({0x3F00});
    c.play({begin(0), kOk, finishNew(0, 0x3F3F), numbered(0x0007), begin(0), kOk,
            finishNew(0, 0x07A9), numbered(0x0008)});
    fs->create(0x0001, dir());
    EXPECT_EQ(failureCode([&] { fs->create(0x1000, dir()); }), code(0x6B00));
    fs->select({0x0001});
    c.play({begin(0), kOk, finishNew(0, 0x08C0), numbered(0x0100)});
    fs->create(0xCC00, dir());
    fs->select({0x0001, 0xCC00});
    EXPECT_EQ(failureCode([&] { fs->create(0xCC01, dir()); }), code(0x6400));
}

// Record 0x13, a file of 300 bytes: two blocks, 240 and 60. The record commands
// are shared by both layouts; the table layout writes end to end.
TEST(DataStoreRecords, WholeWritePartWriteReadsFirstRangesAndABusyRecord) {
    Card c;
    c.play({listFrom(0), rec(0x03, 0x3F3F, 0, 0) + rec(0x13, 0x03A9, 1, 300) + kOk, listFrom(0x14),
            kOk});
    auto* fs = static_cast<CFSDataStore*>(c.applet.fs());
    fs->select({0x0001});
    const TBytes whole(300, 0x5A);
    c.sender.expect(begin(300), kOk);
    c.blocks(whole);
    c.sender.expect(finishOver(0x13), kOk);
    fs->write(whole, 0);

    TBytes expected(300, 0x11), ten(10);
    expected[299] = 0x77;
    c.play({readRec(0x13, 0, 240), toHex(TBytes(240, 0x11)) + kOk, readRec(0x13, 240, 60),
            toHex(TBytes(60, 0x11)) + kOk, begin(300), kOk});
    c.blocks(expected);
    c.sender.expect(finishOver(0x13), kOk);
    fs->write({0x77}, 299);
    EXPECT_EQ(failureCode([&] { fs->write({1, 2}, 299); }), code(0x6A84));
    EXPECT_EQ(failureCode([&] { fs->read(ten, 291); }), code(0x6282)) << "nothing is sent";
    c.sender.expect(readRec(0x13, 0, 10), toHex(TBytes(9, 0x00)) + kOk);
    EXPECT_EQ(failureCode([&] { fs->read(ten, 0); }), code(0x6282));

    // A busy record is deleted and made anew; only the current copy learns its number.
    c.play({begin(300), "6F 00", deleteRec(0x13), kOk, begin(300), kOk});
    c.blocks(whole);
    c.sender.expect(finishNew(1, 0x03A9), numbered(0x0050));
    fs->write(whole, 0);
    EXPECT_EQ(fields(fs->info()), (std::vector<int>{1, 300, 1, 1}));
    EXPECT_EQ(fs->selected().record, 0x0050);
    EXPECT_EQ(fs->entries().back().record, 0x13);
}

// Table slots: 3 root, 4 dir 1000, 5 file 2000 in it, 6 a record that is gone
// with its child 7, 8 a child of the file, 9 and 0A parents of each other.
// Record 0B has the node label and no slot.
TEST(DataStoreV2, TreeComesFromTheTableDroppingLostSlotsAndOrphans) {
    Card c;
    c.applet.switchToFileSystem(2);
    c.play({listFrom(0),
            rec(2, 0x3333, 0, 0x800) + rec(3, 0x4444, 0, 0) + rec(4, 0x4444, 0, 0) +
                rec(5, 0x4444, 1, 0x10) + rec(7, 0x4444, 0, 0) + rec(8, 0x4444, 0, 1) +
                rec(9, 0x4444, 0, 0) + rec(0x0A, 0x4444, 0, 0) + rec(0x0B, 0x4444, 0, 0) + kOk,
            listFrom(0x0C), kOk});
    const TBytes table = tableOf({{3, 0x3F00, 0x3F00},
                                  {4, 3, 0x1000},
                                  {5, 4, 0x2000},
                                  {6, 3, 0x6000},
                                  {7, 6, 0x7000},
                                  {8, 5, 0x8000},
                                  {9, 10, 0x0900},
                                  {10, 9, 0x0A00}});
    playTableRead(c, 2, table);
    auto* fs = static_cast<CFSDataStore_v2*>(c.applet.fs());
    fs->select({});
    EXPECT_EQ(fs->list(2), TPath{0x1000});
    EXPECT_EQ(fs->tableImage(), table) << "the root's parent stays 3F00 in the table";
    fs->select({0x1000});
    EXPECT_EQ(fs->list(1), TPath{0x2000});
    fs->select({0x1000, 0x2000});
    EXPECT_EQ(fields(fs->info()), (std::vector<int>{1, 0x10, 1, 1}));
}

// Broken lists and tables, on layout 1 or 2.
TEST(DataStore, BrokenListsAndTablesAreRefused) {
    const std::tuple<int, std::vector<std::string>, long> rows[] = {
        {1, {listFrom(0), "00 01 3F 3F 00 00 " + kOk}, code(0x6281)},
        {1,
         {listFrom(0), rec(0x10, 0x3F3F, 0, 0) + kOk, listFrom(0x11),
          rec(0x05, 0x10C0, 0, 0) + kOk},
         code(0x6281)},
        // The last number ends the list without another round.
        {1, {listFrom(0), rec(0xFFFF, 0x3F3F, 0, 0) + kOk}, 0},
        {2, {listFrom(0), rec(2, 0x3333, 0, 0x7FF) + kOk, listFrom(3), kOk}, code(0x6281)},
        {2,
         {listFrom(0), rec(2, 0x3333, 0, 0x800) + kOk, listFrom(3), kOk, readRec(2, 0, 240),
          toHex(TBytes(239, 0x00)) + kOk},
         code(0x6281)},
        // Nodes with no table: only the root shows.
        {2, {listFrom(0), rec(2, 0x4444, 0, 0) + rec(3, 0x4444, 0, 5) + kOk, listFrom(4), kOk}, 0},
    };
    for (const auto& [layout, exchanges, failure] : rows) {
        Card c;
        c.applet.switchToFileSystem(layout);
        c.play(exchanges);
        IAppFS* fs = c.applet.fs();
        EXPECT_EQ(failureCode([&] { fs->select({}); }), failure) << exchanges[1];
        if (failure == 0) {
            EXPECT_TRUE(fs->list(1).empty() && fs->list(2).empty());
        }
    }
}

TEST(DataStoreV2, EachChangeWritesTheWholeTableRecordFirst) {
    Card c;
    c.applet.switchToFileSystem(2);
    c.play({listFrom(0), kOk});
    auto* fs = static_cast<CFSDataStore_v2*>(c.applet.fs());
    fs->select({});
    EXPECT_EQ(fs->tableNumber(), 0xFFFF);

    // The first create makes the root, then the table record, then the child.
    const TBytes rootOnly = tableOf({{1, 0x3F00, 0x3F00}});
    const TBytes withChild = tableOf({{1, 0x3F00, 0x3F00}, {3, 1, 0x1000}});
    c.play({begin(0), kOk, finishNew(0, 0x4444), numbered(1)});
    playTableWrite(c, rootOnly, finishNew(0, 0x3333), numbered(2));
    c.play({begin(0), kOk, finishNew(0, 0x4444), numbered(3)});
    playTableWrite(c, withChild, finishOver(2), kOk);
    fs->create(0x1000, dir());
    EXPECT_EQ(fs->tableImage(), withChild);
    EXPECT_EQ(fs->list(2), TPath{0x1000});

    // A number past the last slot: no table write.
    c.play({begin(0), kOk, finishNew(0, 0x4444), numbered(0x200)});
    EXPECT_EQ(failureCode([&] { fs->create(0x2000, dir()); }), code(0x6400));
    EXPECT_EQ(fs->tableImage(), withChild);
}

}  // namespace
