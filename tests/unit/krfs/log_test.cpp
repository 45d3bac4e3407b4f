#include "src/Log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "krfs.h"

namespace {

std::string slurp(const std::string& path) {
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

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
    std::string dir, path;
};

TEST_F(LogTest, LinesHaveTheExactFormatWithTrailingBlank) {
    KREnableLogging(path.c_str());
    LogAPDU("C-APDU", {0x00, 0xA4, 0x04, 0x00});
    LogAPDU("R-APDU", {0x9A, 0x0b});
    LogAPDU("R-APDU", {});
    EXPECT_EQ(slurp(path), "C-APDU: 00 A4 04 00 \nR-APDU: 9A 0B \nR-APDU: \n");
}

TEST_F(LogTest, LongApduIsLoggedWhole) {
    KREnableLogging(path.c_str());
    TBytes big(20000, 0xEE);
    LogAPDU("C-APDU", big);
    const std::string text = slurp(path);
    EXPECT_EQ(text.size(), std::string("C-APDU: ").size() + 3 * big.size() + 1);
}

TEST_F(LogTest, DisabledOrUnwritablePathLogsNothingAndFailsNothing) {
    KRDisableLogging();
    EXPECT_FALSE(LoggingEnabled());
    WriteLog("nothing");
    EXPECT_EQ(access(path.c_str(), F_OK), -1);

    const std::string missing = dir + "/no/such/folder/apdu.log";
    KREnableLogging(missing.c_str());
    EXPECT_TRUE(LoggingEnabled());
    LogAPDU("C-APDU", {0x00});
    EXPECT_EQ(access(missing.c_str(), F_OK), -1);

    KREnableLogging(path.c_str());
    WriteLog("");
    WriteLog(nullptr);
    EXPECT_EQ(access(path.c_str(), F_OK), -1) << "empty lines are not written";
}

TEST_F(LogTest, PathIsBoundedTo4096Chars) {
    std::string longPath(5000, 'x');
    KREnableLogging(longPath.c_str());
    EXPECT_EQ(std::string(g_krFSLogging, sizeof(g_krFSLogging)), std::string(4096, 'x'));
    WriteLog("no crash on an unterminated path");
    KREnableLogging(path.c_str());
    EXPECT_EQ(std::string(g_krFSLogging), path) << "a shorter path is terminated again";
    KREnableLogging(nullptr);
    EXPECT_FALSE(LoggingEnabled());
}

}  // namespace
