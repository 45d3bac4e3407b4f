// The virtual token's staying power as any PC/SC client sees it, and the
// krfs-vtoken program's command line.
#include "harness/harness.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace krfs::harness;

TEST(VToken, CardDialsUntilARestartedPcscdListens) {
    auto pcscd = std::make_unique<Pcscd>();
    VToken card(*pcscd, 0);
    pcscd.reset();
    Pcscd again;
    waitForReader(card.reader(), cardPresent, "the card in the new pcscd");
    Connection c(card.reader());
    Bytes response;
    ASSERT_EQ(c.transmit({0x00, 0xCA, 0x01, 0x83, 0x00}, response), SCARD_S_SUCCESS);
    EXPECT_EQ(response, (Bytes{0x6D, 0x00}));
}

TEST(KrfsVtoken, CommandLineMakesShowsAndRefuses) {
    TempDir dir("krfs-vtoken-cli");
    const std::string state = dir.file("t.json"), script = dir.file("script");
    writeFile(script, "00 A4 00 00 -> 90 00\n00 A4 00 00 => 90 00\n");
    const struct {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> says;
    } runs[] = {
        {{"--help"}, 0, {"serve", "SIGUSR1", "SIGUSR2"}},
        {{}, 2, {"no command"}},
        {{"dance"}, 2, {"unknown command"}},
        {{"serve"}, 2, {"--atr"}},
        {{"serve", "--atr", "3B8"}, 2, {"odd"}},
        {{"serve", "--atr", "3B"}, 2, {"2 to 33"}},
        {{"serve", "--atr", "3B00", "--port", "70000"}, 2, {"port"}},
        {{"serve", "--atr", "3B00", "--loud"}, 2, {"--loud"}},
        {{"serve", "--atr", "3B00", "--port"}, 2, {"needs a value"}},
        {{"serve", "--atr", "3B00", "--script", script}, 2, {"script line 2"}},
        {{"serve", "--atr", "3B00", "--script", dir.file("none")}, 2, {"cannot read"}},
        {{"init", "--state", state, "--model", "pro16", "--fips", "--label", "shown", "--id",
          "0A0B0C0D"},
         0,
         {}},
        {{"show", "--state", state},
         0,
         {"model pro16, FIPS", "0A 0B 0C 0D", "label       \"shown\"", "5000/", "PIN 11 user",
          "000F   file 43 bytes"}},
        {{"init", "--state", state}, 1, {"exists"}},
        {{"init", "--state", state, "--model", "pro99"}, 2, {"model"}},
        {{"init", "--state", state, "--force", "--label", std::string(33, 'x')}, 2, {"32 bytes"}},
        {{"init", "--state", state, "--force", "--fips", "--admin-pin", "1"}, 2, {"administrator"}},
        {{"init", "--state", state, "--dialect", "r2", "--fips"}, 2, {"R2"}},
        {{"init", "--model", "pro42"}, 2, {"--state"}},
        {{"serve", "--state", state, "--atr", "3B00"}, 2, {"not both"}},
        {{"serve", "--state", state, "--refuse", "B0=6A82"}, 2, {"CLA and INS"}},
    };
    for (const auto& run : runs) {
        std::vector<std::string> argv{KRFS_VTOKEN_PATH};
        argv.insert(argv.end(), run.args.begin(), run.args.end());
        std::remove(dir.file("out").c_str());
        ChildProcess program(argv, dir.file("out"));
        EXPECT_TRUE(program.waitExit() && program.exitedWith(run.status)) << argv.back();
        for (const auto& text : run.says)
            EXPECT_NE(program.log().find(text), std::string::npos) << text << " in\n"
                                                                   << program.log();
    }
    EXPECT_EQ(readState(state)["model"], "pro16");
}

}  // namespace
