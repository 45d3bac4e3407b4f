#include "token/appfs/fs_pro.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "unit/scripted_sender.h"

namespace {

using namespace libapdu;
using krfs_test::code;
using krfs_test::failureCode;
using krfs_test::hex;

// "82 01 01 ..." -> "6F 07 82 01 01 ...": wraps the inner tags in a 0x6F.
std::string fcp(const std::string& inner) {
    char head[8];
    std::snprintf(head, sizeof head, "6F %02X ", static_cast<unsigned>(hex(inner).size()));
    return head + inner;
}

std::string ok(const std::string& data) { return data + " 90 00"; }

// Carries both size tags so that it serves CFSPro (0x81) and CFSPro4 (0x80).
const std::string kFileOf16 = fcp("82 01 01 81 02 00 10 80 02 00 10 86 02 00 11");
const std::string kMarkerSelect = "00 A4 08 00 04 66 66 00 01 00";
// A command of `head` and then `n` bytes that the test doesn't pin.
std::string anyBody(const std::string& head, std::size_t n) {
    std::string out = head;
    for (std::size_t i = 0; i < n; ++i) out += " ??";
    return out;
}

const std::string kMarkerWrite = "00 D6 00 00 10 ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ??";

class ProFs : public ::testing::Test {
protected:
    void SetUp() override { info = applet.installInfo<krfs_test::FixedInfo>(false); }
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }

    template <class T = CFSPro>
    T* install() {
        T* d = applet.installFs<T>();
        fs = d;
        return d;
    }
    // Makes `path` current with the given control data.
    void selected(const std::string& command, const std::string& control) {
        sender.expect(command, ok(control));
        fs->select(path);
    }
    // The marker file is there; its write gets `writeAnswer`.
    void expectMarker(const char* writeAnswer = "90 00") {
        sender.expect(kMarkerSelect, ok(kFileOf16));
        sender.expect(kMarkerWrite, writeAnswer);
    }
    void expectNoMarker() { sender.expect(kMarkerSelect, "6A 82"); }

    krfs_test::ScriptedSender sender;
    krfs_test::ScriptedApplet applet{&sender};
    krfs_test::FixedInfo* info = nullptr;
    CFSPro* fs = nullptr;
    TPath path;
};

// ---- select ----

struct SelectCase {
    const char* name;
    TPath path;
    bool fips;
    const char* command;
    int fipsAsked;
};

class ProSelect : public ProFs, public ::testing::WithParamInterface<SelectCase> {};

