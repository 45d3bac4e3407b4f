// The harness itself, seen through raw PC/SC calls: readers, cards and the
// faults the library's own end-to-end tests will stand on.
#include "harness/harness.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace krfs::harness;

const Bytes kSelectMf{0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00};
const Bytes kOk{0x90, 0x00};

VTokenOptions selectingCard() {
    VTokenOptions options;
    options.script = "00 A4 00 00 02 3F 00 -> 90 00\n";
    return options;
}

TEST(HarnessReaders, OneChannelGivesTwoEmptyReadersWithVpcdNames) {
    Pcscd pcscd(1);
    LONG rv = 0;
    auto readers = listReaders(&rv);
    ASSERT_PCSC(SCARD_S_SUCCESS, rv);
    EXPECT_EQ(readers, (std::vector<std::string>{"Virtual PCD 00 00", "Virtual PCD 00 01"}));
    EXPECT_EQ(readers, pcscd.readers());
    for (const auto& reader : readers) EXPECT_TRUE(readerEmpty(readerState(reader))) << reader;
}

TEST(HarnessReaders, NoReadersConfiguredIsNoReadersAvailable) {
    Pcscd pcscd(0);
    EXPECT_PCSC(SCARD_S_SUCCESS, tryEstablishContext());
    LONG rv = 0;
    EXPECT_TRUE(listReaders(&rv).empty());
    EXPECT_PCSC(SCARD_E_NO_READERS_AVAILABLE, rv);
}

TEST(HarnessReaders, NoPcscdIsNoService) {
    EXPECT_PCSC(SCARD_E_NO_SERVICE, tryEstablishContext());
    // And again once a pcscd has come and gone.
    Pcscd pcscd(0);
    ASSERT_PCSC(SCARD_S_SUCCESS, tryEstablishContext());
    pcscd.stop();
    EXPECT_PCSC(SCARD_E_NO_SERVICE, tryEstablishContext());
}

TEST(HarnessCard, AtrAndScriptedExchangesRoundTripThroughPcscd) {
    Pcscd pcscd;
    VTokenOptions options;
    options.atr = "3B 8A 80 01 4B 52 46 53 2D 54 45 53 54 31 0C";
    // A 258-byte answer has a length word of 01 02: both bytes matter.
    std::string big;
    for (int i = 0; i < 256; ++i) big += std::to_string(i % 10) + "0 ";
    options.script =
        "order keyed\n"
        "00 A4 00 00 02 3F 00 -> 90 00   # select MF\n"
        "00 B0 00 00 04 -> 01 02 03 04 90 00\n"
        "00 B0 00 00 00 -> " +
        big + "90 00\n";
    VToken card(pcscd, 0, options);

    auto state = readerState(card.reader());
    EXPECT_TRUE(cardPresent(state));
    EXPECT_EQ(state.atr, card.atr());
    EXPECT_EQ(card.atr().size(), 15u);
    EXPECT_TRUE(readerEmpty(readerState(Pcscd::readerName(1)))) << "the card sits in slot 0 only";

    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    Bytes atr;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.cardStatus(atr));
    EXPECT_EQ(atr, card.atr());

    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(kSelectMf, response));
    EXPECT_EQ(response, kOk);
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xB0, 0x00, 0x00, 0x04}, response));
    EXPECT_EQ(response, (Bytes{0x01, 0x02, 0x03, 0x04, 0x90, 0x00}));
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xB0, 0x00, 0x00, 0x00}, response));
    ASSERT_EQ(response.size(), 258u);
    EXPECT_EQ(response[0], 0x00);
    EXPECT_EQ(response[1], 0x10);
    EXPECT_EQ(response[255], 0x50);
    EXPECT_EQ(response[256], 0x90);
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit({0x00, 0xCA, 0x01, 0x02, 0x00}, response));
    EXPECT_EQ(response, (Bytes{0x6D, 0x00})) << "an unscripted command";
}

TEST(HarnessCard, OrderedScriptInTheSecondSlot) {
    Pcscd pcscd;
    VTokenOptions options;
    options.script =
        "order ordered\n"
        "00 84 00 00 08 -> 11 11 11 11 11 11 11 11 90 00\n"
        "00 84 00 00 08 -> 22 22 22 22 22 22 22 22 90 00\n";
    VToken card(pcscd, 1, options);
    EXPECT_EQ(card.reader(), "Virtual PCD 00 01");
    EXPECT_TRUE(readerEmpty(readerState(Pcscd::readerName(0))));

    Connection connection(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.status());
    const Bytes challenge{0x00, 0x84, 0x00, 0x00, 0x08};
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(challenge, response));
    EXPECT_EQ(response.front(), 0x11);
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(challenge, response));
    EXPECT_EQ(response.front(), 0x22);
    ASSERT_PCSC(SCARD_S_SUCCESS, connection.transmit(challenge, response));
    EXPECT_EQ(response, (Bytes{0x6D, 0x00})) << "the transcript is used up";
}

