// The GOST applet and its drivers against a scripted card: the tree built
// from crafted object lists and the exact bytes of every command.
#include "token/applet_gost.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "token/appfs/fs_gost.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kOk = "90 00", kSelectAid = "00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00";
const std::string kStatus = "80 15 10 00 01 01", kListFile = "80 12 10 00 01 01";
const std::string kNewFile = "80 12 20 00 01 04 00", kLogout = "80 15 20 00 01 01";
constexpr unsigned kValue = 0x11, kSize = 0x161, kPath = 0x8000F11E, kDataObject = 0x8000BADA;

std::string word(unsigned w) { return apdu("%02X %02X ", w >> 8, w & 0xFF); }
// An attribute id in a command: lowest byte first.
std::string idOut(unsigned id) {
    return apdu("%02X %02X ", id & 0xFF, id >> 8 & 0xFF) +
           apdu("%02X %02X ", id >> 16 & 0xFF, id >> 24);
}
std::string listAtr(unsigned h) { return "80 13 40 00 02 " + word(h) + "00"; }
std::string getAtr(unsigned h) { return "80 13 20 00 06 " + word(h) + idOut(kValue) + "00"; }
std::string setAtr(unsigned h, unsigned id, const std::string& value) {  // one-byte Lc only
    const std::size_t n = hex(value).size();
    return apdu("80 13 30 00 %02X ", n + 8) + word(h) + idOut(id) + word(n) + value + " 00";
}
// An entry of an attribute list: the id big-endian, the length, the value.
std::string entry(unsigned id, const std::string& value) {
    return word(id >> 16) + word(id & 0xFFFF) + word(hex(value).size()) + value + " ";
}
// The status record and 90 00: version 01 02 03 04, identifier 11 .. 88.
std::string status(int in, int total, int wrongUser, int wrongAdmin, unsigned free = 0) {
    return apdu("%02X 01 02 03 04 00 00 00 00 ", in) + word(free) +
           apdu("%02X %02X ", total, wrongUser) +
           apdu("%02X 00 00 11 22 33 44 55 66 77 88 90 00", wrongAdmin);
}
// "3F00 1000 t1 s0203 r0 o0101 d0000", or "3F00 1000 dir" for a plain
// directory; every node is written under the user PIN.
std::string describe(const CFSGost::CFileInfoEx& e) {
    std::string out;
    for (WORD id : e.path) out += apdu("%04X ", id);
    EXPECT_EQ(e.write, 2) << out;
    if (e.type == 2 && !e.size && !e.read && !e.object && !e.dataObject) return out + "dir";
    return out + apdu("t%u s%04X ", e.type, e.size) + apdu("r%u o%04X ", e.read, e.object) +
           apdu("d%04X", e.dataObject);
}

// An applet made on the scripted card, which has accepted its selection.
struct Gost : ::testing::Test {
    Gost() {
        sender.expect(kSelectAid, kOk);
        applet.reset(new CAppletGost(&sender));
        fs = static_cast<CFSGost*>(applet->fs());
    }
    void play(const std::vector<std::string>& exchange) { sender.play(exchange); }
    std::vector<std::string> table(const CFSGost& driver) {
        std::vector<std::string> out;
        for (const auto& e : driver.table()) out.push_back(describe(e));
        return out;
    }
    // A public file 3F00 0001 (object 0x0101, 3 bytes) and a private one
    // 3F00 0002 (object 0x0102, content in 0x0103, 2 bytes).
    void twoFiles() {
        play({kListFile, "00 00 03 01 01 04 01 02 04 01 03 04 90 00", listAtr(0x0101),
              entry(kPath, "00 3F 01 00") + entry(kSize, "00 03") + kOk, listAtr(0x0102),
              entry(kPath, "00 3F 02 00") + entry(kSize, "00 02") + entry(kDataObject, "03 01") +
                  kOk,
              listAtr(0x0103), entry(2, "01") + entry(kValue, "AA BB") + kOk});
        fs->select({});
    }
    ScriptedSender sender;
    std::unique_ptr<CAppletGost> applet;
    CFSGost* fs;
};

