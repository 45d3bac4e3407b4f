// The chunk loops of the file-system base and the helpers that compose whole
// operations from IAppFS calls.
#include "token/appfs/fs_common.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using Blocks = std::vector<std::pair<std::size_t, WORD>>;  // size, offset
using Log = std::vector<std::string>;

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
    const struct {
        WORD bitSize;
        std::size_t length;
        WORD offset;
        Blocks blocks;
    } rows[] = {{255, 600, 0, {{255, 0}, {255, 255}, {90, 510}}},
                {255, 0, 0x1234, {}},
                {0xFFFF, 600, 0, {{600, 0}}},
                {255, 300, 100, {{255, 100}, {45, 355}}},
                {255, 256, 0xFF00, {{255, 0xFF00}, {1, 0xFFFF}}},
                {0, 10, 0, {}}};
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.length) + " by " + std::to_string(r.bitSize));
        BlockRecorder reader(r.bitSize), writer(r.bitSize);
        TBytes data(r.length, 0xEE), source(r.length);
        for (std::size_t i = 0; i < r.length; ++i) source[i] = i * 7;
        reader.read(data, r.offset);
        writer.write(source, r.offset);
        EXPECT_EQ(reader.blocks, r.blocks);
        EXPECT_EQ(writer.blocks, r.blocks);
        ASSERT_EQ(data.size(), r.length);
        if (r.blocks.empty()) continue;
        for (std::size_t i = 0; i < r.length; ++i) ASSERT_EQ(data[i], (r.offset + i) & 0xFF);
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

// A tree in memory that logs each call, so the test states the call order.
struct TreeFS : IAppFS {
    std::set<TPath> files, dirs;
    TPath current;
    Log log;
    static std::string name(const TPath& p) {
        std::string s;
        for (WORD id : p) s += "/" + std::to_string(id);
        return s.empty() ? "~" : s;
    }
    void select(TPath p) override {
        log.push_back("select " + name(p));
        if (!files.count(p) && !dirs.count(p)) APDU_RAISE(0x6A82);
        current = p;
    }
    void create(WORD id, CFileInfo i) override {
        log.push_back("create " + std::to_string(id) + " " + std::to_string(i.type));
        TPath child = current;
        child.push_back(id);
        (i.type == 2 ? dirs : files).insert(child);
    }
    void remove() override {
        log.push_back("remove " + name(current));
        files.erase(current), dirs.erase(current);
    }
    CFileInfo info() override { return CFileInfo(files.count(current) ? 1 : 2, 3, 0, 0); }
    TPath list(unsigned char kind) override {
        log.push_back("list " + std::to_string(kind));
        TPath out;
        for (const TPath& p : kind == 2 ? dirs : files)
            if (p.size() == current.size() + 1 &&
                std::equal(current.begin(), current.end(), p.begin()))
                out.push_back(p.back());
        return out;
    }
    void write(const TBytes& d, WORD o) override {
        log.push_back("write " + std::to_string(d.size()) + "@" + std::to_string(o));
    }
};

TEST(FileHelpers, CreateWalksUpToTheDeepestNodeThenDownAndDeleteGoesDepthFirst) {
    TreeFS fs;
    CAdapter adapter;
    adapter.fs = &fs;
    fs.dirs = {{1}, {1, 2}};
    fs.files = {{1, 5}};
    FileCreatePath(adapter, {1, 2, 3, 4}, CFileInfo(2, 0, 0, 9));
    FileCreateAndWrite(adapter, {1, 2, 3, 7}, CFileInfo(1, 3, 0, 9), {4, 5, 6});
    EXPECT_EQ(failureCode([&] { FileCreatePath(adapter, {0x3F00}, CFileInfo()); }), code(0x6A82));
    EXPECT_EQ(failureCode([&] { FileCreateAndWrite(adapter, {}, CFileInfo(), {}); }), code(0x6B00));
    EXPECT_EQ(fs.log,
              Log({"select /1/2/3/4", "select /1/2/3", "select /1/2", "select /1/2", "create 3 2",
                   "select /1/2/3", "create 4 2", "select /1/2/3", "create 7 1", "select /1/2/3/7",
                   "write 3@0", "select /16128", "select ~"}));
    fs.log.clear();
    FileDeletePath(adapter, {1});
    EXPECT_EQ(fs.log, Log({"select /1",       "list 1",          "list 2",        "select /1/5",
                           "remove /1/5",     "select /1/2",     "list 1",        "list 2",
                           "select /1/2/3",   "list 1",          "list 2",        "select /1/2/3/7",
                           "remove /1/2/3/7", "select /1/2/3/4", "list 1",        "list 2",
                           "select /1/2/3/4", "remove /1/2/3/4", "select /1/2/3", "remove /1/2/3",
                           "select /1/2",     "remove /1/2",     "select /1",     "remove /1"}));
    EXPECT_TRUE(fs.files.empty() && fs.dirs.empty());
}

}  // namespace
