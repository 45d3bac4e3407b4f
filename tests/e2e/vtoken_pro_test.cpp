// A virtual Pro42 token served from its state file through a real pcscd:
// raw APDUs in, the card's answers and its saved state out.
#include "harness/harness.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace krfs::harness;

const Bytes kOk{0x90, 0x00};
const Bytes kPro42Atr{0x3B, 0xF2, 0x18, 0x00, 0x00, 0xC1, 0x0A, 0x31, 0xFE, 0x55, 0xC8, 0x06, 0x75};
// Select 3F00 6666 1000 0006, the colour file.
const Bytes kSelectColour{0x00, 0xA4, 0x08, 0x00, 0x06, 0x66, 0x66, 0x10, 0x00, 0x00, 0x06, 0x00};
const Bytes kSelectMarker{0x00, 0xA4, 0x08, 0x00, 0x04, 0x66, 0x66, 0x00, 0x01, 0x00};

Bytes tail(const Bytes& response) {
    return response.size() < 2 ? response : Bytes(response.end() - 2, response.end());
}

VTokenOptions pro42(const std::string& label = "e2e") {
    VTokenOptions options;
    TokenInit init;
    init.model = "pro42";
    init.label = label;
    init.id = "CAFEF00D";
    init.more = {"--colour", "5"};
    options.init = init;
    return options;
}

TEST(VTokenPro, StoredTokenAnswersThroughPcscdAndKeepsItsChanges) {
    Pcscd pcscd;
    TempDir dir("krfs-vtoken-pro");
    const std::string path = dir.file("pro42.json");
    TokenInit init;
    init.model = "pro42";
    init.id = "CAFEF00D";
    init.more = {"--colour", "5"};
    initToken(path, init);

    const Bytes marker{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                       0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
    {
        VTokenOptions options;
        options.stateFile = path;
        VToken card(pcscd, 0, options);
        EXPECT_EQ(card.atr(), kPro42Atr);

        Connection connection(card.reader());
        ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
        EXPECT_EQ(connection.protocol(), DWORD{SCARD_PROTOCOL_T1});
        Bytes response;
        ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(kSelectColour, response));
        EXPECT_EQ(response,
                  (Bytes{0x6F, 0x14, 0x82, 0x01, 0x01, 0x83, 0x02, 0x00, 0x06, 0x80, 0x02, 0x00,
                         0x01, 0x86, 0x07, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x90, 0x00}));
        ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xB0, 0x00, 0x00, 0x01}, response));
        EXPECT_EQ(response, (Bytes{0x05, 0x90, 0x00}));

        ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(kSelectMarker, response));
        EXPECT_EQ(tail(response), kOk);
        Bytes update{0x00, 0xD6, 0x00, 0x00, 0x10};
        update.insert(update.end(), marker.begin(), marker.end());
        ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(update, response));
        EXPECT_EQ(response, kOk);

        // Saved at once: the file shows it while the card still runs.
        const auto state = card.state();
        const auto& home = state["mf"]["children"][0];
        EXPECT_EQ(home["id"], "6666");
        EXPECT_EQ(home["children"][0]["data"], "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10");

        ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xA4, 0x04, 0x00, 0x07, 0xA0, 0x00,
                                                          0x00, 0x03, 0x12, 0x02, 0x02},
                                                         response));
        EXPECT_EQ(response, (Bytes{0x6A, 0x82})) << "no applications to select by name";
    }

    // A second run starts from what the first one left.
    VTokenOptions options;
    options.stateFile = path;
    VToken card(pcscd, 1, options);
    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(kSelectMarker, response));
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xB0, 0x00, 0x00, 0x10}, response));
    Bytes expected = marker;
    expected.insert(expected.end(), kOk.begin(), kOk.end());
    EXPECT_EQ(response, expected);
}

TEST(VTokenPro, ControlChannelIsAbsentThroughVpcd) {
    Pcscd pcscd;
    VToken card(pcscd, 0, pro42());
    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    const Bytes input{0x02, 0x00, 0x00, 0x00};
    unsigned char output[8];
    DWORD returned = 0;
    LONG rv = SCardControl(connection.handle(), 0x9C41264C, input.data(), input.size(), output,
                           sizeof output, &returned);
    EXPECT_NE(rv, SCARD_S_SUCCESS) << "vpcd has no vendor control codes";
}

TEST(VTokenPro, RefusalKnobAndAssumedPinFromTheCommandLine) {
    Pcscd pcscd;
    VTokenOptions options = pro42();
    options.serveArgs = {"--refuse", "00CA0181=6F00", "--assume-verified", "01"};
    VToken card(pcscd, 0, options);
    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xCA, 0x01, 0x81, 0x00}, response));
    EXPECT_EQ(response, (Bytes{0x6F, 0x00}));
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xCA, 0x01, 0x83, 0x00}, response));
    EXPECT_EQ(response, (Bytes{0x10, 0x90, 0x00})) << "other objects still answer";
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xCA, 0x01, 0x84, 0x00}, response));
    EXPECT_EQ(response, (Bytes{0x01, 0x90, 0x00})) << "the user PIN counts as verified";
    // The assumption is not saved with the token.
    EXPECT_TRUE(card.state()["assume_verified"].empty());
}

