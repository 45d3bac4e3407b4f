// The krfs tool end to end: its subcommands against a virtual Pro token
// through pcscd, with their output, messages and exit statuses.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "harness/harness.h"

namespace {

using namespace krfs::harness;

struct Result {
    int status;
    std::string out;
    std::string err;
};

// Runs krfs with `args` (simple words, no quoting needed), feeding `input`.
Result krfs(const std::string& args, const std::string& input = "", const std::string& env = "") {
    static TempDir dir("krfs-cli");
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    std::ofstream(in) << input;
    const std::string cmd =
        env + " " + KRFS_CLI_PATH + " " + args + " <" + in + " >" + out + " 2>" + err;
    const int raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(out), readFile(err)};
}

VTokenOptions token(bool pinVerified = true) {
    VTokenOptions o;
    TokenInit init;
    init.model = "pro42";
    init.id = "0A0B0C0D";
    o.init = init;
    if (pinVerified) o.serveArgs = {"--assume-verified", "01"};
    return o;
}

TEST(Cli, ReadersInTextAndJson) {
    Pcscd pcscd;
    VToken card(pcscd, 1, token());
    Result r = krfs("readers");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Virtual PCD 00 00\tempty\nVirtual PCD 00 01\ttoken\n");
    r = krfs("readers --json");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"name\": \"Virtual PCD 00 01\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"token\": true"), std::string::npos);
}

TEST(Cli, InfoShowsIdentifierAndModel) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token());
    Result r = krfs("info");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Identifier: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("0a0b0c0d"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Model: Qntoken"), std::string::npos) << r.out;
    r = krfs("info --json");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"model\": \"Qntoken\""), std::string::npos) << r.out;
}

TEST(Cli, MkdirPutLsCatGetRm) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token());
    TempDir dir("krfs-cli-files");
    std::string content;
    for (int i = 0; i < 3000; ++i) content += static_cast<char>('a' + i % 26);
    std::ofstream(dir.file("local.bin"), std::ios::binary) << content;

    const std::string v = "--vendor F001 ";
    Result r = krfs(v + "mkdir 2000/2100");
    ASSERT_EQ(r.status, 0) << r.err;
    r = krfs(v + "put " + dir.file("local.bin") + " 2000/0001");
    ASSERT_EQ(r.status, 0) << r.err;
    r = krfs(v + "put --private " + dir.file("local.bin") + " 2000/2100/0002");
    ASSERT_EQ(r.status, 0) << r.err;

    r = krfs(v + "ls -l 2000");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "d        -  2100/\n-    3000  -  0001\n");
    r = krfs(v + "ls -R");
    EXPECT_EQ(r.out, "/:\n2000/\n\n/2000:\n2100/\n0001\n\n/2000/2100:\n0002\n");
    r = krfs(v + "ls --json 2000/2100");
    EXPECT_NE(r.out.find("\"private\": true"), std::string::npos) << r.out;

    r = krfs(v + "cat 2000/0001");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, content);
    r = krfs(v + "get 2000/0001 " + dir.file("back.bin"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readFile(dir.file("back.bin")), content);

    r = krfs(v + "rm 2000");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("use rm -r"), std::string::npos) << r.err;
    r = krfs(v + "rm -r 2000");
    EXPECT_EQ(r.status, 0) << r.err;
    r = krfs(v + "ls");
    EXPECT_EQ(r.out, "");
}

TEST(Cli, FailuresNameTheCodeAndExitNonZero) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token(false));
    struct Case {
        std::string args;
        int status;
        std::string message;
    } cases[] = {
        {"cat 7777", 1, "0x86E06A82: not found"},
        {"ls 7777", 1, "0x86E06A82: not found"},
        {"--reader Nowhere info", 1, "0x80100017: reader unavailable"},
        {"--vendor F002 mkdir 2000", 1, "0x86E06900: not allowed"},
        {"cat 1000/zz", 2, "no 16-bit hexadecimal identifier"},
        {"frobnicate", 2, ""},
    };
    for (const Case& c : cases) {
        Result r = krfs(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
        EXPECT_EQ(r.err.find("CAException"), std::string::npos);
    }
}

TEST(Cli, NoReaderAndNoPcscd) {
    {
        Pcscd pcscd;
        Result r = krfs("info");
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("0x8010000C"), std::string::npos) << r.err;
    }
    Result r = krfs("readers");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("0x86E0001D: no PC/SC service"), std::string::npos) << r.err;
}

TEST(Cli, TokenRemovedMidCommand) {
    Pcscd pcscd;
    VTokenOptions o = token();
    // The card leaves at its 12th command: in the middle of the listing.
    o.serveArgs.insert(o.serveArgs.end(), {"--vanish-at", "12"});
    VToken card(pcscd, 0, o);
    Result r = krfs("ls -R");
    EXPECT_EQ(r.status, 1) << r.out;
    // vpcd completes the command in flight with no bytes at all, which the
    // library reads as no status word; later commands fail in PC/SC.
    const bool named = r.err.find("0x86E0FFFF: unknown status word") != std::string::npos ||
                       r.err.find(": 0x8010") != std::string::npos;
    EXPECT_TRUE(named) << r.err;
    EXPECT_EQ(r.err.rfind("krfs: ", 0), 0u) << r.err;
}

TEST(Cli, LoginPasswdAndPrivateFiles) {
    Pcscd pcscd;
    VTokenOptions o;
    TokenInit init;
    init.model = "pro42";
    init.userPin = "123456";
    o.init = init;
    VToken card(pcscd, 0, o);
    TempDir dir("krfs-cli-pin");
    std::ofstream(dir.file("secret")) << "top secret";

    Result r = krfs("login", "123456\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "PIN accepted\n");
    r = krfs("login --pin-env KRFS_TEST_PIN", "", "KRFS_TEST_PIN=654321");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("0x86E06300: wrong PIN"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("14 attempts left"), std::string::npos) << r.err;

    r = krfs("--login --pin-stdin --vendor F001 put --private " + dir.file("secret") + " 0007",
             "123456\n");
    ASSERT_EQ(r.status, 0) << r.err;
    r = krfs("--vendor F001 cat 0007");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("0x86E06900"), std::string::npos) << "private without login: " << r.err;
    r = krfs("--vendor F001 --login cat 0007", "123456\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "top secret");

    // passwd reads the current PIN, then the new one.
    r = krfs("passwd --pin-stdin", "123456\n24681357\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "PIN changed\n");
    EXPECT_EQ(krfs("login", "123456\n").status, 1) << "the old PIN is gone";
    EXPECT_EQ(krfs("login", "24681357\n").status, 0);
    r = krfs("passwd --pin-env OLD --new-pin-env NEW", "", "OLD=24681357 NEW=11223344");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(krfs("login", "11223344\n").status, 0);
}

TEST(Cli, HelpForEverySubcommand) {
    for (const char* sub :
         {"readers", "info", "ls", "cat", "get", "put", "mkdir", "rm", "login", "passwd"}) {
        Result r = krfs(std::string(sub) + " --help");
        EXPECT_EQ(r.status, 0) << sub;
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << sub << "\n" << r.out;
    }
}

}  // namespace
