// The chunk loops of the file-system base, and the Pro file system, label and
// information drivers against a scripted card.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <string>
#include <vector>

#include "token/appfs/fs_common.h"
#include "token/appinfo/info_pro.h"
#include "token/applabel/label_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using Blocks = std::vector<std::pair<std::size_t, WORD>>;  // size, offset

// Records the blocks of the chunk loops. read_bit fills each byte with the low
// byte of its file offset, so a misplaced copy shows in the data.
struct BlockRecorder : CFSCommon {
    explicit BlockRecorder(WORD block) : CFSCommon(nullptr), block(block) {}
    void read_bit(TBytes& data, WORD offset) override {
        blocks.push_back({data.size(), offset});
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = (offset + i) & 0xFF;
        data.resize(data.size() + 8, 0xCC);  // more than asked: the loop must cut it
    }
    void write_bit(const TBytes& data, WORD offset) override {
        if (blocks.size() == failAt) APDU_RAISE(0x6581);
        blocks.push_back({data.size(), offset});
        written.insert(written.end(), data.begin(), data.end());
    }
    WORD bit_size() override { return block; }
    WORD block;
    Blocks blocks;
    TBytes written;
    std::size_t failAt = 99;
};

TEST(ChunkLoop, ReadAndWriteCutTheSameBlocksRefuseWrapAndStopAtAFailure) {
    const std::tuple<WORD, std::size_t, WORD, Blocks> rows[] = {
        // block, length, offset
        {255, 600, 0, {{255, 0}, {255, 255}, {90, 510}}},
        {255, 0, 0x1234, {}},
        {255, 300, 100, {{255, 100}, {45, 355}}},
        {255, 256, 0xFF00, {{255, 0xFF00}, {1, 0xFFFF}}},
        {0, 10, 0, {}}};
    for (const auto& [block, length, offset, blocks] : rows) {
        SCOPED_TRACE(std::to_string(length) + " by " + std::to_string(block));
        BlockRecorder reader(block), writer(block);
        TBytes data(length, 0xEE), source(length);
        for (std::size_t i = 0; i < length; ++i) source[i] = i * 7;
        reader.read(data, offset);
        writer.write(source, offset);
        EXPECT_EQ(reader.blocks, blocks);
        EXPECT_EQ(writer.blocks, blocks);
        ASSERT_EQ(data.size(), length);
        if (blocks.empty()) continue;
        for (std::size_t i = 0; i < length; ++i) ASSERT_EQ(data[i], (offset + i) & 0xFF);
        EXPECT_EQ(writer.written, source);
    }
    BlockRecorder fs(255);
    TBytes data(0x20);
    EXPECT_EQ(failureCode([&] { fs.read(data, 0xFFF0); }), code(0x6282));
    EXPECT_EQ(failureCode([&] { fs.write(data, 0xFFF0); }), code(0x6A84));
    fs.failAt = 1;
    EXPECT_EQ(failureCode([&] { fs.write(TBytes(600), 0); }), code(0x6581));
    EXPECT_EQ(fs.blocks, (Blocks{{255, 0}}));
    for (WORD id : {0x0000, 0xFFFF, 0x3FFF, 0x3F00})
        EXPECT_EQ(failureCode([&] { CFSCommon::valid_name(id); }), code(0x6900)) << id;
    for (WORD id : {0x0001, 0x3F01, 0x3EFF, 0xFFFE})
        EXPECT_EQ(failureCode([&] { CFSCommon::valid_name(id); }), 0) << id;
}

// Wraps inner tags in a 0x6F container.
std::string fcp(const std::string& inner) {
    char head[8];
    std::snprintf(head, sizeof head, "6F %02X ", static_cast<unsigned>(hex(inner).size()));
    return head + inner;
}
std::string ok(const std::string& data) { return data + " 90 00"; }
std::string entries(std::initializer_list<unsigned> ids) {
    std::string out;
    char b[24];
    for (unsigned id : ids) out += (std::snprintf(b, sizeof b, "6F 04 86 02 %04X ", id), b);
    return out;
}

// Both size tags, so that it serves CFSPro (0x81) and CFSPro4 (0x80).
const std::string kFile16 = ok(fcp("82 01 01 81 02 00 10 80 02 00 10 86 02 00 11"));