// vpcd has no timeout: a card that stopped answering is one that drops off
// the line and comes back unable to power up.
TEST(VTokenPro, MuteAfterKnobLeavesAMuteCardInTheReader) {
    Pcscd pcscd;
    VTokenOptions options = pro42();
    options.serveArgs = {"--mute-after", "1"};
    VToken card(pcscd, 0, options);
    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    const Bytes lifeCycle{0x00, 0xCA, 0x01, 0x83, 0x00};
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(lifeCycle, response));
    EXPECT_EQ(response, (Bytes{0x10, 0x90, 0x00}));
    LONG rv = connection.transmit(lifeCycle, response);
    EXPECT_TRUE(rv != SCARD_S_SUCCESS || response.empty()) << pcscText(rv);
    waitForReader(card.reader(), cardMute, "the card to show mute");
    EXPECT_PCSC(SCARD_W_REMOVED_CARD, connection.transmit(lifeCycle, response));
}

// When the card leaves with a command on its way, vpcd ends that
// transmission with no bytes, and later ones find the card removed.
TEST(VTokenPro, VanishKnobTakesTheCardOutMidSession) {
    Pcscd pcscd;
    VTokenOptions options = pro42();
    options.serveArgs = {"--vanish-at", "2"};
    VToken card(pcscd, 0, options);
    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    const Bytes lifeCycle{0x00, 0xCA, 0x01, 0x83, 0x00};
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(lifeCycle, response));
    LONG rv = connection.transmit(lifeCycle, response);
    EXPECT_TRUE(rv != SCARD_S_SUCCESS || response.empty()) << pcscText(rv);
    waitForReader(card.reader(), readerEmpty, "the card to leave");
    EXPECT_PCSC(SCARD_W_REMOVED_CARD, connection.transmit(lifeCycle, response));

    card.comeBack();
    Connection again(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, again.status());
    ASSERT_PCSC(SCARD_S_SUCCESS, again.transmit(lifeCycle, response));
    EXPECT_EQ(response, (Bytes{0x10, 0x90, 0x00})) << "the third command is answered";
}

std::string runVtoken(const std::vector<std::string>& args, int expectedStatus) {
    TempDir dir("krfs-cli");
    std::vector<std::string> argv{KRFS_VTOKEN_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess program(argv, dir.file("out"));
    EXPECT_TRUE(program.waitExit()) << "still running";
    EXPECT_TRUE(program.exitedWith(expectedStatus))
        << "wait status " << program.waitStatus() << ", expected exit " << expectedStatus;
    return program.log();
}

TEST(KrfsVtokenInit, MakesShowsAndRefusesTokens) {
    TempDir dir("krfs-cli");
    const std::string path = dir.file("t.json");
    runVtoken({"init", "--state", path, "--model", "pro16", "--fips", "--label", "shown", "--id",
               "0A0B0C0D"},
              0);
    const std::string shown = runVtoken({"show", "--state", path}, 0);
    for (const char* text : {"model pro16, FIPS", "0A 0B 0C 0D", "label       \"shown\"", "5000/",
                             "PIN 11 user", "000F   file 43 bytes"})
        EXPECT_NE(shown.find(text), std::string::npos) << text << " in\n" << shown;
    EXPECT_EQ(readState(path)["model"], "pro16");

    EXPECT_NE(runVtoken({"init", "--state", path}, 1).find("exists"), std::string::npos);
    EXPECT_NE(runVtoken({"init", "--state", path, "--model", "pro99"}, 2).find("model"),
              std::string::npos);
    EXPECT_NE(runVtoken({"init", "--state", path, "--force", "--label", std::string(33, 'x')}, 2)
                  .find("32 bytes"),
              std::string::npos);
    EXPECT_NE(runVtoken({"init", "--state", path, "--force", "--fips", "--admin-pin", "1"}, 2)
                  .find("administrator"),
              std::string::npos);
    EXPECT_NE(runVtoken({"init", "--state", path, "--dialect", "r2", "--fips"}, 2).find("R2"),
              std::string::npos);
    EXPECT_NE(runVtoken({"init", "--model", "pro42"}, 2).find("--state"), std::string::npos);
    EXPECT_NE(runVtoken({"show", "--state", dir.file("none")}, 1).find("cannot read"),
              std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--state", path, "--atr", "3B00"}, 2).find("not both"),
              std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--state", path, "--refuse", "B0=6A82"}, 2).find("CLA and INS"),
              std::string::npos);
}

}  // namespace
