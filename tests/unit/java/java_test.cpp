// The Java and Joker applets, the card manager and CryptoPro against a scripted
// card: selection, and the exact bytes of both dialects' drivers.
#include <gtest/gtest.h>

#include <tuple>

#include "token/appfs/fs_java.h"
#include "token/libapdu/ctoken.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kOk = "90 00";

// The applet number, its selection, and the first two bytes of each command.
struct Dialect {
    unsigned short applet;
    std::string aid, select, create, remove, list, read, write, marker, setSize, random, query;
};
const Dialect kDialects[] = {
    {0x2001, "00 A4 04 00 07 A0 00 00 03 12 02 02 00", "00 A4", "80 16", "00 E4", "80 01", "80 18",
     "80 15", "80 1B", "80 1A", "80 17", "00 CA"},
    {0x2204, "00 A4 04 00 08 A0 00 00 04 48 00 04 01 00", "80 03", "80 09", "80 01", "80 0D",
     "80 1C", "80 1B", "80 1D", "80 17", "80 12", "80 02"},
};

std::string fileAnswer(unsigned size, unsigned read = 0, unsigned write = 0x11) {
    return apdu("01 01 02 03 02 %02X %02X ", size >> 8, size & 0xFF) +
           apdu("04 05 %02X %02X 00 00 00 90 00", read, write);
}
const std::string kDirAnswer = "01 01 01 03 02 00 00 04 05 21 00 00 00 00 90 00";

// A select of 6666 5000 and then `ids` below it.
std::string home(const Dialect& d, const std::string& ids = "") {
    return d.select + apdu(" 08 04 %02X 66 66 50 00 ", 4 + hex(ids).size()) + ids + " 00";
}

// An applet of `d` on a scripted card that has accepted its selection.
struct Card {
    explicit Card(const Dialect& d) : d(d) {
        sender.expect(d.aid, kOk);
        applet = CToken::makeApplet(d.applet, &sender);
    }
    std::string marker() const { return d.marker + " 00 00 12 10 10" + anyBytes(16); }
    const Dialect& d;
    ScriptedSender sender;
    std::unique_ptr<IApplet> applet;
};

TEST(JavaApplets, SelectionByAidAndWhatEachApplet) {
    // The manager's and Java's own 0x6707 is "not found"; CryptoPro folds it plainly.
    const std::tuple<unsigned short, std::string, std::string, long> rows[] = {
        {0x2001, kDialects[0].aid, "6A 82", code(0x6A82)},
        {0x2001, kDialects[0].aid, "67 07", code(0x6A82)},
        {0x2204, kDialects[1].aid, "67 07", code(0x6A82)},
        {0x2002, "00 A4 04 00 07 A0 00 00 01 51 00 00 00", "67 07", code(0x6A82)},
        {0x2203, "00 A4 04 00 0A A0 00 00 04 48 01 02 01 02 02 00", "67 07", code(0x6B00)},
        {0x2203, "00 A4 04 00 0A A0 00 00 04 48 01 02 01 02 02 00", "90 00", 0},
    };
    for (const auto& [number, aid, answer, failure] : rows) {
        auto* sender = new ScriptedSender;
        CToken token{std::unique_ptr<ISender>(sender)};
        sender->play({aid, answer, aid, answer});
        EXPECT_EQ(token.checkIfExist(number), failure == 0) << aid << answer;
        EXPECT_EQ(failureCode([&] { token.switchToApplet(number); }), failure) << aid << answer;
        if (number == 0x2203 && failure == 0) {
            EXPECT_EQ(failureCode([&] { token.label()->read(); }), code(0xFACE));
        }
    }
}

