// The virtual token through raw PC/SC: its fault knobs and its staying power
// as any PC/SC client sees them, and the krfs-vtoken program's command line.
#include "harness/harness.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace krfs::harness;

const Bytes kLifeCycle{0x00, 0xCA, 0x01, 0x83, 0x00};

VTokenOptions pro42(std::vector<std::string> serve) {
    VTokenOptions o;
    o.init = TokenInit{};
    o.serveArgs = std::move(serve);
    return o;
}

// vpcd has no timeout: a card that stops answering drops off the line and
// comes back unable to power up. One that leaves with a command on its way
// ends that transmission with no bytes. Later ones find the card removed.
TEST(VToken, MuteAndVanishKnobsAsPcscSeesThem) {
    Pcscd pcscd;
    for (const bool mute : {true, false}) {
        VToken card(pcscd, 0, pro42({mute ? "--mute-after" : "--vanish-at", mute ? "1" : "2"}));
        Connection c(card.reader());
        Bytes response;
        ASSERT_PCSC(SCARD_S_SUCCESS, c.transmit(kLifeCycle, response));
        EXPECT_EQ(response, (Bytes{0x10, 0x90, 0x00}));
        const LONG rv = c.transmit(kLifeCycle, response);
        EXPECT_TRUE(rv != SCARD_S_SUCCESS || response.empty()) << pcscText(rv);
        waitForReader(card.reader(), mute ? cardMute : readerEmpty, "the knob to act");
        EXPECT_PCSC(SCARD_W_REMOVED_CARD, c.transmit(kLifeCycle, response));
        if (mute) {
            EXPECT_PCSC(SCARD_W_UNPOWERED_CARD, Connection(card.reader()).status());
            continue;
        }
        card.comeBack();
        Connection again(card.reader());
        ASSERT_PCSC(SCARD_S_SUCCESS, again.transmit(kLifeCycle, response));
        EXPECT_EQ(response, (Bytes{0x10, 0x90, 0x00})) << "the third command is answered";
    }
}

TEST(VToken, CardDialsUntilARestartedPcscdListens) {
    auto pcscd = std::make_unique<Pcscd>();
    VToken card(*pcscd, 0);
    pcscd.reset();
    Pcscd again;
    waitForReader(card.reader(), cardPresent, "the card in the new pcscd");
    Connection c(card.reader());
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, c.transmit(kLifeCycle, response));
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
        {{"show", "--state", dir.file("none")}, 1, {"cannot read"}},
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
