#include "token/appfs/fs_common.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "unit/scripted_sender.h"

namespace {

using namespace libapdu;
using krfs_test::code;
using krfs_test::failureCode;

// ---- The chunk loops ----

struct Block {
    std::size_t size;
    WORD offset;
    bool operator==(const Block& o) const { return size == o.size && offset == o.offset; }
};

std::ostream& operator<<(std::ostream& os, const Block& b) {
    return os << "{" << b.size << " @" << b.offset << "}";
}

// Records the blocks the loops hand out. read_bit fills each byte with the low
// byte of its file offset, so a misplaced copy shows in the data.
class BlockRecorder : public CFSCommon {
public:
    BlockRecorder(WORD block) : CFSCommon(nullptr), block(block) {}
    void read_bit(TBytes& data, WORD offset) override {
        blocks.push_back({data.size(), offset});
        for (std::size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<unsigned char>((offset + i) & 0xFF);
        if (shortAnswer) data.resize(data.size() / 2);
    }
    void write_bit(const TBytes& data, WORD offset) override {
        if (failAt == blocks.size()) APDU_RAISE(0x6581);
        blocks.push_back({data.size(), offset});
        written.push_back(data);
    }
    WORD bit_size() override { return block; }

    WORD block;
    std::vector<Block> blocks;
    std::vector<TBytes> written;
    std::size_t failAt = ~std::size_t(0);
    bool shortAnswer = false;
};

struct ChunkCase {
    const char* name;
    WORD bitSize;
    std::size_t length;
    WORD offset;
    std::vector<Block> blocks;
};

class ChunkLoop : public ::testing::TestWithParam<ChunkCase> {};

TEST_P(ChunkLoop, ReadAndWriteCutTheSameBlocks) {
    const ChunkCase& c = GetParam();

    BlockRecorder reader(c.bitSize);
    TBytes data(c.length, 0xEE);
    reader.read(data, c.offset);
    EXPECT_EQ(reader.blocks, c.blocks);
    if (!c.blocks.empty()) {
        for (std::size_t i = 0; i < data.size(); ++i) {
            ASSERT_EQ(data[i], static_cast<unsigned char>((c.offset + i) & 0xFF)) << "byte " << i;
        }
    }

    BlockRecorder writer(c.bitSize);
    TBytes source(c.length);
    for (std::size_t i = 0; i < source.size(); ++i) source[i] = static_cast<unsigned char>(i * 7);
    writer.write(source, c.offset);
    EXPECT_EQ(writer.blocks, c.blocks);
    TBytes joined;
    for (const TBytes& b : writer.written) joined.insert(joined.end(), b.begin(), b.end());
    if (!c.blocks.empty()) {
        EXPECT_EQ(joined, source);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, ChunkLoop,
    ::testing::Values(ChunkCase{"ThreeBlocks", 255, 600, 0, {{255, 0}, {255, 255}, {90, 510}}},
                      ChunkCase{"Empty", 255, 0, 0, {}},
                      ChunkCase{"EmptyAtOffset", 255, 0, 0x1234, {}},
                      ChunkCase{"WholeInOnePiece", 0xFFFF, 600, 0, {{600, 0}}},
                      ChunkCase{"ExactBlock", 255, 255, 0, {{255, 0}}},
                      ChunkCase{"OffsetCarried", 255, 300, 100, {{255, 100}, {45, 355}}},
                      ChunkCase{"EndsAtLastOffset", 255, 256, 0xFF00, {{255, 0xFF00}, {1, 0xFFFF}}},
                      ChunkCase{"ZeroBlockSendsNothing", 0, 10, 0, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ChunkLoop, RangesThatWouldWrapAreRefusedBeforeAnyBlock) {
    BlockRecorder fs(255);
    TBytes data(0x20);
    EXPECT_EQ(failureCode([&] { fs.read(data, 0xFFF0); }), code(0x6282));
    EXPECT_EQ(failureCode([&] { fs.write(data, 0xFFF0); }), code(0x6A84));
    EXPECT_TRUE(fs.blocks.empty());
}

TEST(ChunkLoop, WriteStopsAtTheFirstFailureKeepingEarlierBlocks) {
    BlockRecorder fs(255);
    fs.failAt = 1;
    EXPECT_EQ(failureCode([&] { fs.write(TBytes(600, 1), 0); }), code(0x6581));
    EXPECT_EQ(fs.blocks, (std::vector<Block>{{255, 0}}));
}

TEST(ChunkLoop, ShortBlockFromADriverNeverOverrunsTheCaller) {
    BlockRecorder fs(255);
    fs.shortAnswer = true;
    TBytes data(300, 0xEE);
    fs.read(data, 0);
    EXPECT_EQ(data.size(), 300u);
    EXPECT_EQ(fs.blocks, (std::vector<Block>{{255, 0}, {45, 255}}));
}

// ---- Names and siblings ----

TEST(ValidName, RefusesOnlyTheFourReservedIdentifiers) {
    for (WORD id : {0x0000, 0xFFFF, 0x3FFF, 0x3F00})
        EXPECT_EQ(failureCode([&] { CFSCommon::valid_name(id); }), code(0x6900)) << std::hex << id;
    for (WORD id : {0x0001, 0x3F01, 0x3EFF, 0xFFFE, 0x6666, 0x5000})
        EXPECT_EQ(failureCode([&] { CFSCommon::valid_name(id); }), 0) << std::hex << id;
}

TEST(FsCommon, PinUserAndFipsComeFromTheSiblings) {
    krfs_test::ScriptedSender sender;
    krfs_test::ScriptedApplet applet(&sender);
    applet.installPin<krfs_test::FixedPin>(TPath{0x3F00, 0x0102});
    applet.installInfo<krfs_test::FixedInfo>(true);
    struct Owned : BlockRecorder {
        Owned(IApplet* a) : BlockRecorder(1) { applet = a; }
    } fs(&applet);
    EXPECT_EQ(fs.pinUser(), 0x0102);
    EXPECT_TRUE(fs.isFips());
}

// ---- The helpers over IAppFS ----

// A tree in memory that logs each call, so tests can state the call order.
class TreeFS : public IAppFS {
public:
    std::set<TPath> files, dirs;
    std::vector<std::string> log;
    TPath current;
    std::map<TPath, TBytes> content;

    static std::string name(const TPath& p) {
        std::string s;
        char b[8];
        for (WORD id : p) {
            std::snprintf(b, sizeof b, "/%04X", id);
            s += b;
        }
        return s.empty() ? "~" : s;
    }

    void select(TPath p) override {
        log.push_back("select " + name(p));
        if (!files.count(p) && !dirs.count(p)) APDU_RAISE(0x6A82);
        current = p;
    }
    void create(WORD id, CFileInfo info) override {
        char b[48];
        std::snprintf(b, sizeof b, "create %04X t%d s%d r%02X w%02X", id, info.type, info.size,
                      info.read, info.write);
        log.push_back(b);
        TPath child = current;
        child.push_back(id);
        (info.type == 2 ? dirs : files).insert(child);
    }
    void remove() override {
        log.push_back("remove " + name(current));
        files.erase(current);
        dirs.erase(current);
    }
    CFileInfo info() override {
        log.push_back("info");
        return files.count(current) ? CFileInfo(1, 5, 0, 0) : CFileInfo(2, 0, 0, 0);
    }
    TPath list(unsigned char kind) override {
        log.push_back("list " + std::to_string(kind));
        TPath out;
        for (const TPath& p : kind == 2 ? dirs : files)
            if (p.size() == current.size() + 1 &&
                std::equal(current.begin(), current.end(), p.begin()))
                out.push_back(p.back());
        return out;
    }
    void read(TBytes& data, WORD offset) override {
        log.push_back("read " + std::to_string(data.size()) + " @" + std::to_string(offset));
        const TBytes& c = content[current];
        std::copy_n(c.begin(), std::min(c.size(), data.size()), data.begin());
    }
    void write(const TBytes& data, WORD offset) override {
        log.push_back("write " + std::to_string(data.size()) + " @" + std::to_string(offset));
        content[current] = data;
    }
};

CAdapter adapterOf(TreeFS& fs, IAppPin& pin) {
    CAdapter a;
    a.fs = &fs;
    a.pin = &pin;
    return a;
}

using Log = std::vector<std::string>;

TEST(FileCreatePath, ExistingPathCreatesNothingAndStaysSelected) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.dirs = {{0x3F00}, {0x3F00, 0x6666}};
    FileCreatePath(adapterOf(fs, pin), {0x3F00, 0x6666}, CFileInfo(2, 0, 0, 0x11));
    EXPECT_EQ(fs.log, Log({"select /3F00/6666"}));
    EXPECT_EQ(fs.current, (TPath{0x3F00, 0x6666}));
}

TEST(FileCreatePath, WalksUpToTheDeepestNodeThenCreatesDownward) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.dirs = {{0x3F00}, {0x3F00, 0x6666}};
    FileCreatePath(adapterOf(fs, pin), {0x3F00, 0x6666, 0x1000, 0x2000}, CFileInfo(2, 0, 0, 0x11));
    EXPECT_EQ(fs.log, Log({"select /3F00/6666/1000/2000", "select /3F00/6666/1000",
                           "select /3F00/6666", "select /3F00/6666", "create 1000 t2 s0 r00 w11",
                           "select /3F00/6666/1000", "create 2000 t2 s0 r00 w11"}));
    EXPECT_TRUE(fs.dirs.count({0x3F00, 0x6666, 0x1000, 0x2000}));
}

TEST(FileCreatePath, RootMissingEvenAsHomeRethrowsTheLastFailure) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    EXPECT_EQ(
        failureCode([&] { FileCreatePath(adapterOf(fs, pin), {0x3F00}, CFileInfo(2, 0, 0, 0)); }),
        code(0x6A82));
    EXPECT_EQ(fs.log, Log({"select /3F00", "select ~"}));
}

TEST(FileDeletePath, FileIsRemovedWithoutListing) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.files = {{0x3F00, 0x0001}};
    FileDeletePath(adapterOf(fs, pin), {0x3F00, 0x0001});
    EXPECT_EQ(fs.log, Log({"select /3F00/0001", "info", "remove /3F00/0001"}));
}

TEST(FileDeletePath, DirectoryGoesDepthFirstFilesBeforeSubdirectories) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.dirs = {{0x3F00, 0xD0}, {0x3F00, 0xD0, 0xD1}};
    fs.files = {{0x3F00, 0xD0, 0xF1}, {0x3F00, 0xD0, 0xF2}, {0x3F00, 0xD0, 0xD1, 0xF3}};
    FileDeletePath(adapterOf(fs, pin), {0x3F00, 0xD0});
    EXPECT_EQ(
        fs.log,
        Log({"select /3F00/00D0", "info", "list 1", "list 2", "select /3F00/00D0/00F1",
             "remove /3F00/00D0/00F1", "select /3F00/00D0/00F2", "remove /3F00/00D0/00F2",
             "select /3F00/00D0/00D1", "info", "list 1", "list 2", "select /3F00/00D0/00D1/00F3",
             "remove /3F00/00D0/00D1/00F3", "select /3F00/00D0/00D1", "remove /3F00/00D0/00D1",
             "select /3F00/00D0", "remove /3F00/00D0"}));
    EXPECT_TRUE(fs.files.empty());
    EXPECT_TRUE(fs.dirs.empty());
}