TEST(JavaFileSystem, CommandsOfBothDialects) {
    for (const Dialect& d : kDialects) {
        Card card(d);
        IAppFS* fs = card.applet->fs();
        const TBytes in(300, 0x5A);
        TBytes out(300);
        const std::string block = bytes(245, "5A"), tail = bytes(55, "5A");
        run(card.sender,
            {{[&] { fs->select({0x3F00}); }, {d.select + " 00 04 00", kDirAnswer}, 0},
             {[&] { fs->select({}); }, {home(card.d), kDirAnswer}, 0},
             {[&] { fs->create(0x0002, CFileInfo(1, 0x0123, 0x00, 0x11)); },
              {d.create + " 01 00 12 01 01 02 02 02 00 02 03 02 01 23 04 05 00 11 11 11 11", kOk,
               card.marker(), kOk},
              0},
             {[&] { fs->create(0x1000, CFileInfo(2, 9, 0x00, 0x21)); },
              {d.create + " 01 00 12 01 01 01 02 02 10 00 03 02 00 00 04 05 21 21 21 21 21", kOk,
               card.marker(), kOk},
              0},
             // The card numbers directories 1 and files 2.
             {[&] {
                  EXPECT_EQ(fs->list(1), (TPath{2, 0xA00A}));
              },
              {d.list + " 02 00 04 09 02 00 00 CD", "0A 04 00 02 A0 0A 0B 01 00 90 00"},
              0},
             {[&] { fs->select({0x0002}), fs->read(out, 0); },
              {home(card.d, "00 02"), fileAnswer(300), d.read + " 00 00 04 0E 02 00 00 F5",
               block + kOk, d.read + " 00 00 04 0E 02 00 F5 37", tail + kOk},
              0},
             {[&] { fs->write(in, 0); },
              {d.write + " 00 00 FB 0E 02 00 00 10 F5 " + block, kOk,
               d.write + " 00 00 3D 0E 02 00 F5 10 37 " + tail, kOk},
              0},
             {[&] { fs->remove(); },
              {home(card.d), kDirAnswer, d.remove + " 00 00 02 00 02", kOk, card.marker(), kOk},
              0}});
        EXPECT_EQ(out, in);
        EXPECT_EQ(fields(fs->info()), (std::vector<int>{2, 0, 0, 0x21})) << "the parent stays";
    }
}

TEST(JavaFileSystem, ListPagesAndBadAnswers) {
    Card card(kDialects[1]);
    IAppFS* fs = card.applet->fs();
    card.sender.play({home(card.d), kDirAnswer});
    fs->select({});
    const std::string first = "80 0D 02 00 04 09 02 00 00 CD";
    card.sender.play({first, "0A 04 00 01 00 02 0B 01 01 90 00", "80 0D 02 00 04 09 02 00 64 CD",
                      "0A 02 00 03 0B 01 00 90 00"});
    EXPECT_EQ(fs->list(1), (TPath{1, 2, 3}));
    run(card.sender, {{[&] { fs->list(1); }, {first, "0A 02 00 01 90 00"}, code(0x6281)},
                      {[&] { fs->list(1); }, {first, "0B 01 00 90 00"}, code(0x6281)},
                      {[&] { fs->list(3); }, {}, code(0xFACE)}});
    // A card that always has more is asked up to offset 0xFF9A, not beyond.
    for (unsigned offset = 0; offset <= 0xFF9A; offset += 100)
        card.sender.play({apdu("80 0D 01 00 04 09 02 %02X %02X CD", offset >> 8, offset & 0xFF),
                          "0A 00 0B 01 01 90 00"});
    EXPECT_EQ(fs->list(2), TPath());
}