TEST(HarnessFaults, MuteCardIsPresentButUnusable) {
    Pcscd pcscd;
    VTokenOptions options;
    options.mute = true;
    VToken card(pcscd, 0, options);

    auto state = readerState(card.reader());
    EXPECT_TRUE(state.state & SCARD_STATE_PRESENT);
    EXPECT_TRUE(state.state & SCARD_STATE_MUTE);
    EXPECT_TRUE(state.atr.empty());
    // pcscd tries to power it up again on connect, fails, and calls the
    // card unpowered rather than unresponsive.
    Connection connection(card.reader());
    EXPECT_PCSC(SCARD_W_UNPOWERED_CARD, connection.status());
}

TEST(HarnessFaults, VanishEmptiesTheReaderAndComeBackRestoresTheCard) {
    Pcscd pcscd;
    VToken card(pcscd, 0, selectingCard());
    Bytes response;
    {
        Connection before(card.reader());
        ASSERT_PCSC(SCARD_S_SUCCESS, before.transmit(kSelectMf, response));

        card.vanish();
        EXPECT_TRUE(readerEmpty(readerState(card.reader())));
        EXPECT_PCSC(SCARD_W_REMOVED_CARD, before.transmit(kSelectMf, response));
        EXPECT_PCSC(SCARD_E_NO_SMARTCARD, Connection(card.reader()).status());
    }
    card.comeBack();
    auto state = readerState(card.reader());
    EXPECT_TRUE(cardPresent(state));
    EXPECT_EQ(state.atr, card.atr());
    Connection after(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, after.transmit(kSelectMf, response));
    EXPECT_EQ(response, kOk);
}

TEST(HarnessFaults, ResetByAnotherClientReachesTheNextTransmit) {
    Pcscd pcscd;
    VToken card(pcscd, 0, selectingCard());
    Connection mine(card.reader());
    Bytes response;
    ASSERT_PCSC(SCARD_S_SUCCESS, mine.transmit(kSelectMf, response));

    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    EXPECT_PCSC(SCARD_W_RESET_CARD, mine.transmit(kSelectMf, response));
    // Acknowledging the reset makes the handle usable again.
    ASSERT_PCSC(SCARD_S_SUCCESS, mine.reconnect(SCARD_LEAVE_CARD));
    EXPECT_PCSC(SCARD_S_SUCCESS, mine.transmit(kSelectMf, response));
}

TEST(HarnessFaults, ExclusiveHoldKeepsOtherClientsOut) {
    Pcscd pcscd;
    VToken card(pcscd, 0, selectingCard());
    {
        ExclusiveHold hold(card.reader());
        EXPECT_PCSC(SCARD_E_SHARING_VIOLATION, Connection(card.reader()).status());
        EXPECT_TRUE(readerState(card.reader()).state & SCARD_STATE_EXCLUSIVE);
    }
    Connection after(card.reader());
    EXPECT_PCSC(SCARD_S_SUCCESS, after.status());
}

}  // namespace

namespace {

using namespace krfs::harness;

// Runs krfs-vtoken to its end; returns its output, or fails if it is still
// running at the deadline or its exit status differs.
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

TEST(KrfsVtokenProgram, HelpDescribesTheRuntimeControls) {
    std::string help = runVtoken({"--help"}, 0);
    EXPECT_NE(help.find("serve"), std::string::npos);
    EXPECT_NE(help.find("SIGUSR1"), std::string::npos);
    EXPECT_NE(help.find("SIGUSR2"), std::string::npos);
    EXPECT_EQ(runVtoken({"serve", "--help"}, 0), help);
}

TEST(KrfsVtokenProgram, BadArgumentsAreUsageErrors) {
    EXPECT_NE(runVtoken({}, 2).find("no command"), std::string::npos);
    EXPECT_NE(runVtoken({"dance"}, 2).find("unknown command"), std::string::npos);
    EXPECT_NE(runVtoken({"serve"}, 2).find("--atr"), std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--atr", "3B8"}, 2).find("odd"), std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--atr", "3B"}, 2).find("2 to 33"), std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--atr", "3B00", "--port", "70000"}, 2).find("port"),
              std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--atr", "3B00", "--loud"}, 2).find("--loud"), std::string::npos);
    EXPECT_NE(runVtoken({"serve", "--atr", "3B00", "--port"}, 2).find("needs a value"),
              std::string::npos);

    TempDir dir("krfs-cli");
    writeFile(dir.file("script"), "00 A4 00 00 -> 90 00\n00 A4 00 00 => 90 00\n");
    EXPECT_NE(runVtoken({"serve", "--atr", "3B00", "--script", dir.file("script")}, 2)
                  .find("script line 2"),
              std::string::npos);
    EXPECT_NE(
        runVtoken({"serve", "--atr", "3B00", "--script", dir.file("none")}, 2).find("cannot read"),
        std::string::npos);
}

}  // namespace