TEST_P(ProSelect, SendsThePathFromTheMasterFile) {
    const SelectCase& c = GetParam();
    install();
    info->fips = c.fips;
    sender.expect(c.command, ok(kFileOf16));
    fs->select(c.path);
    EXPECT_EQ(sender.offered(), std::vector<std::size_t>{258});
    EXPECT_EQ(info->asked, c.fipsAsked);
    EXPECT_EQ(fs->info().type, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ProSelect,
    ::testing::Values(
        SelectCase{"MasterFile", {0x3F00}, true, "00 A4 00 00 00", 0},
        SelectCase{"HomePlain", {}, false, "00 A4 08 00 02 66 66 00", 1},
        SelectCase{"HomeFips", {}, true, "00 A4 08 00 04 66 66 50 00 00", 1},
        SelectCase{"Absolute", {0x3F00, 0x6666, 0x0001}, true, "00 A4 08 00 04 66 66 00 01 00", 0},
        SelectCase{
            "RelativePlain", {0x1000, 0x0006}, false, "00 A4 08 00 06 66 66 10 00 00 06 00", 1},
        SelectCase{"RelativeFips", {0x000A}, true, "00 A4 08 00 06 66 66 50 00 00 0A 00", 1}),
    [](const auto& i) { return std::string(i.param.name); });

TEST_F(ProFs, SelectOfAPathTooLongForOneLcByteSendsNothing) {
    install();
    EXPECT_EQ(failureCode([&] { fs->select(TPath(128, 0x0101)); }), code(0x6B00));
    EXPECT_EQ(sender.exchanges(), 0u);
}

TEST_F(ProFs, FailedSelectKeepsThePreviousNode) {
    install();
    path = {0x3F00, 0x0005};
    selected("00 A4 08 00 02 00 05 00", kFileOf16);
    sender.expect("00 A4 08 00 02 00 06 00", "6A 82");
    EXPECT_EQ(failureCode([&] { fs->select({0x3F00, 0x0006}); }), code(0x6A82));
    EXPECT_EQ(fs->info().size, 0x10);
    // remove acts on the node of the last good select, 0005.
    sender.expect("00 A4 00 00 00", ok(fcp("82 01 38")));
    sender.expect("00 E4 00 00 02 00 05", "90 00");
    expectNoMarker();
    fs->remove();
}

struct ControlCase {
    const char* name;
    std::string answer;  // without the status word
    CFileInfo pro;       // as CFSPro reads it
    unsigned short pro4Size;
};

class ProControlData : public ProFs, public ::testing::WithParamInterface<ControlCase> {};

void expectInfo(const CFileInfo& got, const CFileInfo& want) {
    EXPECT_EQ(got.type, want.type);
    EXPECT_EQ(got.size, want.size);
    EXPECT_EQ(got.read, want.read);
    EXPECT_EQ(got.write, want.write);
}

TEST_P(ProControlData, MissingOrShortTagsLeaveDefaults) {
    const ControlCase& c = GetParam();
    for (bool pro4 : {false, true}) {
        SCOPED_TRACE(pro4 ? "CFSPro4" : "CFSPro");
        if (pro4)
            install<CFSPro4>();
        else
            install();
        // The exact buffer, so a reader past its end shows under ASan.
        sender.expect("00 A4 08 00 02 12 34 00", c.answer + " 90 00");
        fs->select({0x3F00, 0x1234});
        CFileInfo want = c.pro;
        if (pro4) want.size = c.pro4Size;
        expectInfo(fs->info(), want);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Parse, ProControlData,
    ::testing::Values(
        ControlCase{"File", fcp("82 01 01 81 02 01 2C 80 02 00 07 86 02 11 22"),
                    CFileInfo(1, 300, 0x11, 0x22), 7},
        ControlCase{"OneAccessByteLeavesWriteFF", fcp("82 01 01 81 02 00 05 80 01 05 86 01 11"),
                    CFileInfo(1, 5, 0x11, 0xFF), 5},
        ControlCase{"DirectoryIgnoresItsSizeTag", fcp("82 01 38 81 02 01 00 80 02 01 00 86 01 33"),
                    CFileInfo(2, 0, 0, 0x33), 0},
        ControlCase{"NoContainer", "62 07 82 01 01 81 02 00 10", CFileInfo(), 0},
        ControlCase{"NoData", "", CFileInfo(), 0},
        ControlCase{"NoDescriptorLeavesSizeReadsAccessAsFile",
                    fcp("81 02 00 10 80 02 00 10 86 02 11 22"), CFileInfo(0, 0, 0x11, 0x22), 0},
        ControlCase{"EmptyDescriptor", fcp("82 00 81 02 00 10 80 02 00 10"), CFileInfo(), 0},
        ControlCase{"EmptySizeTag", fcp("82 01 01 81 00 80 00 86 02 01 02"), CFileInfo(1, 0, 1, 2),
                    0},
        ControlCase{"OneByteSize", fcp("82 01 01 81 01 07 80 01 08"), CFileInfo(1, 7, 0xFF, 0xFF),
                    8},
        ControlCase{"EmptyAccess", fcp("82 01 01 81 02 00 10 80 02 00 10 86 00"),
                    CFileInfo(1, 0x10, 0xFF, 0xFF), 0x10},
        ControlCase{"ContainerLongerThanAnswer", "6F 20 82 01 01 81 02 00 10", CFileInfo(), 0},
        ControlCase{"ChildLongerThanContainer", "6F 03 82 05 01 81 02 00 10", CFileInfo(), 0},
        ControlCase{"TruncatedTwoByteLength", "6F FF 00", CFileInfo(), 0},
        ControlCase{"SizeTagCutShort", "6F 06 82 01 01 81 02 00", CFileInfo(1, 0, 0xFF, 0xFF), 0},
        ControlCase{"InvalidTagBeforeDescriptor", fcp("00 01 01 82 01 01"), CFileInfo(), 0}),
    [](const auto& i) { return std::string(i.param.name); });

// ---- create ----

struct CreateCase {
    const char* name;
    bool pro4;
    CFileInfo info;
    const char* command;
};

class ProCreate : public ProFs, public ::testing::WithParamInterface<CreateCase> {};

TEST_P(ProCreate, SendsTheTemplateThenRewritesTheMarker) {
    const CreateCase& c = GetParam();
    if (c.pro4)
        install<CFSPro4>();
    else
        install();
    sender.expect(c.command, "90 00");
    expectMarker();
    fs->create(0x1234, c.info);
    EXPECT_EQ(sender.offered(), (std::vector<std::size_t>{258, 258, 2}));
}

INSTANTIATE_TEST_SUITE_P(
    Templates, ProCreate,
    ::testing::Values(
        CreateCase{"ProFile", false, CFileInfo(1, 0x0102, 0x01, 0x02),
                   "00 E0 00 00 1D 6F 1B 82 03 01 00 00 85 03 00 00 00 83 02 12 34 81 02 01 02 "
                   "86 07 01 02 02 02 02 02 02"},
        CreateCase{"ProDirectory", false, CFileInfo(2, 0x0500, 0x01, 0x02),
                   "00 E0 00 00 1E 6F 1C 82 03 38 00 00 85 03 00 00 00 83 02 12 34 81 02 00 00 "
                   "86 08 02 02 02 02 02 02 02 02"},
        CreateCase{"Pro4File", true, CFileInfo(1, 0x0102, 0x01, 0x02),
                   "00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 12 34 80 02 01 02 "
                   "86 07 01 02 02 02 02 02 02"},
        CreateCase{"Pro4DirectoryKeepsTag81", true, CFileInfo(2, 0x0500, 0x01, 0x02),
                   "00 E0 00 00 1A 62 18 82 01 38 85 01 00 83 02 12 34 81 02 00 00 "
                   "86 08 02 02 02 02 02 02 02 02"}),
    [](const auto& i) { return std::string(i.param.name); });

TEST_F(ProFs, CreateRefusesBeforeSendingAnything) {
    install();
    EXPECT_EQ(failureCode([&] { fs->create(0x3F00, CFileInfo(1, 1, 0, 0)); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, CFileInfo(0, 1, 0, 0)); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, CFileInfo(3, 1, 0, 0)); }), code(0xFACE));
    EXPECT_EQ(sender.exchanges(), 0u);
}