TEST(JavaFileSystem, SelectTagsLimitsRefusalsAndTheMarker) {
    const std::pair<std::string, std::vector<int>> rows[] = {
        {fileAnswer(300, 0x11, 0x21), {1, 300, 0x11, 0x21}},
        {kDirAnswer, {2, 0, 0, 0x21}},
        {kOk, {0, 0, 0xFF, 0xFF}},
        {"03 02 00 10 04 02 07 08 90 00", {0, 16, 7, 8}},             // no type: read as a file
        {"01 01 02 03 01 05 04 01 07 90 00", {1, 5, 0xFF, 0xFF}},     // one access byte for a file
        {"01 01 02 03 02 00 09 04 09 00 90 00", {1, 9, 0xFF, 0xFF}},  // access runs past the end
    };
    Card card(kDialects[0]);
    IAppFS* fs = card.applet->fs();
    for (const auto& [answer, want] : rows) {
        card.sender.play({home(card.d, "00 01"), answer});
        fs->select({0x0001});
        EXPECT_EQ(fields(fs->info()), want) << answer;
    }
    // A refused select changes nothing.
    card.sender.play({home(card.d, "00 02"), "67 07"});
    EXPECT_EQ(failureCode([&] { fs->select({0x0002}); }), code(0x6A82));
    EXPECT_EQ(fields(fs->info()), rows[std::size(rows) - 1].second);
    TPath deep{0x3F00};
    std::string ids;
    for (WORD id = 1; id < 30; ++id) deep.push_back(id), ids += apdu("%02X %02X ", 0, id);
    const std::string create = "80 16 01 00 12 01 01 02 02 02 00 05 03 02 ";
    const std::string empty = create + "00 00 04 05 00 11 11 11 11";
    const auto make = [&](WORD id, WORD size, unsigned char type = 1) {
        return [=] { fs->create(id, CFileInfo(type, size, 0, 0x11)); };
    };
    TBytes two(2);
    run(card.sender,
        {// 30 identifiers may still have a child, 31 may not
         {[&] { fs->select(deep); }, {"00 A4 08 04 3A " + ids + "00", kDirAnswer}, 0},
         {make(5, 0x7FFF), {create + "7F FF 04 05 00 11 11 11 11", kOk, card.marker(), kOk}, 0},
         {[&] { deep.push_back(30), fs->select(deep); },
          {"00 A4 08 04 3C " + ids + "00 1E 00", kDirAnswer},
          0},
         {make(5, 0), {}, code(0x6400)},
         {[&] { fs->select({}); }, {home(card.d), kDirAnswer}, 0},
         {make(5, 0x8000), {}, code(0x6400)},
         {make(5, 0, 3), {}, code(0xFACE)},
         {make(5, 0), {empty, "67 07"}, code(0x6900)},
         // a failing marker is reported, although the file is there
         {make(5, 0), {empty, kOk, card.marker(), "67 36"}, code(0x6900)},
         {[&] { fs->select({5}); }, {home(card.d, "00 05"), fileAnswer(2)}, 0},
         {[&] { fs->read(two, 1); }, {}, code(0x6282)},
         {[&] { fs->read(two, 0); }, {"80 18 00 00 04 0E 02 00 00 02", "AA 90 00"}, code(0x6282)},
         {[&] { fs->write(two, 1); }, {}, code(0x6A84)},
         {[&] { fs->list(1); }, {}, code(0x6283)},
         {[&] { fs->remove(); },
          {home(card.d), kDirAnswer, "00 E4 00 00 02 00 05", "67 07"},
          code(0x6900)}});
}

TEST(JavaInformation, QueriesOfBothDialects) {
    const std::string block = "07 0B 01 02 AB CD 04 02 20 24 05 01 03 90 00";
    for (const Dialect& d : kDialects) {
        Card card(d);
        IAppInfo* info = card.applet->info();
        const std::string ask = d.query + " 01 07 00", version = d.query + " 01 11 00";
        run(card.sender,
            {{[&] { EXPECT_EQ(info->rnd(33), hex(bytes(32, "11") + "22")); },
              {d.random + " 00 00 20", bytes(32, "11") + kOk, d.random + " 00 00 01", "22 90 00"},
              0},
             {[&] { info->rnd(0); }, {}, 0},
             {[&] { info->rnd(2); }, {d.random + " 00 00 02", "11 90 00"}, code(0x6281)},
             {[&] { EXPECT_EQ(info->id(1), hex("AB CD")); }, {ask, block}, 0},
             {[&] { EXPECT_EQ(info->value(1), hex("20 24")); }, {ask, block}, 0},
             {[&] { EXPECT_EQ(info->color(), 3u); }, {ask, block}, 0},
             {[&] { EXPECT_EQ(info->color(), 0xFFFFFFFFu); }, {ask, "07 03 01 01 AA 90 00"}, 0},
             {[&] { info->color(); }, {ask, "6A 82"}, code(0x6A82)},
             {[&] { info->id(1); }, {ask, "07 03 05 01 03 90 00"}, code(0x6281)},
             {[&] { EXPECT_EQ(info->value(3), TBytes()); }, {}, 0},
             {[&] { EXPECT_EQ(info->version(0), hex("01 05")); },
              {version, "11 02 01 05 90 00"},
              0},
             {[&] { info->version(0); }, {version, "07 00 90 00"}, code(0x6281)},
             {[&] { EXPECT_EQ(info->memoryFree(), 0x1234u); },
              {d.query + " 01 14 00", "14 02 12 34 90 00"},
              0}});
    }
}

