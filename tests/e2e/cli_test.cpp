// The krfs tool end to end: its subcommands against virtual Pro tokens through
// pcscd, with their output, messages and exit statuses.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "e2e/api_session.h"
#include "harness/harness.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::Call;
using krfs::e2e::krfsTool;

// A token whose user PIN counts as verified in slot 0, one that asks for
// 123456 in slot 1.
TEST(Cli, FilesInformationPinsAndFailures) {
    Pcscd pcscd;
    VTokenOptions files, pins;
    files.init = TokenInit{};
    files.init->id = "0A0B0C0D";
    files.serveArgs = {"--assume-verified", "01"};
    pins.init = TokenInit{};
    pins.init->userPin = "123456";
    VToken open(pcscd, 0, files), guarded(pcscd, 1, pins);
    TempDir dir("krfs-cli-files");
    std::string content;
    for (int i = 0; i < 3000; ++i) content += static_cast<char>('a' + i % 26);
    writeFile(dir.file("local.bin"), content);
    writeFile(dir.file("secret"), "top secret");
    const std::string local = dir.file("local.bin"), back = dir.file("back.bin");
    const std::string v = "--vendor F001 ", pin = "-r 'Virtual PCD 00 01' ";

    const Call calls[] = {
        {"readers", 0, "Virtual PCD 00 00\ttoken\nVirtual PCD 00 01\ttoken\n"},
        {"readers --json", 0, "\"name\": \"Virtual PCD 00 01\""},
        {"info", 0, "Identifier: 00000a0b0c0d"},
        {"info --json", 0, "\"model\": \"Qntoken\""},
        {"ls --help", 0, "Usage:"},
        {v + "mkdir 2000/2100", 0, ""},
        {v + "put " + local + " 2000/0001", 0, ""},
        {v + "put --private " + local + " 2000/2100/0002", 0, ""},
        {v + "ls -l 2000", 0, "d        -  2100/\n-    3000  -  0001\n"},
        {v + "ls -R", 0, "/:\n2000/\n\n/2000:\n2100/\n0001\n\n/2000/2100:\n0002\n"},
        {v + "ls --json 2000/2100", 0, "\"private\": true"},
        {v + "get 2000/0001 " + back, 0, ""},
        {v + "rm 2000", 2, "use rm -r"},
        {"cat 7777", 1, "0x86E06A82: not found"},
        {"--reader Nowhere info", 1, "0x80100017: reader unavailable"},
        {"cat 1000/zz", 2, "no 16-bit hexadecimal identifier"},
        {"frobnicate", 2, ""},
        {pin + "--vendor F002 mkdir 2000", 1, "0x86E06900: not allowed"},
        {pin + "login", 0, "PIN accepted\n", "123456\n"},
        {pin + "login --pin-env PIN", 1,
         "14 attempts left\nkrfs: logging in: 0x86E06300: wrong PIN", "", "PIN=654321"},
        {pin + "--login --pin-stdin --vendor F001 put --private " + dir.file("secret") + " 0007", 0,
         "", "123456\n"},
        {pin + "--vendor F001 cat 0007", 1, "0x86E06900"},
        {pin + "--vendor F001 --login cat 0007", 0, "top secret", "123456\n"},
        // passwd reads the current PIN, then the new one.
        {pin + "passwd --pin-stdin", 0, "PIN changed\n", "123456\n24681357\n"},
        {pin + "login", 1, "wrong PIN", "123456\n"},
        {pin + "passwd --pin-env OLD --new-pin-env NEW", 0, "", "", "OLD=24681357 NEW=11223344"},
        {pin + "login", 0, "PIN accepted\n", "11223344\n"},
    };
    for (const Call& call : calls) krfsTool(call);
    for (const char* sub :
         {"readers", "info", "ls", "cat", "get", "put", "mkdir", "rm", "login", "passwd"})
        krfsTool({std::string(sub) + " --help", 0, "Usage:"});
    EXPECT_EQ(krfsTool({v + "cat 2000/0001", 0, ""}), content);
    EXPECT_EQ(readFile(back), content);
    krfsTool({v + "rm -r 2000", 0, ""});
    EXPECT_EQ(krfsTool({v + "ls", 0, ""}), "");
}

// The tool on the Java-card tokens, each written, read back and listed.
TEST(Cli, JavaCardTokens) {
    Pcscd pcscd;
    TempDir dir("krfs-cli-java");
    const std::string content(700, 'j'), notes = dir.file("notes");
    writeFile(notes, content);
    // Binding passes Joker by: the tool names its applet.
    const std::pair<const char*, const char*> tokens[] = {{"gost", ""},
                                                          {"datastore", ""},
                                                          {"idprotect", ""},
                                                          {"java", ""},
                                                          {"joker", "--applet 2204 "}};
    for (const auto& [dialect, applet] : tokens) {
        VToken card(pcscd, 0, krfs::e2e::madeToken(dialect, "0102030405060708", "12345678", "j"));
        const std::string r = "-r '" + card.reader() + "' " + applet + "--vendor F001 ";
        krfsTool({r + "--login --pin-env PIN put " + notes + " 1234", 0, "", "", "PIN=12345678"});
        EXPECT_EQ(krfsTool({r + "cat 1234", 0, ""}), content);
        krfsTool({r + "rm 1234", 1, "0x86E06900"});
        krfsTool({"-r '" + card.reader() + "' " + applet + "ls -l -R", 0, "700"});
    }
}

TEST(Cli, NoTokenNoPcscdAndATokenRemovedMidCommand) {
    {
        Pcscd pcscd;
        krfsTool({"readers", 0, "Virtual PCD 00 00\tempty\nVirtual PCD 00 01\tempty\n"});
        krfsTool({"info", 1, "0x8010000C"});
        VTokenOptions o;
        o.init = TokenInit{};
        // The card leaves at its 12th command: in the middle of the listing.
        o.serveArgs = {"--assume-verified", "01", "--vanish-at", "12"};
        VToken card(pcscd, 0, o);
        // vpcd completes the command in flight with no bytes at all, which the
        // library reads as no status word; later commands fail in PC/SC.
        const std::string said = krfsTool({"ls -R", 1, "krfs: "});
        EXPECT_TRUE(said.find("0x86E0FFFF: unknown status word") != std::string::npos ||
                    said.find(": 0x8010") != std::string::npos)
            << said;
    }
    krfsTool({"readers", 1, "0x86E0001D: no PC/SC service"});
}

}  // namespace