TEST_F(Gost, TableFromTheObjectList) {
    // The object list, the attributes of each object of type 04 in order, the table.
    const std::tuple<std::string, std::vector<std::string>, std::vector<std::string>> rows[] = {
        {"FF 00 08 01 01 04 01 02 01 01 03 04 01 04 04 01 05 04 01 06 04 01 07 04 01 08 04",
         {entry(kPath, "00 3F 00 10 00 20 01 00") + entry(kSize, "01 02 03"),
          // odd length: the last byte goes; private, its content elsewhere
          entry(kPath, "00 3F 01 00 77") + entry(kDataObject, "04 01") + entry(kSize, "00 10"),
          entry(2, "01") + entry(kValue, "00 00"),   // a private content: no path
          entry(kPath, "") + entry(kSize, "00 05"),  // empty path
          entry(kPath, "00") + entry(kValue, ""),    // nothing left of the path
          entry(kPath, "00 3F 00 10 00 30 02 00"),   // its grandparent is there already
          entry(kPath, "00 3F 0E E0 05 00") + entry(kSize, "")},  // an empty value is skipped
         {"3F00 1000 2000 0001 t1 s0203 r0 o0101 d0000", "3F00 0001 t1 s0010 r2 o0103 d0104",
          "3F00 1000 3000 0002 t1 s0000 r0 o0107 d0000", "3F00 E00E 0005 t1 s0000 r0 o0108 d0000",
          "3F00 dir", "3F00 E00E dir", "3F00 1000 2000 dir", "3F00 1000 dir",
          "3F00 1000 3000 dir"}},
    };
    for (const auto& [list, attributes, want] : rows) {
        CFSGost fresh(applet.get());
        sender.expect(kListFile, list + kOk);
        WORD handle = 0x0101;
        for (const std::string& a : attributes) {
            if (handle == 0x0102) ++handle;  // the object of type 01 is not asked
            sender.expect(listAtr(handle++), a + kOk);
        }
        fresh.select({0x3F00});
        EXPECT_EQ(table(fresh), want);
    }
}

TEST_F(Gost, MalformedListsAreBadAnswersAndTheTableIsReadAgain) {
    // Lists cut short or too long; attribute lists cut in the id, the length, the value.
    const std::string one = "00 00 01 01 01 04";
    const std::string rows[] = {
        "", "",  "00 00",    "",  "00 00 02 01 01 04", "",  one + " FF",
        "", one, "80 00 F1", one, "80 00 F1 1E 00",    one, "80 00 F1 1E 00 04 00 3F 01"};
    for (std::size_t k = 0; k < std::size(rows); k += 2) {
        play({kListFile, rows[k] + kOk});
        if (!rows[k + 1].empty()) play({listAtr(0x0101), rows[k + 1] + kOk});
        EXPECT_EQ(failureCode([&] { fs->select({}); }), code(0x6281)) << rows[k] << rows[k + 1];
    }
}

TEST_F(Gost, CreateWritesTheAttributesInOrder) {
    twoFiles();
    // A private file, with just the free memory it needs.
    play({kStatus, status(0, 0, 0, 0, 0x2003), kNewFile, "02 01 90 00", kNewFile, "03 02 90 00",
          setAtr(0x0201, kDataObject, "02 03"), kOk, setAtr(0x0302, 2, "01"), kOk,
          setAtr(0x0201, kPath, "00 3F 10 00"), kOk, setAtr(0x0302, kValue, "00 00 00"), kOk,
          setAtr(0x0201, kSize, "00 03"), kOk});
    fs->create(0x0010, CFileInfo(1, 3, 2, 2));
    EXPECT_EQ(table(*fs).back(), "3F00 0010 t1 s0003 r2 o0201 d0302");
    // No memory test for an empty file, whose value goes as one zero byte.
    play({kNewFile, "02 04 90 00", setAtr(0x0204, kPath, "00 3F 12 00"), kOk,
          setAtr(0x0204, kValue, "00"), kOk, setAtr(0x0204, kSize, "00 00"), kOk});
    fs->create(0x0012, CFileInfo(1, 0, 0, 2));
    EXPECT_EQ(table(*fs).back(), "3F00 0012 t1 s0000 r0 o0204 d0000");

    // 0x4000 passes the size limit and meets the memory test, which keeps a reserve.
    sender.expect(kStatus, status(0, 0, 0, 0, 0x5FFF));
    EXPECT_EQ(failureCode([&] { fs->create(0x0013, {1, 0x4000, 0, 2}); }), code(0x6400));
}

TEST_F(Gost, ReadWriteMoveTheWholeValueAndHiddenContentIsRefused) {
    twoFiles();
    const std::string header = "01 02 03 04 05 06 07 08 ";
    TBytes two(2);
    const auto read = [&](WORD file, WORD at) {
        return [=, &two] { fs->select({file}), fs->read(two, at); };
    };
    const auto write = [&](WORD file, TBytes data, WORD at) {
        return [=] { fs->select({file}), fs->write(data, at); };
    };
    run(sender, {
                    {read(1, 1), {getAtr(0x0101), header + "AA BB CC 90 00"}, 0},
                    {read(2, 0), {getAtr(0x0103), "6A 82"}, code(0x6900)},
                    {read(1, 0), {getAtr(0x0101), "6A 82"}, code(0x6A82)},
                    {read(1, 1), {getAtr(0x0101), header + "AA BB 90 00"}, code(0x6282)},
                    {read(1, 0), {getAtr(0x0101), "01 02 03 90 00"}, code(0x6281)},
                    {write(1, two, 2), {}, code(0x6A84)},
                    {write(2, {0x5A}, 1),
                     {getAtr(0x0103), header + "AA BB 90 00", setAtr(0x0103, kValue, "AA 5A"), kOk},
                     0},
                    {write(1, two, 0), {getAtr(0x0101), header + "AA 90 00"}, code(0x6A84)},
                });
    EXPECT_EQ(two, hex("BB CC"));
}

