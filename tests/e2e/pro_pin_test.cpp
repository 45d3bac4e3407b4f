// The Pro PIN protocol end to end: the exported API, pcscd and a virtual
// token that checks challenge answers, keeps retry counters and takes FIPS
// changes under secure messaging. The card's side is read from its state.
#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::count;
using krfs::e2e::Session;
using json = nlohmann::json;

const char kPin[] = "1234567890";

struct Layout {
    const char* model;
    bool fips;
};

std::string layoutName(const ::testing::TestParamInfo<Layout>& info) {
    return std::string(info.param.model) + (info.param.fips ? "Fips" : "");
}

VTokenOptions token(const Layout& l, std::vector<std::string> serve = {}) {
    VTokenOptions o;
    TokenInit init;
    init.model = l.model;
    init.fips = l.fips;
    init.userPin = kPin;
    init.label = "pin tests";
    o.init = init;
    o.serveArgs = std::move(serve);
    return o;
}

// A node of the stored tree by its path below the master file.
const json* node(const json& state, std::vector<std::string> path) {
    const json* n = &state["mf"];
    for (const auto& id : path) {
        const json* next = nullptr;
        for (const auto& c : (*n)["children"])
            if (c["id"] == id) next = &c;
        if (next == nullptr) return nullptr;
        n = next;
    }
    return n;
}

json pinObject(const json& state, bool fips, const std::string& id) {
    const json* dir = node(
        state, fips ? std::vector<std::string>{"6666", "5000"} : std::vector<std::string>{"6666"});
    if (dir == nullptr) return json();
    for (const auto& p : (*dir)["pins"])
        if (p["id"] == id) return p;
    return json();
}

// Attempts left as the host keeps them in the counter file.
int counterLeft(const json& state, bool fips) {
    const json* f =
        fips ? node(state, {"6666", "5000", "000F"}) : node(state, {"6666", "1000", "0004"});
    if (f == nullptr) return -1;
    std::string hex;
    for (char c : (*f)["data"].get<std::string>())
        if (c != ' ') hex.push_back(c);
    const std::size_t at = (fips ? 41 : 0) * 2;
    return std::stoi(hex.substr(at, 2), nullptr, 16);
}

DWORD attempts(__tag_HToken* h) {
    DWORD n = 0xDEAD;
    EXPECT_EQ(KRTokenPinAttemptsGet(h, &n), 0);
    return n;
}

class ProPin : public ::testing::TestWithParam<Layout> {};

TEST_P(ProPin, LoginGuardsPrivateFilesAndCountsWrongPins) {
    const Layout l = GetParam();
    const std::string user = l.fips ? "11" : "01";
    Pcscd pcscd;
    VToken card(pcscd, 0, token(l));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);

    DWORD length = 0;
    EXPECT_EQ(KRTokenMinPinGet(s.h, &length), 0);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(KRTokenMaxPinGet(s.h, &length), 0);
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(attempts(s.h), 15u);

    // A wrong PIN: the card's verdict, its retry counter and the host's
    // counter file all move by one; the right PIN puts both back.
    EXPECT_EQ(KRTokenLogin(s.h, "000000"), static_cast<long>(0x86E06300));
    EXPECT_EQ(attempts(s.h), 14u);
    EXPECT_EQ(counterLeft(card.state(), l.fips), 14);
    EXPECT_EQ(pinObject(card.state(), l.fips, user)["tries"], 14);
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    EXPECT_EQ(attempts(s.h), 15u);
    EXPECT_EQ(counterLeft(card.state(), l.fips), 15);
    EXPECT_EQ(pinObject(card.state(), l.fips, user)["tries"], 15);

    // A private file: made and written under the login.
    __tag_HDir* vendor = nullptr;
    ASSERT_EQ(KRRootDirOpen(&vendor, s.h, 0xF001), 0);
    __tag_HFile* file = nullptr;
    ASSERT_EQ(KRFileCreate(&file, vendor, 0x0A01, 16, 1), 0);
    const unsigned char secret[] = "private payload";
    ASSERT_EQ(KRFileWrite(file, 0, secret, 16), 0);
    unsigned char back[16] = {};
    ASSERT_EQ(KRFileRead(file, 0, 16, back, sizeof back), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(back)), "private payload");

    ASSERT_EQ(KRTokenLogout(s.h), 0);
    EXPECT_EQ(KRFileRead(file, 0, 16, back, sizeof back), static_cast<long>(0x86E06900))
        << "refused once logged out";
    EXPECT_EQ(KRFileClose(file), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

TEST_P(ProPin, ChangeNeedsALoginAndReplacesThePin) {
    const Layout l = GetParam();
    Pcscd pcscd;
    VToken card(pcscd, 0, token(l));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);

    TempDir dir("krfs-e2e-pin");
    const std::string log = dir.file("apdu.log");
    KREnableLogging(log.c_str());
    EXPECT_EQ(KRTokenPinChange(s.h, "new-pin-1"), static_cast<long>(0x86E06982));
    KRDisableLogging();
    EXPECT_EQ(count(readFile(log), "C-APDU:"), 0) << "refused before any APDU:\n" << readFile(log);

    const json before = card.state();
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    ASSERT_EQ(KRTokenPinChange(s.h, "new-pin-1"), 0);
    ASSERT_EQ(KRTokenLogout(s.h), 0);
    EXPECT_EQ(KRTokenLogin(s.h, kPin), static_cast<long>(0x86E06300)) << "the old PIN";
    EXPECT_EQ(KRTokenLogin(s.h, "new-pin-1"), 0);
    EXPECT_EQ(attempts(s.h), 15u);

    const json after = card.state();
    if (!l.fips) {
        EXPECT_NE(pinObject(after, false, "01")["key"], pinObject(before, false, "01")["key"]);
        EXPECT_EQ(pinObject(after, false, "05")["key"], pinObject(before, false, "05")["key"])
            << "the administrator keeps his";
        return;
    }
    // FIPS: both key sets were rewritten; the live one holds the new PIN's
    // keys (the login above proved it), the shadow one a secret's.
    for (const char* id : {"11", "12", "13", "1A", "1B", "1C"})
        EXPECT_NE(pinObject(after, true, id)["key"], pinObject(before, true, id)["key"]) << id;
    EXPECT_EQ(pinObject(after, true, "11")["key"], pinObject(after, true, "13")["key"]);
    EXPECT_EQ(pinObject(after, true, "1A")["key"], pinObject(after, true, "1C")["key"]);
    EXPECT_NE(pinObject(after, true, "1A")["key"], pinObject(after, true, "11")["key"]);
    EXPECT_NE(pinObject(after, true, "1B")["key"], pinObject(after, true, "12")["key"]);
}

