// The APDU log: its exact line format, and paths that cannot be used.
#include "src/Log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "krfs.h"

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/krfs-log-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/apdu.log";
    }
    void TearDown() override {
        KRDisableLogging();
        std::remove(path.c_str());
        rmdir(dir.c_str());
    }
    std::string logged() {
        std::stringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    }
    bool exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }
    std::string dir, path;
};

TEST_F(LogTest, LinesHaveTheExactFormatWithTrailingBlankAndLongApdusGoWhole) {
    KREnableLogging(path.c_str());
    LogAPDU("C-APDU", {0x00, 0xA4, 0x04, 0x00});
    LogAPDU("R-APDU", {0x9A, 0x0b});
    LogAPDU("R-APDU", {});
    EXPECT_EQ(logged(), "C-APDU: 00 A4 04 00 \nR-APDU: 9A 0B \nR-APDU: \n");
    std::remove(path.c_str());
    LogAPDU("C-APDU", TBytes(20000, 0xEE));
    std::string whole = "C-APDU: ";
    for (int i = 0; i < 20000; ++i) whole += "EE ";
    EXPECT_EQ(logged(), whole + "\n");
}

TEST_F(LogTest, DisabledUnwritableOrOverlongPathsLogNothingAndFailNothing) {
    KRDisableLogging();
    EXPECT_FALSE(LoggingEnabled());
    WriteLog("nothing");
    EXPECT_FALSE(exists(path));

    const std::string missing = dir + "/no/such/folder/apdu.log";
    KREnableLogging(missing.c_str());
    EXPECT_TRUE(LoggingEnabled());
    LogAPDU("C-APDU", {0x00});
    EXPECT_FALSE(exists(missing));

    KREnableLogging(path.c_str());
    WriteLog("");
    WriteLog(nullptr);
    EXPECT_FALSE(exists(path)) << "empty lines are not written";

    KREnableLogging(std::string(5000, 'x').c_str());
    EXPECT_EQ(std::string(g_krFSLogging, sizeof(g_krFSLogging)), std::string(4096, 'x'));
    WriteLog("no crash on an unterminated path");
    KREnableLogging(path.c_str());
    EXPECT_EQ(std::string(g_krFSLogging), path) << "a shorter path is terminated again";
    KREnableLogging(nullptr);
    EXPECT_FALSE(LoggingEnabled());
}

}  // namespace