struct ProFs : ProApplet {
    void selected(TPath path, const std::string& command, const std::string& answer) {
        sender.expect(command, answer);
        fs->select(path);
    }
    // Each change rewrites the 16-byte marker file.
    void marker(const char* writeAnswer) {
        sender.expect(kMarkerSelect, kFile16).expect("00 D6 00 00 10" + anyBytes(16), writeAnswer);
    }
};

TEST_F(ProFs, ControlDataWithMissingOrShortTagsKeepsDefaults) {
    // The answer, and type, size, read and write from it; Pro4 reads the size from 0x80.
    const std::tuple<std::string, std::vector<int>, int> rows[] = {
        {fcp("82 01 01 81 02 01 2C 80 02 00 07 86 02 11 22"), {1, 300, 0x11, 0x22}, 7},
        {fcp("82 01 01 81 02 00 05 80 01 05 86 01 11"), {1, 5, 0x11, 0xFF}, 5},
        {fcp("82 01 38 81 02 01 00 80 02 01 00 86 01 33"), {2, 0, 0, 0x33}, 0},
        {fcp("81 02 00 10 86 02 11 22"), {0, 0, 0x11, 0x22}, 0},  // no descriptor
        {fcp("82 01 01 81 00 80 00 86 00"), {1, 0, 0xFF, 0xFF}, 0},
        {"6F 06 82 01 01 81 02 00", {1, 0, 0xFF, 0xFF}, 0}};  // size cut short
    // Other containers, none, a container or a child past its end, a cut length,
    // an invalid tag first: all defaults.
    const char* broken[] = {"62 07 82 01 01 81 02 00 10", "",
                            "6F 04 82 00 81 02 00 10",    "6F 20 82 01 01 81 02 00 10",
                            "6F 03 82 05 01 81 02 00 10", "6F FF 00",
                            "6F 06 00 01 01 82 01 01"};
    for (bool pro4 : {false, true}) {
        if (pro4) fs = applet.install<CFSPro4>(applet.fs_);
        for (auto [answer, want, pro4Size] : rows) {
            selected({0x3F00, 0x1234}, "00 A4 08 00 02 12 34 00", ok(answer));
            if (pro4) want[1] = pro4Size;
            EXPECT_EQ(fields(fs->info()), want) << answer << (pro4 ? " on Pro4" : "");
        }
        for (const char* answer : broken) {
            selected({0x3F00, 0x1234}, "00 A4 08 00 02 12 34 00", ok(answer));
            EXPECT_EQ(fields(fs->info()), std::vector<int>({0, 0, 0xFF, 0xFF})) << answer;
        }
    }
}

