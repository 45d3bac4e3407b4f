// The failure barrier of the exported calls, their handle checks, the reader
// state mask, and the APDU log.
#include "src/krfs/barrier.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "krfs.h"
#include "src/Log.h"
#include "src/Object/Object.h"
#include "src/Readers/Readers.h"

namespace {

TEST(Barrier, TurnsEveryFailureIntoItsPositiveCode) {
    EXPECT_EQ(krfs::Guard([] {}), 0);
    EXPECT_EQ(krfs::Guard([] { KR_RAISE(0x8010000CL); }), 0x8010000CL);
    EXPECT_EQ(krfs::Guard([] { APDU_RAISE(0xFFFF); }), 0x86E0FFFFL);
    EXPECT_EQ(krfs::Guard([] { throw std::bad_alloc(); }), 0x80004005L);
    EXPECT_EQ(krfs::Guard([] { throw 0; }), 0x80004005L) << "a TLV failure is no CAException";
}

struct FakeFile : CObject<__tag_HFile, FakeFile, eFile> {};

TEST(Barrier, EveryEntryRefusesNullAndOtherKindsOfHandle) {
    FakeFile file;  // same layout as the others, another tag
    auto* readers = reinterpret_cast<__tag_HReadersEnum*>(static_cast<__tag_HFile*>(&file));
    auto* token = reinterpret_cast<__tag_HToken*>(static_cast<__tag_HFile*>(&file));
    __tag_ReaderInf info;
    DWORD n = 0;
    char buf[8];
    EXPECT_EQ(KRReadersEnumNext(readers, &info), 0x80000003L);
    for (__tag_HToken* h : {static_cast<__tag_HToken*>(nullptr), token}) {
        for (long (*entry)(__tag_HToken*) : {KRTokenRebind, KRTokenUnbind, KRTokenLock,
                                             KRTokenUnLock, KRTokenLogout, QNTokenLogout})
            EXPECT_EQ(entry(h), 0x80000003L);
        EXPECT_EQ(KRTokenLogin(h, "x"), 0x80000003L);
        EXPECT_EQ(KRTokenLabelGet(h, buf, &n), 0x80000003L);
    }
    EXPECT_EQ(KRReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(KRTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(file.kind, static_cast<unsigned int>(eFile)) << "a refused handle is left alone";
}

TEST(Readers, UsableStateMaskAndNoSnapshot) {
    // Present, in use by another, with pcsc-lite's event counter, with the ATR match bit.
    for (unsigned long state : {0x020ul, 0x120ul, 0x10020ul, 0x060ul})
        EXPECT_TRUE(CReaders::IsUsable(state)) << std::hex << state;
    // Nothing, empty, mute, exclusive, ignore, unknown, unavailable, present and empty.
    for (unsigned long state :
         {0x000ul, 0x010ul, 0x220ul, 0x0A0ul, 0x021ul, 0x024ul, 0x028ul, 0x030ul})
        EXPECT_FALSE(CReaders::IsUsable(state)) << std::hex << state;
    CReaders r;
    __tag_ReaderInf info;
    EXPECT_EQ(krfs::Guard([&] { r.GetNext(&info); }), 0x00000103L);
}

TEST(Log, ExactLinesWholeApdusAndPathsThatCannotBeUsed) {
    char dir[] = "/tmp/krfs-log-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/apdu.log",
                      missing = std::string(dir) + "/no/apdu.log";
    auto logged = [&] {
        std::stringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    };
    KREnableLogging(path.c_str());
    WriteLog("");  // empty lines are not written
    LogAPDU("C-APDU", {0x00, 0xA4, 0x04, 0x00});
    LogAPDU("R-APDU", {0x9A, 0x0b});
    LogAPDU("R-APDU", {});
    EXPECT_EQ(logged(), "C-APDU: 00 A4 04 00 \nR-APDU: 9A 0B \nR-APDU: \n");
    std::remove(path.c_str());
    LogAPDU("C-APDU", TBytes(20000, 0xEE));
    EXPECT_EQ(logged().size(), 8 + 20000 * 3 + 1u) << "a long APDU goes whole";
    std::remove(path.c_str());

    KREnableLogging(missing.c_str());
    LogAPDU("C-APDU", {0x00});
    KREnableLogging(std::string(5000, 'x').c_str());
    EXPECT_EQ(std::string(g_krFSLogging, sizeof(g_krFSLogging)), std::string(4096, 'x'));
    WriteLog("no crash on an unterminated path");
    KREnableLogging(path.c_str());
    EXPECT_EQ(std::string(g_krFSLogging), path) << "a shorter path is terminated again";
    KRDisableLogging();
    EXPECT_FALSE(LoggingEnabled());
    WriteLog("nothing");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    rmdir(dir);
}

}  // namespace
