// R2 tokens end to end. pcsc-lite refuses a T=0/T=1 connection to their
// T=15 ATR; CTest preloads libkrfs-pcsc-shim into these tests, which carries
// them over RAW. The shim at the PC/SC level; r2_story_test.cpp goes through
// the exported API.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "e2e/api_session.h"
#include "harness/harness.h"

#ifndef KRFS_PCSC_SHIM_PATH
#error "KRFS_PCSC_SHIM_PATH names libkrfs-pcsc-shim.so"
#endif

namespace {

using namespace krfs::harness;
using krfs::e2e::count;

const Bytes kR2Atr{0x3B, 0x81, 0x1F, 0x00, 0xCC, 0x52};
const std::string kId = "CAFE0042";
const Bytes kReadConfig{0x00, 0xDA, 0x00, 0x00, 0x01, 0x00, 0x00};
// Identifier, version 02 01, memory 0x8000 in all, 8 reserved bytes, 0x7000
// free (both little-endian), colour 0, a zero, then 90 00 low byte first.
const Bytes kConfig{0xCA, 0xFE, 0x00, 0x42, 0x02, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00,
                    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x70, 0x00, 0x00, 0x00, 0x90};

VTokenOptions r2Token() {
    TokenInit init;
    init.dialect = "r2";
    init.id = kId;
    VTokenOptions options;
    options.init = init;
    return options;
}

// The protocol SCardStatus reports for a handle.
DWORD statusProtocol(SCARDHANDLE card) {
    DWORD state = 0, protocol = 0;
    const LONG rv = SCardStatus(card, nullptr, nullptr, &state, &protocol, nullptr, nullptr);
    return rv == SCARD_S_SUCCESS ? protocol : 0;
}

LONG transmitWith(const SCARD_IO_REQUEST* pci, SCARDHANDLE card, Bytes& response) {
    response.resize(MAX_BUFFER_SIZE);
    DWORD length = static_cast<DWORD>(response.size());
    const LONG rv =
        SCardTransmit(card, pci, kReadConfig.data(), static_cast<DWORD>(kReadConfig.size()),
                      nullptr, response.data(), &length);
    response.resize(rv == SCARD_S_SUCCESS ? length : 0);
    return rv;
}

// A private pcscd with an R2 token in its first reader.
class R2Shim : public ::testing::Test {
protected:
    void SetUp() override {
        const char* preload = std::getenv("LD_PRELOAD");
        ASSERT_TRUE(preload != nullptr && std::strstr(preload, "krfs-pcsc-shim") != nullptr)
            << "run through CTest, or with LD_PRELOAD=" KRFS_PCSC_SHIM_PATH;
        ASSERT_EQ(card.atr(), kR2Atr);
    }

    Pcscd pcscd;
    VToken card{pcscd, 0, r2Token()};
};

// Asked for T=0 or T=1, the shim connects RAW below and reports what was asked;
// asked for RAW, it leaves the connection alone and the caller speaks RAW.
TEST_F(R2Shim, ConnectsAsAskedAndCarriesApdusRaw) {
    const struct {
        DWORD asked, told;
        const SCARD_IO_REQUEST* pci;
    } cases[] = {
        {SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_PROTOCOL_T1, SCARD_PCI_T1},
        {SCARD_PROTOCOL_T1, SCARD_PROTOCOL_T1, SCARD_PCI_T1},
        {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T0, SCARD_PCI_T0},
        {SCARD_PROTOCOL_RAW, SCARD_PROTOCOL_RAW, SCARD_PCI_RAW},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("asked " + std::to_string(c.asked));
        Connection connection(card.reader(), SCARD_SHARE_SHARED, c.asked);
        ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.status());
        EXPECT_EQ(connection.protocol(), c.told);
        EXPECT_EQ(statusProtocol(connection.handle()), c.told);
        Bytes response;
        if (c.told == SCARD_PROTOCOL_RAW) {
            EXPECT_EQ(LONG{SCARD_E_PROTO_MISMATCH},
                      transmitWith(SCARD_PCI_T1, connection.handle(), response));
        }
        ASSERT_EQ(LONG{SCARD_S_SUCCESS}, transmitWith(c.pci, connection.handle(), response));
        EXPECT_EQ(response, kConfig);
    }
}