TEST(JavaInformation, FipsFromFile000AReadAtSelectionOnce) {
    const std::tuple<std::string, std::string, bool> rows[] = {
        {fileAnswer(2), "00 00 90 00", false},
        {fileAnswer(2), "00 01 90 00", true},
        {"67 07", "", false},
        {fileAnswer(1), "", false},  // too short to tell
    };
    int k = 0;
    for (const auto& [file, content, fips] : rows) {
        const Dialect& d = kDialects[k++ % 2];
        auto* sender = new ScriptedSender;
        CToken token{std::unique_ptr<ISender>(sender)};
        sender->play({d.aid, kOk, home(d, "00 0A"), file});
        if (!content.empty()) sender->play({d.read + " 00 00 04 0E 02 00 00 02", content});
        token.selectApplet(d.applet);
        EXPECT_TRUE(sender->allConsumed()) << "read at selection";
        EXPECT_EQ(token.info()->isFips(), fips) << file << content << " cached";
    }
}

TEST(JavaInformation, Manager) {
    auto* sender = new ScriptedSender;
    CToken token{std::unique_ptr<ISender>(sender)};
    const std::string lifeCycle = "80 CA 9F 7F 00", model = "00 CA 00 01 00";
    sender->play({"00 A4 04 00 07 A0 00 00 01 51 00 00 00", kOk, lifeCycle,
                  "9F 7F 2A 01 02 03 04 05 06 07 08 AA BB 90 00", lifeCycle,
                  "9F 7F 2A 01 02 03 04 05 06 07 90 00", "80 CA 00 46 00", "46 03 01 02 03 90 00",
                  model, "01 04 4A 61 76 61 90 00", model, "02 01 00 90 00"});
    token.selectApplet(0x2002);
    IAppInfo* info = token.info();
    EXPECT_EQ(info->version(0), hex("BB AA"));
    EXPECT_EQ(failureCode([&] { info->version(0); }), code(0x6281));
    EXPECT_EQ(info->id(0), hex("01 02 03"));
    EXPECT_EQ(info->value(2), hex("4A 61 76 61"));
    EXPECT_EQ(failureCode([&] { info->value(2); }), code(0x6281));
    EXPECT_EQ(info->value(3), TBytes());
    EXPECT_EQ(failureCode([&] { token.fs()->select({}); }), code(0xFACE));
}

TEST(JavaLabel, WriteResizesWithoutPaddingAndMarks) {
    for (const Dialect& d : kDialects) {
        Card card(d);
        IAppLabel* label = card.applet->label();
        run(card.sender,
            {{[&] { label->write(TBytes(33, 'a')); }, {}, code(0x6B00)},
             {[&] { label->write(TBytes(32, 'a')); },
              {home(card.d, "00 02"), fileAnswer(5), d.setSize + " 00 00 04 03 02 00 20 00", kOk,
               home(card.d, "00 02"), fileAnswer(32),
               d.write + " 00 00 26 0E 02 00 00 10 20 " + bytes(32, "61"), kOk, card.marker(), kOk},
              0},
             {[&] { EXPECT_EQ(label->read(), hex("61 62 63")); },
              {home(card.d, "00 02"), fileAnswer(3), d.read + " 00 00 04 0E 02 00 00 03",
               "61 62 63 90 00"},
              0}});
        EXPECT_EQ(label->encoding(), 3u);
    }
}

}  // namespace