TEST_P(ProPin, MalformedChallengesAndProtectedAnswersFailCleanly) {
    const Layout l = GetParam();
    Pcscd pcscd;
    {
        // A challenge without its bytes.
        VToken card(pcscd, 0, token(l, {"--refuse", "0084=9000"}));
        Session s(card.reader());
        ASSERT_NE(s.h, nullptr);
        EXPECT_EQ(KRTokenLogin(s.h, kPin), static_cast<long>(0x86E06281));
        EXPECT_EQ(pinObject(card.state(), l.fips, l.fips ? "11" : "01")["tries"], 15)
            << "no answer reached the card";
    }
    {
        // Cut inside: the last challenge byte and SW1 read as a status word.
        VToken card(pcscd, 0, token(l, {"--truncate", "0084=9"}));
        Session s(card.reader());
        ASSERT_NE(s.h, nullptr);
        EXPECT_NE(KRTokenLogin(s.h, kPin), 0);
        EXPECT_NE(KRTokenLogin(s.h, kPin), 0) << "again: a code, no crash";
    }
    if (!l.fips) return;
    // The protected answers of a FIPS change lose their last MAC bytes.
    VToken card(pcscd, 0, token(l, {"--truncate", "9C24=19"}));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    EXPECT_EQ(KRTokenPinChange(s.h, "new-pin-2"), static_cast<long>(0x86E06281));
    EXPECT_EQ(KRTokenLogin(s.h, kPin), 0) << "the live set was not touched";
}

INSTANTIATE_TEST_SUITE_P(Layouts, ProPin,
                         ::testing::Values(Layout{"pro16", false}, Layout{"pro42", false},
                                           Layout{"pro42", true}),
                         layoutName);

std::string label(__tag_HToken* h) {
    char buffer[128] = {};
    DWORD size = sizeof buffer;
    EXPECT_EQ(KRTokenLabelGet(h, buffer, &size), 0);
    return std::string(buffer);
}