// The ATR decides: a card that offers T=0 or T=1 refused a request for the
// other one rightly, and only a card offering neither is connected RAW.
TEST_F(R2Shim, JudgesTheCardByItsAtr) {
    const struct {
        const char* atr;
        DWORD asked;
        LONG status;
        DWORD told;
    } cases[] = {
        {"3B 02 14 50", SCARD_PROTOCOL_T1, SCARD_E_PROTO_MISMATCH, 0},  // T=0 without TD1
        {"3B F2 18 00 00 C1 0A 31 FE 55 C8 06 75", SCARD_PROTOCOL_T0, SCARD_E_PROTO_MISMATCH,
         0},  // Pro42: T=1 in TD1 and TD2
        {"3B 80 0F 8F", SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_S_SUCCESS,
         SCARD_PROTOCOL_T1},  // T=15 alone, no historical bytes
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.atr);
        VTokenOptions options;
        options.atr = c.atr;
        VToken other(pcscd, 1, options);
        Connection connection(other.reader(), SCARD_SHARE_SHARED, c.asked);
        ASSERT_EQ(LONG{c.status}, connection.status());
        if (!connection.connected()) continue;
        EXPECT_EQ(connection.protocol(), c.told);
        Bytes response;
        ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.transmit(kReadConfig, response));
        EXPECT_EQ(response, (Bytes{0x6D, 0x00})) << "the script card's answer to anything";
    }
}

// The library's way back after a reset: reconnect, leaving the card, and resend.
TEST_F(R2Shim, ReconnectsAfterResets) {
    Connection connection(card.reader());
    ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.status());
    Bytes response;
    // The card's log shows each power event: once, as asked.
    const auto events = [&] {
        const std::string log = card.log();
        return std::make_pair(count(log, "\n> 02\n"), count(log, "\n> 00\n"));
    };
    const struct {
        DWORD initialization;
        int resets, powerOffs;
    } cases[] = {{SCARD_RESET_CARD, 1, 0}, {SCARD_UNPOWER_CARD, 0, 1}, {SCARD_LEAVE_CARD, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE("initialization " + std::to_string(c.initialization));
        const auto before = events();
        ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.reconnect(c.initialization));
        EXPECT_EQ(events().first - before.first, c.resets);
        EXPECT_EQ(events().second - before.second, c.powerOffs);
        EXPECT_EQ(connection.protocol(), DWORD{SCARD_PROTOCOL_T1});
        EXPECT_EQ(statusProtocol(connection.handle()), DWORD{SCARD_PROTOCOL_T1});
        ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.transmit(kReadConfig, response));
        EXPECT_EQ(response, kConfig);
    }

    ASSERT_EQ(LONG{SCARD_S_SUCCESS}, resetCardFromAnotherClient(card.reader()));
    EXPECT_EQ(LONG{SCARD_W_RESET_CARD}, connection.transmit(kReadConfig, response));
    ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.reconnect(SCARD_LEAVE_CARD));
    EXPECT_EQ(connection.protocol(), DWORD{SCARD_PROTOCOL_T1});
    ASSERT_EQ(LONG{SCARD_S_SUCCESS}, connection.transmit(kReadConfig, response));
    EXPECT_EQ(response, kConfig);

    // Asked for RAW, the caller gets it and speaks RAW itself.
    DWORD active = 0;
    ASSERT_EQ(LONG{SCARD_S_SUCCESS}, SCardReconnect(connection.handle(), SCARD_SHARE_SHARED,
                                                    SCARD_PROTOCOL_RAW, SCARD_LEAVE_CARD, &active));
    EXPECT_EQ(active, DWORD{SCARD_PROTOCOL_RAW});
    EXPECT_EQ(statusProtocol(connection.handle()), DWORD{SCARD_PROTOCOL_RAW});
    EXPECT_EQ(LONG{SCARD_E_PROTO_MISMATCH},
              transmitWith(SCARD_PCI_T1, connection.handle(), response));
}

}  // namespace