TEST_F(Gost, RemoveDeletesBothObjectsAndKeepsTheCurrentCopy) {
    twoFiles();
    const char* remove = "80 12 30 00 02 01 %02X 00";
    play({apdu(remove, 0x03), kOk, apdu(remove, 0x02), kOk});
    fs->select({0x0002});
    fs->remove();
    EXPECT_EQ(fs->info().size, 2) << "the removed file is still described";
    EXPECT_EQ(failureCode([&] { fs->select({0x0002}); }), code(0x6A82));
}

TEST_F(Gost, PinCountersLoginChangeAndLogout) {
    IAppPin* pin = applet->pin();
    // The user PIN is number 2, the card's reference 1; the administrator's 1 and 0.
    play({kStatus, status(0, 10, 3, 7), kStatus, status(1, 10, 3, 7)});
    pin->select(pin->pathAdmin());
    EXPECT_EQ(pinFields(pin->info()), (std::vector<int>{6, 32, 3, 10, 0}));
    pin->select(pin->pathUser());
    EXPECT_EQ(pinFields(pin->info()), (std::vector<int>{6, 32, 7, 10, 0xFF}));

    const TBytes p = {'1', '2', '3', '4', '5', '6'}, next = {'a', 'b', 'c'};
    const std::string login = "80 10 20 00 08 01 06 31 32 33 34 35 36";
    const std::string change = "80 10 10 00 0C 01 06 03 31 32 33 34 35 36 61 62 63";
    run(sender,
        {
            // A try counts before the word is read; a failed login leaves no key.
            {[&] { pin->login(p); }, {login, "6D A0"}, code(0x6300), 6, 0xFF},
            {[&] { pin->login(p); }, {login, kOk}, 0, 10, 0xFF},
            {[&] { pin->login(p); }, {login, "6D A4"}, code(0x6983), 9, 0xFF},
            {[&] { pin->change(next); }, {}, code(0x6900), 9, 0xFF},
            {[&] { pin->login(p); }, {login, kOk}, 0, 10, 0xFF},
            // The change quotes the PIN of the login.
            {[&] { pin->change(next); }, {change, kOk}, 0, 10, 0xFF},
            {[&] { pin->logout(); }, {kLogout, "6D 01"}, 0, 10, 0},
            {[&] { pin->change(next); }, {}, code(0x6900), 10, 0},
            {[&] { pin->logout(); }, {kLogout, "6D 02"}, code(0xFFFF), 10, 0},
        },
        pin);
}

TEST_F(Gost, InformationAndLabel) {
    IAppInfo* info = applet->info();
    IAppLabel* label = applet->label();
    play({kStatus, status(0, 0, 0, 0), kStatus, status(0, 0, 0, 0), kStatus,
          status(0, 0, 0, 0, 0x1234)});
    EXPECT_EQ(info->version(7), hex("01 02 03 04"));
    EXPECT_EQ(info->id(1), hex("11 22 33 44 55 66 77 88"));
    EXPECT_EQ(info->memoryFree(), 0x1234u) << "each call reads the record anew";
    play({"80 14 40 00 02 01 03 00", bytes(0x103, "A5") + kOk});
    EXPECT_EQ(info->rnd(0x103), TBytes(0x103, 0xA5));
    play({"80 17 10 00 01 01", "05 41 20 42 20 20 90 00", "80 17 10 00 01 01", kOk});
    EXPECT_EQ(label->read(), hex("41 20 42"));
    EXPECT_TRUE(label->read().empty());
    const std::string shortRecord = bytes(23, "00") + kOk;
    run(sender,
        {
            {[&] { info->id(1); }, {kStatus, shortRecord}, code(0x6281)},
            {[&] { info->rnd(3); }, {"80 14 40 00 02 00 03 00", "A5 A5 90 00"}, code(0x6281)},
            {[&] { label->write(hex("41 42")); }, {"80 17 20 00 02 41 42 02", kOk}, 0},
            // No length check: the length byte wraps and the card answers.
            {[&] { label->write(TBytes(0x101, 'A')); },
             {"80 17 20 00 01 " + bytes(0x101, "41") + "02", "6D 13"},
             code(0x6B00)},
            // The applet's check: more than 15 bytes with the status word.
            {[&] { applet->init(); }, {kStatus, bytes(14, "00") + kOk}, 0},
            {[&] { applet->init(); }, {kStatus, bytes(13, "00") + kOk}, code(0x6400)},
        });
}

}  // namespace