TEST_F(ProFs, CreateFoldsTheCardsExistsWordAndSkipsTheMarker) {
    install();
    sender.expect(anyBody("00 E0 00 00 1D", 0x1D), "6A 80");
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, CFileInfo(1, 1, 0, 0)); }), code(0x6A89));
    sender.expect(anyBody("00 E0 00 00 1E", 0x1E), "6A 84");
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, CFileInfo(2, 0, 0, 0)); }), code(0x6A84));
}

TEST_F(ProFs, MarkerFailuresNeverFailTheCreate) {
    install();
    const CFileInfo file(1, 1, 0, 0);
    const char* command =
        "00 E0 00 00 1D 6F 1B 82 03 01 00 00 85 03 00 00 00 83 02 00 01 81 02 00 01 "
        "86 07 00 00 00 00 00 00 00";
    // No marker file: no write follows.
    sender.expect(command, "90 00");
    expectNoMarker();
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, file); }), 0);
    // Marker present but write refused.
    sender.expect(command, "90 00");
    expectMarker("69 82");
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, file); }), 0);
    // A marker too small for 16 bytes fails its range test before sending.
    sender.expect(command, "90 00");
    sender.expect(kMarkerSelect, ok(fcp("82 01 01 81 02 00 08")));
    EXPECT_EQ(failureCode([&] { fs->create(0x0001, file); }), 0);
}

TEST_F(ProFs, MarkerStaysUnderHomeOnAFipsCard) {
    install();
    info->fips = true;
    sender.expect(anyBody("00 E0 00 00 1D", 0x1D), "90 00");
    expectMarker();
    fs->create(0x0001, CFileInfo(1, 1, 0, 0));
    EXPECT_EQ(info->asked, 0);
}

// ---- remove ----

TEST_F(ProFs, RemoveSelectsTheParentDeletesAndLeavesTheMarkerCurrent) {
    install();
    path = {0x1000, 0x0006};
    selected("00 A4 08 00 06 66 66 10 00 00 06 00", fcp("82 01 01 81 02 00 01"));
    sender.expect("00 A4 08 00 04 66 66 10 00 00", ok(fcp("82 01 38")));
    sender.expect("00 E4 00 00 02 00 06", "90 00");
    expectMarker("69 82");
    fs->remove();
    EXPECT_EQ(sender.offered()[2], 2u);
    expectInfo(fs->info(), CFileInfo(1, 16, 0x00, 0x11));
}

TEST_F(ProFs, RemoveFoldsNotAllowedAndRefusesWithoutAParent) {
    install();
    EXPECT_EQ(failureCode([&] { fs->remove(); }), code(0x6900));  // nothing selected
    path = {0x3F00};
    selected("00 A4 00 00 00", fcp("82 01 38"));
    EXPECT_EQ(failureCode([&] { fs->remove(); }), code(0x6900));  // the master file
    path = {0x3F00, 0x0007};
    selected("00 A4 08 00 02 00 07 00", kFileOf16);
    sender.expect("00 A4 00 00 00", ok(fcp("82 01 38")));
    sender.expect("00 E4 00 00 02 00 07", "69 81");
    EXPECT_EQ(failureCode([&] { fs->remove(); }), code(0x6900));
}