TEST(FileCreateAndWrite, CreatesInTheParentThenWritesTheSelectedChild) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.dirs = {{0x3F00}};
    FileCreateAndWrite(adapterOf(fs, pin), {0x3F00, 0x0007}, CFileInfo(1, 3, 0, 0x11),
                       TBytes{1, 2, 3});
    EXPECT_EQ(fs.log, Log({"select /3F00", "create 0007 t1 s3 r00 w11", "select /3F00/0007",
                           "write 3 @0"}));
    EXPECT_EQ(fs.content[TPath({0x3F00, 0x0007})], (TBytes{1, 2, 3}));
    EXPECT_EQ(failureCode([&] { FileCreateAndWrite(adapterOf(fs, pin), {}, CFileInfo(), {}); }),
              code(0x6B00));
}

TEST(FileRead, ReadsTheWholeSelectedFileFromOffsetZero) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x11});
    fs.files = {{0x3F00, 0x0001}};
    fs.content[{0x3F00, 0x0001}] = {9, 8, 7, 6, 5};
    fs.select({0x3F00, 0x0001});
    EXPECT_EQ(FileRead(adapterOf(fs, pin)), (TBytes{9, 8, 7, 6, 5}));
    EXPECT_EQ(fs.log.back(), "read 5 @0");
}

TEST(FileMakeInfo, AccessComesFromTheUserPinCutToEightBits) {
    TreeFS fs;
    krfs_test::FixedPin pin(nullptr, {0x3F00, 0x0112});
    const CAdapter a = adapterOf(fs, pin);
    struct Row {
        CFileInfo got, want;
    } rows[] = {
        {FileMakeDirInfo(a), CFileInfo(2, 0, 0, 0x12)},
        {FileMakeFileInfo(a, 300, true), CFileInfo(1, 300, 0x12, 0x12)},
        {FileMakeFileInfo(a, 7, false), CFileInfo(1, 7, 0, 0x12)},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.got.type, r.want.type);
        EXPECT_EQ(r.got.size, r.want.size);
        EXPECT_EQ(r.got.read, r.want.read);
        EXPECT_EQ(r.got.write, r.want.write);
    }
}

TEST(FileHelpers, DefaultAdapterFailsCleanly) {
    const CAdapter none;
    EXPECT_EQ(failureCode([&] { FileMakeDirInfo(none); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { FileRead(none); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { FileCreatePath(none, {0x3F00}, CFileInfo()); }), code(0xFACE));
}

}  // namespace