// The templates, the marker and 6A80 as "exists" on each model are the component
// tests'; here the refusals before sending and a marker too small to stamp.
TEST_F(ProFs, CreateRefusesTheMasterFileAndUnknownTypesAndSkipsASmallMarker) {
    EXPECT_EQ(failureCode([&] { fs->create(0x3F00, CFileInfo(1, 1, 0, 0)); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { fs->create(1, CFileInfo(3, 1, 0, 0)); }), code(0xFACE));
    info->fips = true;  // the marker stays under 6666 all the same, and may be missing
    sender.expect("00 E0 00 00 1D" + anyBytes(0x1D), "90 00");
    sender.expect(kMarkerSelect, ok(fcp("82 01 01 81 02 00 08")));  // too small: no write
    EXPECT_EQ(failureCode([&] { fs->create(1, CFileInfo(1, 1, 0, 0)); }), 0);
    EXPECT_EQ(info->asked, 0);
}

TEST_F(ProFs, RemoveDeletesFromTheParentAndAFailedSelectKeepsThePreviousNode) {
    selected({0x3F00}, "00 A4 00 00 00", kDirFcp);
    EXPECT_EQ(failureCode([&] { fs->remove(); }), code(0x6900));  // the master file
    selected({0x1000, 0x0005}, "00 A4 08 00 06 66 66 10 00 00 05 00", kFile16);
    sender.expect("00 A4 08 00 02 00 06 00", "6A 82");
    EXPECT_EQ(failureCode([&] { fs->select({0x3F00, 0x0006}); }), code(0x6A82));
    sender.expect("00 A4 08 00 04 66 66 10 00 00", kDirFcp);  // remove still acts on 0005
    sender.expect("00 E4 00 00 02 00 05", "90 00");
    marker("69 82");  // a failed marker write changes nothing
    fs->remove();
    EXPECT_EQ(fields(fs->info()), std::vector<int>({1, 16, 0x00, 0x11}));
    EXPECT_EQ(failureCode([&] { fs->select(TPath(128, 0x0101)); }), code(0x6B00));
}

// Paging and the two kinds against a card are the component tests'.
TEST_F(ProFs, ListAsksFromTheCountHeldAndKeepsWhatCameBeforeABrokenAnswer) {
    selected({}, kHome, kFile16);
    EXPECT_EQ(failureCode([&] { fs->list(1); }), code(0x6283));
    selected({}, kHome, kDirFcp);
    sender.expect("80 16 01 00 00", ok(entries({1})));
    sender.expect("80 16 01 01 00", "6A 82");
    EXPECT_EQ(failureCode([&] { fs->list(1); }), code(0x6A82));
    const std::pair<std::string, TPath> rows[] = {
        // broken answers keep what came before
        {entries({1, 2}) + "6F 09 86 02 00 03", {1, 2}},  // entry past the answer
        {entries({1}) + "6F 02 86 02 00 03", {1}},        // id past its entry
        {"6F 02 86 00" + entries({2}), {}},               // empty id
        {entries({1}) + "00 00" + entries({2}), {1}},
        {"6F", {}}};
    for (const auto& [answer, kept] : rows) {
        sender.expect("80 16 01 00 00", ok(answer));
        if (!kept.empty()) sender.expect("80 16 01" + anyBytes(2), "90 00");
        EXPECT_EQ(fs->list(1), kept) << answer;
    }
}

// The 255-byte blocks themselves are ChunkLoop's; here the bounds of one block.
TEST_F(ProFs, ReadAndUpdateStayWithinTheFileSizeAndRefuseShortAnswers) {
    selected({0x0001}, kMarkerSelect, ok(fcp("82 01 01 81 02 00 0A")));
    TBytes four(4);
    sender.expect("00 B0 00 02 04", "01 02 03 90 00");
    EXPECT_EQ(failureCode([&] { fs->read(four, 2); }), code(0x6282));
    const std::tuple<WORD, std::size_t, bool> ranges[] = {
        // offset, length, inside
        {0, 10, true}, {10, 0, true},  {9, 1, true},      {11, 0, false},
        {5, 6, false}, {10, 1, false}, {0xFFFF, 1, false}};
    for (const auto& [offset, length, inside] : ranges) {
        const std::string head = apdu("%04X %02X ", offset, length);
        TBytes data(length, 0x5A);
        if (inside) sender.expect("00 B0 " + head, ok(toHex(data)));
        EXPECT_EQ(failureCode([&] { fs->read_bit(data, offset); }), inside ? 0 : code(0x6282))
            << head;
        if (inside) sender.expect("00 D6 " + head + toHex(data), "90 00");
        EXPECT_EQ(failureCode([&] { fs->write_bit(data, offset); }), inside ? 0 : code(0x6A84))
            << head;
    }
}

const std::string kUtf8File = "00 A4 08 00 06 66 66 10 00 00 05 00";
const std::string kLegacyFile = "00 A4 08 00 06 66 66 10 00 00 02 00";

TBytes text(const std::string& s, std::size_t size = 0) {
    TBytes out(s.begin(), s.end());
    if (out.size() < size) out.resize(size, 0);
    return out;
}

struct ProLabel : ProApplet {
    CLabelPro* label = applet.install<CLabelPro>(applet.label_);  // after fs: it takes an adapter
};

// Reads the file of the token's form, falling back to the legacy one; writes
// both forms padded (the legacy one cut to 31 bytes), then stamps the token.
TEST_F(ProLabel, ReadsAndWritesTheFilesOfTheTokensForm) {
    const TBytes utf8 = text("\xD0\x9A\xD0\xBB\xD1\x8E\xD1\x87 1", 32);
    const std::string full = "0123456789abcdefghijklmnopqrstuv";
    // FIPS, the form's file, its refusal (none: it is read, else the legacy one), the text.
    const std::tuple<bool, std::string, std::string, TBytes> reads[] = {
        {false, kUtf8File, "", utf8},
        {false, kUtf8File, "69 82", text("Token A", 32)},
        {true, kFipsLabel, "", utf8}};
    for (const auto& [fips, first, refusal, stored] : reads) {
        info->fips = fips;
        if (!refusal.empty()) sender.expect(first, refusal);
        sender.expect(refusal.empty() ? first : kLegacyFile, fileFcp(32));
        sender.expect("00 B0 00 00 20", toHex(stored) + "90 00");
        EXPECT_EQ(label->read(), stored) << first << " " << refusal;
        // The same token written: the UTF-8 file, then the legacy one (none on FIPS).
        sender.expect(fips ? kFipsLabel : kUtf8File, fileFcp(32));
        sender.expect("00 D6 00 00 20 " + toHex(text(full)), "90 00");
        if (!fips) sender.expect(kLegacyFile, fileFcp(32));
        if (!fips) sender.expect("00 D6 00 00 20 " + toHex(text(full.substr(0, 31), 32)), "90 00");
        sender.expect(kMarkerSelect, fileFcp(16)).expect("00 D6 00 00 10" + anyBytes(16), "90 00");
        label->write(text(full));
    }
    info->fips = false;
    sender.expect(kUtf8File, "6A 82").expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->read(); }), code(0x6A82));
    // A failed write stops where it is, without a stamp.
    sender.expect(kUtf8File, fileFcp(32)).expect("00 D6 00 00 20 " + toHex(text("A", 32)), "90 00");
    sender.expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->write(text("A")); }), code(0x6A82));
    info->asked = 0;  // over 32 bytes: refused before even the FIPS question
    EXPECT_EQ(failureCode([&] { label->write(text(std::string(33, 'x'))); }), code(0x6B00));
    EXPECT_EQ(info->asked, 0);
}