// ---- list ----

std::string entries(std::initializer_list<unsigned> ids) {
    std::string out;
    char b[32];
    for (unsigned id : ids) {
        std::snprintf(b, sizeof b, "6F 04 86 02 %02X %02X ", id >> 8, id & 0xFF);
        out += b;
    }
    return out;
}

TEST_F(ProFs, ListAsksFromTheCountHeldUntilTheCardAddsNothing) {
    install();
    selected("00 A4 08 00 02 66 66 00", fcp("82 01 38 86 01 00"));
    sender.expect("80 16 01 00 00", ok(entries({0x0001, 0x0002})));
    sender.expect("80 16 01 02 00", ok(entries({0x1003})));
    sender.expect("80 16 01 03 00", "90 00");
    EXPECT_EQ(fs->list(1), (TPath{0x0001, 0x0002, 0x1003}));
    sender.expect("80 16 00 00 00", ok(entries({0x5000})));
    sender.expect("80 16 00 01 00", "90 00");
    EXPECT_EQ(fs->list(2), (TPath{0x5000}));
    // Any kind but 2 lists files.
    sender.expect("80 16 01 00 00", "90 00");
    EXPECT_EQ(fs->list(7), TPath());
    EXPECT_EQ(sender.offered().back(), 258u);
}

TEST_F(ProFs, ListOnAFileSendsNothing) {
    install();
    selected("00 A4 08 00 02 66 66 00", kFileOf16);
    EXPECT_EQ(failureCode([&] { fs->list(1); }), code(0x6283));
}

struct BrokenList {
    const char* name;
    std::string answer;
    TPath kept;
};

class ProBrokenList : public ProFs, public ::testing::WithParamInterface<BrokenList> {};

TEST_P(ProBrokenList, KeepsWhatCameBeforeTheBreak) {
    const BrokenList& c = GetParam();
    install();
    selected("00 A4 08 00 02 66 66 00", fcp("82 01 38"));
    sender.expect("80 16 01 00 00", c.answer + " 90 00");
    if (!c.kept.empty()) {
        char next[32];
        std::snprintf(next, sizeof next, "80 16 01 %02X 00", static_cast<unsigned>(c.kept.size()));
        sender.expect(next, "90 00");
    }
    EXPECT_EQ(fs->list(1), c.kept);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ProBrokenList,
    ::testing::Values(
        BrokenList{"EntryRunsPastAnswer", entries({1, 2}) + "6F 09 86 02 00 03", {1, 2}},
        BrokenList{"IdRunsPastEntry", entries({1}) + "6F 02 86 02 00 03", {1}},
        BrokenList{"EntryWithoutId", entries({1}) + "6F 03 82 01 01" + entries({2}), {1}},
        BrokenList{"EmptyId", "6F 02 86 00" + entries({2}), {}},
        BrokenList{"InvalidTagEndsWalk", entries({1}) + "00 00" + entries({2}), {1}},
        BrokenList{"OtherTopLevelTagsSkipped", "A0 01 00" + entries({7}) + "A1 00", {7}},
        BrokenList{"Garbage", "FF FF FF", {}}, BrokenList{"LoneTag", "6F", {}}),
    [](const auto& i) { return std::string(i.param.name); });

TEST_F(ProFs, ListFailsWholeOnAFailingWordInALaterRound) {
    install();
    selected("00 A4 08 00 02 66 66 00", fcp("82 01 38"));
    sender.expect("80 16 01 00 00", ok(entries({1})));
    sender.expect("80 16 01 01 00", "6A 82");
    EXPECT_EQ(failureCode([&] { fs->list(1); }), code(0x6A82));
}

TEST_F(ProFs, ListAsksAgainAt255AndStopsPastIt) {
    install();
    selected("00 A4 08 00 02 66 66 00", fcp("82 01 38"));
    // 51 entries of one-byte identifiers fill an answer: five rounds hold
    // exactly 0xFF, which still asks once more.
    std::string full;
    for (unsigned i = 0; i < 51; ++i) {
        char entry[24];
        std::snprintf(entry, sizeof entry, "6F 03 86 01 %02X ", i);
        full += entry;
    }
    for (unsigned p2 : {0u, 51u, 102u, 153u, 204u}) {
        char command[32];
        std::snprintf(command, sizeof command, "80 16 01 %02X 00", p2);
        sender.expect(command, ok(full));
    }
    sender.expect("80 16 01 FF 00", ok(entries({0x0100, 0x0101, 0x0102})));
    const TPath found = fs->list(1);
    ASSERT_EQ(found.size(), 258u);
    EXPECT_EQ(found[254], 50u);
    EXPECT_EQ(found[257], 0x0102u);
}

