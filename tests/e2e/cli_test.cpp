// The krfs tool end to end: its subcommands against a virtual Pro token
// through pcscd, with their output, messages and exit statuses.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

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
    writeFile(in, input);
    const std::string cmd =
        env + " " + KRFS_CLI_PATH + " " + args + " <" + in + " >" + out + " 2>" + err;
    const int raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(out), readFile(err)};
}

VTokenOptions token(bool pinVerified = true, const std::string& userPin = "") {
    VTokenOptions o;
    TokenInit init;
    init.id = "0A0B0C0D";
    init.userPin = userPin;
    o.init = init;
    if (pinVerified) o.serveArgs = {"--assume-verified", "01"};
    return o;
}

bool has(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
}

TEST(Cli, ReadersAndInfoInTextAndJson) {
    Pcscd pcscd;
    VToken card(pcscd, 1, token());
    Result r = krfs("readers");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Virtual PCD 00 00\tempty\nVirtual PCD 00 01\ttoken\n");
    r = krfs("readers --json");
    EXPECT_TRUE(has(r.out, "\"name\": \"Virtual PCD 00 01\"") && has(r.out, "\"token\": true"))
        << r.out;
    r = krfs("info");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "Identifier: 00000a0b0c0d") && has(r.out, "Model: Qntoken")) << r.out;
    r = krfs("info --json");
    EXPECT_TRUE(has(r.out, "\"model\": \"Qntoken\"")) << r.out;
    for (const char* sub :
         {"readers", "info", "ls", "cat", "get", "put", "mkdir", "rm", "login", "passwd"}) {
        r = krfs(std::string(sub) + " --help");
        EXPECT_EQ(r.status, 0) << sub;
        EXPECT_TRUE(has(r.out, "Usage:")) << sub << "\n" << r.out;
    }
}

TEST(Cli, MkdirPutLsCatGetRm) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token());
    TempDir dir("krfs-cli-files");
    std::string content;
    for (int i = 0; i < 3000; ++i) content += static_cast<char>('a' + i % 26);
    writeFile(dir.file("local.bin"), content);

    const std::string v = "--vendor F001 ";
    for (const std::string& args :
         {std::string("mkdir 2000/2100"), "put " + dir.file("local.bin") + " 2000/0001",
          "put --private " + dir.file("local.bin") + " 2000/2100/0002"})
        ASSERT_EQ(krfs(v + args).status, 0) << args;
    Result r = krfs(v + "ls -l 2000");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "d        -  2100/\n-    3000  -  0001\n");
    EXPECT_EQ(krfs(v + "ls -R").out, "/:\n2000/\n\n/2000:\n2100/\n0001\n\n/2000/2100:\n0002\n");
    EXPECT_TRUE(has(krfs(v + "ls --json 2000/2100").out, "\"private\": true"));

    r = krfs(v + "cat 2000/0001");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, content);
    EXPECT_EQ(krfs(v + "get 2000/0001 " + dir.file("back.bin")).status, 0);
    EXPECT_EQ(readFile(dir.file("back.bin")), content);

    r = krfs(v + "rm 2000");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r.err, "use rm -r")) << r.err;
    EXPECT_EQ(krfs(v + "rm -r 2000").status, 0);
    EXPECT_EQ(krfs(v + "ls").out, "");
}

TEST(Cli, FailuresNameTheCodeAndExitNonZero) {
    {
        Pcscd pcscd;
        VToken card(pcscd, 0, token(false));
        const struct {
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
        for (const auto& c : cases) {
            Result r = krfs(c.args);
            EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
            EXPECT_TRUE(has(r.err, c.message)) << c.args << "\n" << r.err;
            EXPECT_FALSE(has(r.err, "CAException"));
        }
    }
    {
        Pcscd pcscd;
        Result r = krfs("info");
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(has(r.err, "0x8010000C")) << "no token: " << r.err;
    }
    Result r = krfs("readers");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "0x86E0001D: no PC/SC service")) << r.err;
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
    EXPECT_TRUE(has(r.err, "0x86E0FFFF: unknown status word") || has(r.err, ": 0x8010")) << r.err;
    EXPECT_EQ(r.err.rfind("krfs: ", 0), 0u) << r.err;
}

TEST(Cli, LoginPasswdAndPrivateFiles) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token(false, "123456"));
    TempDir dir("krfs-cli-pin");
    writeFile(dir.file("secret"), "top secret");

    Result r = krfs("login", "123456\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "PIN accepted\n");
    r = krfs("login --pin-env KRFS_TEST_PIN", "", "KRFS_TEST_PIN=654321");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "0x86E06300: wrong PIN") && has(r.err, "14 attempts left")) << r.err;

    r = krfs("--login --pin-stdin --vendor F001 put --private " + dir.file("secret") + " 0007",
             "123456\n");
    ASSERT_EQ(r.status, 0) << r.err;
    r = krfs("--vendor F001 cat 0007");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "0x86E06900")) << "private without login: " << r.err;
    r = krfs("--vendor F001 --login cat 0007", "123456\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "top secret");

    // passwd reads the current PIN, then the new one.
    r = krfs("passwd --pin-stdin", "123456\n24681357\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "PIN changed\n");
    EXPECT_EQ(krfs("login", "123456\n").status, 1) << "the old PIN is gone";
    EXPECT_EQ(
        krfs("passwd --pin-env OLD --new-pin-env NEW", "", "OLD=24681357 NEW=11223344").status, 0);
    EXPECT_EQ(krfs("login", "11223344\n").status, 0);
}

}  // namespace