constexpr unsigned kControl = 0x9C41264C;

struct ProInfo : ProApplet {
    CInfoPro* pro = applet.install<CInfoPro>(applet.info_);
};

// Memory and colour against a card are the component tests'; here the byte
// order of the identifiers, the version, and random data in pieces of 240.
TEST_F(ProInfo, IdentifierVersionAndRandom) {
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77 88");
    EXPECT_EQ(pro->id(1), hex("88 77 66 55")) << "from the reader";
    sender.expect("00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 90 00");
    EXPECT_EQ(pro->id(2), hex("0A 0B 0C 0D 0E 0F"));
    sender.expect("00 CA 01 82 00", "04 02 07 90 00");
    EXPECT_EQ(pro->version(9), hex("04 02"));
    sender.expect("00 84 00 00 F0", toHex(TBytes(240, 0xAB)) + "90 00");
    sender.expect("00 84 00 00 01", "CD 90 00");
    EXPECT_EQ(pro->rnd(241), cat({TBytes(240, 0xAB), {0xCD}}));
}

TEST_F(ProInfo, AnswersTooShortGiveBadAnswerWithoutReadingPast) {
    sender.expect(kFipsLabel, "6A 82");
    EXPECT_FALSE(pro->isFips());
    // Memory selects the home first; the command, an answer too short, the call.
    const std::tuple<bool, const char*, const char*, std::function<void()>> rows[] = {
        {false, "00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 90 00",
         [&] { pro->id(2); }},
        {false, "00 CA 01 82 00", "01 90 00", [&] { pro->version(0); }},
        {true, "00 CA 01 8A 00", "01 00 00 90 00", [&] { pro->memoryFree(); }},
        {true, "00 CA 01 89 00", "00 00 01 90 00", [&] { pro->memoryTotal(); }},
        {false, "00 84 00 00 08", "01 02 03 90 00", [&] { pro->rnd(8); }}};
    for (const auto& [home, command, answer, call] : rows) {
        if (home) sender.expect(kHome, kDirFcp);
        sender.expect(command, answer);
        EXPECT_EQ(failureCode(call), code(0x6281)) << command << " / " << answer;
    }
    // The configuration block through the reader: its length, then the block.
    const std::string askLength = "01 00 00 00 C0 AA 00 00 00 00 03 00";
    sender.expectControl(kControl, askLength, "01 02 00");
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 01",
                         toHex(TBytes(0x0102, 0x3C)) + "00");
    EXPECT_EQ(pro->readCfg(), TBytes(0x0102, 0x3C));
    const std::pair<const char*, const char*> broken[] = {
        {"00 02", nullptr}, {"FF FF 00", nullptr}, {"00 02 00", "AA 00"}, {"00 02 00", "AA BB CC"}};
    for (const auto& [length, block] : broken) {
        sender.expectControl(kControl, askLength, length);
        if (block) sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 00", block);
        EXPECT_EQ(failureCode([&] { pro->readCfg(); }), code(0x6281)) << length;
    }
}

}  // namespace