// ---- read and update ----

TEST_F(ProFs, ReadCutsBlocksOf255WithExactBuffers) {
    install();
    path = {0x0001};
    selected("00 A4 08 00 04 66 66 00 01 00", fcp("82 01 01 81 02 01 2C"));
    TBytes first(255), second(45);
    for (std::size_t i = 0; i < first.size(); ++i) first[i] = static_cast<unsigned char>(i);
    for (std::size_t i = 0; i < second.size(); ++i) second[i] = static_cast<unsigned char>(~i);
    sender.expect("00 B0 00 00 FF", ok(krfs_test::toHex(first)));
    sender.expect("00 B0 00 FF 2D", ok(krfs_test::toHex(second)));
    TBytes data(300);
    fs->read(data, 0);
    TBytes want = first;
    want.insert(want.end(), second.begin(), second.end());
    EXPECT_EQ(data, want);
    EXPECT_EQ(sender.offered(), (std::vector<std::size_t>{258, 257, 47}));
}

TEST_F(ProFs, ReadRefusesShortAndFailingAnswers) {
    install();
    path = {0x0001};
    selected("00 A4 08 00 04 66 66 00 01 00", fcp("82 01 01 81 02 00 10"));
    TBytes data(4);
    sender.expect("00 B0 00 02 04", "01 02 03 90 00");
    EXPECT_EQ(failureCode([&] { fs->read(data, 2); }), code(0x6282));
    sender.expect("00 B0 00 02 04", "69 82");
    EXPECT_EQ(failureCode([&] { fs->read(data, 2); }), code(0x6982));
}

TEST_F(ProFs, UpdateCutsBlocksAndLeavesTheMarkerAlone) {
    install();
    path = {0x0001};
    selected("00 A4 08 00 04 66 66 00 01 00", fcp("82 01 01 81 02 01 2C"));
    TBytes data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 3);
    sender.expect("00 D6 00 00 FF " + krfs_test::toHex(TBytes(data.begin(), data.begin() + 255)),
                  "90 00");
    sender.expect("00 D6 00 FF 2D " + krfs_test::toHex(TBytes(data.begin() + 255, data.end())),
                  "90 00");
    fs->write(data, 0);
    EXPECT_EQ(sender.offered(), (std::vector<std::size_t>{258, 2, 2}));
}

struct RangeCase {
    WORD offset;
    std::size_t length;
    bool inside;
};

TEST_F(ProFs, BlockRangeTestsAgainstTheFileSize) {
    install();
    path = {0x0001};
    selected("00 A4 08 00 04 66 66 00 01 00", fcp("82 01 01 81 02 00 0A"));
    const RangeCase cases[] = {{0, 10, true},  {10, 0, true},  {5, 5, true},
                               {9, 1, true},   {11, 0, false}, {5, 6, false},
                               {0, 11, false}, {10, 1, false}, {0xFFFF, 1, false}};
    for (const RangeCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.length));
        char head[32];
        std::snprintf(head, sizeof head, "00 B0 %02X %02X %02X", c.offset >> 8, c.offset & 0xFF,
                      static_cast<unsigned>(c.length));
        TBytes data(c.length, 0x5A);
        if (c.inside) sender.expect(head, ok(krfs_test::toHex(data)));
        EXPECT_EQ(failureCode([&] { fs->read_bit(data, c.offset); }), c.inside ? 0 : code(0x6282));

        head[3] = 'D';
        head[4] = '6';
        if (c.inside) sender.expect(std::string(head) + " " + krfs_test::toHex(data), "90 00");
        EXPECT_EQ(failureCode([&] { fs->write_bit(data, c.offset); }), c.inside ? 0 : code(0x6A84));
    }
}

TEST_F(ProFs, ReadAndWriteOnADirectoryFailTheirRangeTest) {
    install();
    selected("00 A4 08 00 02 66 66 00", fcp("82 01 38 81 02 00 20"));
    TBytes data(1);
    EXPECT_EQ(failureCode([&] { fs->read(data, 0); }), code(0x6282));
    EXPECT_EQ(failureCode([&] { fs->write(data, 0); }), code(0x6A84));
}

}  // namespace