TEST(ProLabel, UtfLabelLegacyFallbackAndAFullSingleByteLabel) {
    // The label comes in the locale's encoding: a UTF-8 one keeps the é.
    const std::string locale = std::setlocale(LC_ALL, nullptr);
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    struct Restore {
        std::string locale;
        ~Restore() { std::setlocale(LC_ALL, locale.c_str()); }
    } restore{locale};
    Pcscd pcscd;
    for (bool fips : {false, true}) {
        VTokenOptions o = token({"pro42", fips});
        o.init->label = "Caf\xC3\xA9 token";
        VToken card(pcscd, 0, o);
        Session s(card.reader());
        ASSERT_NE(s.h, nullptr);
        EXPECT_EQ(label(s.h), "Caf\xC3\xA9 token") << "FIPS " << fips;
    }
    {
        const std::string full(32, 'L');
        VTokenOptions o = token({"pro32", false});
        o.init->label = full;
        VToken card(pcscd, 0, o);
        Session s(card.reader());
        ASSERT_NE(s.h, nullptr);
        EXPECT_EQ(label(s.h), full) << "the UTF-8 file keeps all 32 bytes";
    }

    // Without 1000 0005 the host falls back on the single-byte file, whose
    // last byte is always a zero.
    TempDir dir("krfs-e2e-label");
    const std::string path = dir.file("legacy.json");
    TokenInit init;
    init.model = "pro16";
    init.label = std::string(32, 'Q');
    initToken(path, init);
    json state = readState(path);
    json* info = nullptr;
    for (auto& c : state["mf"]["children"][0]["children"])
        if (c["id"] == "1000") info = &c;
    ASSERT_NE(info, nullptr);
    auto& files = (*info)["children"];
    const auto before = files.size();
    for (auto it = files.begin(); it != files.end(); ++it)
        if ((*it)["id"] == "0005") {
            files.erase(it);
            break;
        }
    ASSERT_EQ(files.size(), before - 1);
    std::ofstream(path) << state.dump(2);

    VTokenOptions o;
    o.stateFile = path;
    VToken card(pcscd, 0, o);
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    EXPECT_EQ(label(s.h), std::string(31, 'Q'));
}

// How many APDUs one login and one FIPS change take, and how much host time
// they cost beyond the transport. The transport is timed by replaying the
// same commands raw through PC/SC (the harness's own client); the host time
// is the call's time less the replay's. Printed, and recorded as properties.
TEST(ProPinCost, ApduCountAndHostTimeOfLoginAndFipsChange) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token({"pro42", true}));
    TempDir dir("krfs-e2e-cost");
    const std::string log = dir.file("apdu.log");

    struct Measure {
        int apdus;
        double callMs;
        std::vector<Bytes> commands;
    };
    auto commandsOf = [](const std::string& text) {
        std::vector<Bytes> out;
        std::istringstream in(text);
        std::string line;
        while (std::getline(in, line)) {
            const auto at = line.find("C-APDU: ");
            if (at == std::string::npos) continue;
            Bytes b;
            std::istringstream hex(line.substr(at + 8));
            std::string byte;
            while (hex >> byte)
                b.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
            out.push_back(b);
        }
        return out;
    };
    auto measure = [&](auto call) {
        std::remove(log.c_str());
        KREnableLogging(log.c_str());
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(call(), 0);
        const auto t1 = std::chrono::steady_clock::now();
        KRDisableLogging();
        const std::string text = readFile(log);
        return Measure{count(text, "C-APDU:"),
                       std::chrono::duration<double, std::milli>(t1 - t0).count(),
                       commandsOf(text)};
    };

    Measure login, change;
    {
        Session s(card.reader());
        ASSERT_NE(s.h, nullptr);
        login = measure([&] { return KRTokenLogin(s.h, kPin); });
        change = measure([&] { return KRTokenPinChange(s.h, "cost-pin-1"); });
    }
    ASSERT_EQ(login.apdus, static_cast<int>(login.commands.size()));

    // The raw replay: the same commands, answers ignored, in one transaction.
    Connection raw(card.reader());
    ASSERT_TRUE(raw.connected());
    auto replay = [&](const std::vector<Bytes>& commands) {
        Bytes answer;
        const auto t0 = std::chrono::steady_clock::now();
        for (const auto& c : commands) raw.transmit(c, answer);
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
            .count();
    };
    const double loginWire = replay(login.commands);
    const double changeWire = replay(change.commands);
    std::printf("[cost] login: %d APDUs, %.2f ms in the call, %.2f ms raw, %.2f ms host\n",
                login.apdus, login.callMs, loginWire, login.callMs - loginWire);
    std::printf("[cost] FIPS change: %d APDUs, %.2f ms in the call, %.2f ms raw, %.2f ms host\n",
                change.apdus, change.callMs, changeWire, change.callMs - changeWire);
    RecordProperty("login_apdus", login.apdus);
    RecordProperty("fips_change_apdus", change.apdus);
    // What the library sends is fixed by the protocol: a login is list,
    // counter read, salt, challenge, directory, answer, counter upkeep.
    EXPECT_GE(login.apdus, 9);
    EXPECT_GT(change.apdus, 2 * login.apdus);
    EXPECT_EQ(count(readFile(log), "C-APDU: 9C 24"), 9) << "nine protected key writes";
}

}  // namespace
