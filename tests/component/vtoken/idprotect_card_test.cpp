// The virtual IDProtect applet byte by byte on the Java card: its file
// system with DF names, PIN objects and counters, the Diffie-Hellman channel,
// chaining, GET RESPONSE and its state.
#include "idprotect/idprotect_applet.h"

#include "component/vtoken/card_script.h"
#include "javacard/javacard.h"
#include "unit/oracle.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::idprotect;
using vtoken::javacard::JavaCard;

const char* kSelectApplet = "00 A4 04 00 0C A0 00 00 01 64 4C 41 53 45 52 00 01 00";

Personalisation smallToken() {
    Personalisation p;
    p.userPin = "1234";
    p.adminPin = "87654321";
    p.triesTotal = 3;
    p.label = "Bank";
    p.id = fromHex("11 12 13 14 15 16 17 18");
    p.memory = 632;
    return p;
}

std::unique_ptr<JavaCard> makeCard(const Personalisation& p = smallToken()) {
    std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
    applets.push_back(std::make_unique<IdprotectApplet>(personalise(p)));
    return std::make_unique<JavaCard>(atr(), std::move(applets));
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Two-key triple DES CBC with a zero IV, over whole blocks.
Bytes des(const Bytes& key, const Bytes& data) {
    return oracle::evp("DES-EDE-CBC", key, Bytes(8), data, true);
}

// Verify with a fresh challenge: the answer is triple DES CBC of 8 bytes of
// ours and the challenge under SHA-1(pin). The status word.
std::string verify(JavaCard& card, const std::string& pin) {
    const Bytes challenge = card.process(fromHex("00 84 00 00 08"));
    const Bytes digest = oracle::digest("SHA1", Bytes(pin.begin(), pin.end()));
    const Bytes block = Bytes(8, 0x5A) + Bytes(challenge.begin(), challenge.begin() + 8);
    const Bytes answer = des(Bytes(digest.begin(), digest.begin() + 16), block);
    return send(card, "80 20 00 00 10 " + toHex(answer));
}

// The value of a top-level tag of short-form or 81/82 lengths.
Bytes valueOf(const Bytes& tlvs, unsigned char tag) {
    for (std::size_t at = 0; at + 2 <= tlvs.size();) {
        const unsigned char t = tlvs[at++];
        std::size_t len = tlvs[at++], bytes = len > 0x80 ? len - 0x80 : 0;
        for (len = bytes ? 0 : len; bytes--;) len = len << 8 | tlvs[at++];
        if (t == tag) return Bytes(tlvs.begin() + at, tlvs.begin() + at + len);
        at += len;
    }
    ADD_FAILURE() << "no tag " << int{tag};
    return {};
}

using Number = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
Number number(const Bytes& b) {
    return Number(BN_bin2bn(b.data(), int(b.size()), nullptr), BN_free);
}

struct Keys {
    Bytes enc, mac;
};

// Reads the group (over 256 bytes: 61xx and GET RESPONSE), sends X = G^r,
// and derives the keys from Q and Y = C^r as the host does.
Keys openChannel(JavaCard& card) {
    Bytes answer = card.process(fromHex("80 48 00 80 00"));
    Bytes group(answer.begin(), answer.end() - 2);
    while (answer.size() >= 2 && answer[answer.size() - 2] == 0x61) {
        answer = card.process(fromHex("00 C0 00 00") + Bytes{answer.back()});
        group = group + Bytes(answer.begin(), answer.end() - 2);
    }
    EXPECT_EQ(toHex(Bytes(answer.end() - 2, answer.end())), "90 00");
    const Number g = number(valueOf(group, 0x80)), p = number(valueOf(group, 0x81)),
                 c = number(valueOf(group, 0x82)), r = number(Bytes(20, 0x37));
    Number x(BN_new(), BN_free), y(BN_new(), BN_free);
    std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> ctx(BN_CTX_new(), BN_CTX_free);
    BN_mod_exp(x.get(), g.get(), r.get(), p.get(), ctx.get());
    BN_mod_exp(y.get(), c.get(), r.get(), p.get(), ctx.get());
    Bytes xBytes(192), yBytes((BN_num_bytes(y.get()) + 3) / 4 * 4);
    BN_bn2binpad(x.get(), xBytes.data(), 192);
    BN_bn2binpad(y.get(), yBytes.data(), int(yBytes.size()));
    const Bytes q = card.process(fromHex("80 86 00 00 C0") + xBytes + Bytes{0x00});
    EXPECT_EQ(q.size(), 34u);
    Keys k{Bytes(16), Bytes(16)};
    for (std::size_t i = 0; i < 16; ++i) {
        k.enc[i] = q[i] ^ yBytes[i];
        k.mac[i] = q[16 + i] ^ yBytes[24 + i];
    }
    return k;
}

// 8C INS P1 P2 Lc, 87 L 01 E, 8E 08 MAC over counter, padded header and 87.
Bytes wrap(const Keys& k, const Bytes& header, const Bytes& data, unsigned char counter = 1) {
    const Bytes e = des(k.enc, oracle::isoPad(data));
    const Bytes object = Bytes{0x87, static_cast<unsigned char>(e.size() + 1), 0x01} + e;
    const Bytes head{static_cast<unsigned char>(header[0] | 0x0C), header[1], header[2], header[3]};
    const Bytes mac = oracle::retailMac(
        k.mac, oracle::isoPad(Bytes(7, 0x00) + Bytes{counter} + oracle::isoPad(head) + object));
    return head + Bytes{static_cast<unsigned char>(object.size() + 10)} + object +
           Bytes{0x8E, 0x08} + mac;
}

TEST(IdprotectCard, FileSystemStory) {
    auto card = makeCard();
    play(*card, R"(
        80 A4 08 0C 02 3F 00 00 -> 69 99                 # no applet selected
        00 A4 04 00 0C A0 00 00 01 64 4C 41 53 45 52 00 01 00 -> 90 00
        80 A4 08 0C 06 3F 00 30 00 C0 00 00 -> ... 90 00 # the information file, public
        00 B0 00 7E 04 -> 00 00 62 82                    # past the end: what there is
        00 B0 00 81 01 -> 6B 00
        80 A4 08 0C 08 3F 00 30 00 30 02 50 00 00 -> ... 90 00
        00 E0 38 00 2E 62 81 2B 8A 01 04 83 02 00 01 80 02 00 00 84 10 01 00 00*14 \
          86 0C 00 20 00 20 00 20 00 20 00 00 00 FF -> 69 82   # no login
        80 CB 01 11 00 -> 00 00 01 38 90 00              # 632 less 6 nodes and 128 bytes
        80 A4 08 0C 04 3F 00 00 20 00 -> ... 90 00
    )");
    EXPECT_EQ(verify(*card, "1234"), "90 00");
    play(*card, R"(
        80 A4 08 0C 08 3F 00 30 00 30 02 50 00 00 -> ... 90 00
        00 E0 38 00 2E 62 81 2B 8A 01 04 83 02 00 01 80 02 00 00 84 10 01 00 00*14 \
          86 0C 00 20 00 20 00 20 00 20 00 00 00 FF -> 90 00    # logical 0001, real 0001
        80 A4 08 0C 08 3F 00 30 00 30 02 50 00 00 -> ... 90 00
        00 E0 38 00 2E 62 81 2B 8A 01 04 83 02 00 02 80 02 00 00 84 10 01 00 00*14 \
          86 0C 00 20 00 20 00 20 00 20 00 00 00 FF -> 6A 89    # the name is taken
        80 A4 04 0C 10 01 00 00*14 00 -> ... 90 00       # by name from the home
        80 A4 04 0C 10 02 00 00*14 00 -> 6A 82
        00 E0 01 00 18 62 81 15 8A 01 04 83 02 AB CD 80 02 00 10 \
          86 08 00 20 00 20 00 20 00 20 -> 90 00         # a private file, now selected
        00 E0 01 00 14 62 12 83 02 AB CE 80 02 00 C9 86 08 00*4 00 20 00 20 -> 6A 84
        00 E0 01 00 14 62 12 83 02 AB CE 80 02 00 C8 86 08 00*4 00 20 00 20 -> 90 00
        80 CB 01 11 00 -> 00 00 00 00 90 00
        00 E4 00 00 -> 90 00
        80 A4 08 0C 0C 3F 00 30 00 30 02 50 00 00 01 AB CD 00 -> ... 90 00
        00 D6 00 00 04 DE AD BE EF -> 90 00
        10 D6 00 00 01 11 -> 90 00                       # chained
        00 D6 00 01 01 22 -> 68 83                       # a chain ends with its own header
        00 B0 00 00 04 -> DE AD BE EF 90 00
        00 D6 00 0F 02 01 02 -> 6A 84
        00 E4 01 00 -> 69 81                             # a file is not a directory
        80 28 00 00 04 00 00 00 20 -> 90 00
        80 CE 00 00 00 -> 90 00
        00 B0 00 00 04 -> 69 82
        00 E4 00 00 -> 69 82
        80 A4 08 0C 06 3F 00 30 00 99 99 00 -> 6A 82
        00 C0 00 00 10 -> 69 85                          # nothing waits
        80 99 00 00 -> 6D 00
        00 A4 08 0C -> 6E 00
    )");
    // The tree, the names, the content and a spent try survive a save and load.
    EXPECT_EQ(verify(*card, "0000"), "63 C2");
    const auto saved = card->find<IdprotectApplet>()->save();
    EXPECT_EQ(load(saved)->save(), saved);
    EXPECT_NE(saved.dump().find("DE AD BE EF"), std::string::npos);
}

TEST(IdprotectCard, ChannelCarriesChangeCountersAndUnblock) {
    auto card = makeCard();
    send(*card, kSelectApplet);
    const Bytes change = fromHex("80 24 00 00");
    const Bytes newPin = fromHex("62 81 06 81 04 34 33 32 31");  // 4321
    send(*card, "80 A4 08 0C 04 3F 00 00 20 00");
    EXPECT_EQ(verify(*card, "1234"), "90 00");
    EXPECT_EQ(send(*card, "80 24 00 00 09 " + toHex(newPin)), "69 82");  // not wrapped
    EXPECT_EQ(toHex(card->process(wrap(Keys{Bytes(16), Bytes(16)}, change, newPin))), "69 85");

    Keys keys = openChannel(*card);
    Bytes forged = wrap(keys, change, newPin);
    forged.back() ^= 0x01;
    EXPECT_EQ(toHex(card->process(forged)), "69 88");
    EXPECT_EQ(toHex(card->process(wrap(keys, change, newPin))), "90 00");
    EXPECT_EQ(toHex(card->process(wrap(keys, change, newPin))), "69 88");  // a replay
    EXPECT_EQ(send(*card, "80 86 FF FF"), "90 00");
    EXPECT_EQ(send(*card, "80 86 FF FF"), "69 85");
    EXPECT_EQ(verify(*card, "1234"), "63 C2");
    EXPECT_EQ(verify(*card, "4321"), "90 00");

    // Counted down to blocked, then unblocked under the administrator's PIN.
    const struct {
        const char* pin;
        const char* answer;
        const char* tries;  // the last byte of 85: left, total
    } steps[] = {
        {"9999", "63 C2", "23"}, {"4321", "90 00", "33"}, {"0000", "63 C2", "23"},
        {"0000", "63 C1", "13"}, {"0000", "63 C0", "03"}, {"4321", "69 83", "03"},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(verify(*card, s.pin), s.answer) << s.pin;
        const std::string fcp = send(*card, "80 A4 08 0C 04 3F 00 00 20 00");
        EXPECT_EQ(fcp.substr(fcp.size() - 8, 2), s.tries) << s.pin;
    }
    EXPECT_EQ(send(*card, "80 20 00 00 10 " + toHex(Bytes(16, 0))), "69 83");  // before a challenge
    EXPECT_EQ(send(*card, "80 2C 00 00 00"), "69 82");
    send(*card, "80 A4 08 0C 04 3F 00 00 10 00");
    EXPECT_EQ(verify(*card, "87654321"), "90 00");
    send(*card, "80 A4 08 0C 04 3F 00 00 20 00");
    EXPECT_EQ(send(*card, "80 2C 00 00 00"), "90 00");
    keys = openChannel(*card);
    EXPECT_EQ(toHex(card->process(wrap(keys, change, fromHex("62 81 05 81 03 31 32 33")))),
              "6A 80");  // too short
    EXPECT_EQ(toHex(card->process(wrap(keys, change, newPin, 2))), "90 00");
    EXPECT_EQ(verify(*card, "4321"), "90 00");
    EXPECT_EQ(send(*card, "80 CE 00 00 00"), "01 00 10 00 00 20 90 00");

    card->reset();  // the session goes: logins, channel, selection
    play(*card, R"(
        80 CE 00 00 00 -> 69 99
        00 A4 04 00 0C A0 00 00 01 64 4C 41 53 45 52 00 01 00 -> 90 00
        80 CE 00 00 00 -> 90 00
        80 86 FF FF -> 69 85
        80 20 00 00 10 00*16 -> 69 85
    )");
}

// Fingers 2 and 7 on a token whose user logs in with PIN and fingerprint.
TEST(IdprotectCard, FingersMatchOnCardAndTickets) {
    Personalisation p = smallToken();
    p.loginType = kLoginPinAndFinger;
    p.fingers = {{7, fromHex("70 71")}, {2, Bytes(300, 0x22)}};
    auto card = makeCard(p);
    auto* applet = card->find<IdprotectApplet>();
    const Bytes key = applet->state().fingers.front().ticketKey;
    const auto ticket = [&](const std::string& reference, const Bytes& k) {
        const Bytes c = card->process(fromHex("00 84 00 00 08"));
        const Bytes proof = des(k, Bytes(c.begin(), c.end() - 2));
        return send(*card, "00 22 03 00 0C " + reference + toHex(proof));
    };
    send(*card, kSelectApplet);
    play(*card, R"(
        10 22 02 00 FE 62 82 01 32 83 01 02 81 82 01 2B 22*243 -> 90 00
        00 22 02 00 38 22*56 00 -> 63 C2                # one byte short of the template
        00 22 02 00 09 62 07 83 01 07 81 02 70 71 00 -> 00 00 00 07 ... 90 00
    )");
    EXPECT_EQ(ticket("00 00 00 02 ", key), "90 00");
    EXPECT_EQ(verify(*card, "1234"), "69 85") << "the fingerprint object takes no PIN";
    send(*card, "80 A4 08 0C 04 3F 00 00 20 00");
    EXPECT_EQ(verify(*card, "1234"), "90 00");
    EXPECT_EQ(send(*card, "80 CE 00 00 00"), "00 00 20 00 00 23 0F 00 25 90 00");
    EXPECT_EQ(ticket("00 00 00 03 ", key), "63 C2") << "finger 3 is not enrolled";
    EXPECT_EQ(send(*card, "80 CE 00 00 00"), "00 00 20 90 00");
    EXPECT_EQ(ticket("00 00 00 02 ", Bytes(16, 0x01)), "63 C1");
    EXPECT_EQ(ticket("00 00 00 02 ", Bytes(16, 0x01)), "63 C0");
    EXPECT_EQ(ticket("00 00 00 02 ", key), "69 83");
    EXPECT_EQ(applet->describe().find(toHex(key).substr(0, 11)), std::string::npos);
}

TEST(IdprotectCard, KeysNeverReadDecipherOnlyAfterLoginAndNeedRoom) {
    IdprotectApplet small(personalise(smallToken()));  // 600 bytes of memory
    EXPECT_THROW(small.addKey(testKey(1024), ""), std::runtime_error);
    EXPECT_EQ(small.save(), IdprotectApplet(personalise(smallToken())).save());

    Personalisation p = smallToken();
    p.memory = 65536;
    auto card = makeCard(p);
    card->find<IdprotectApplet>()->addKey(testKey(1024), "");
    // The key file never reads; deciphering (82 the block, with the key's
    // companion file 0042 current) waits for the login.
    const std::string keyFile =
        "80 A4 08 0C 08 3F 00 30 00 30 02 02 01 00 -> ... 90 00\n"
        "00 B0 00 00 10 -> 69 82\n";
    play(*card,
         std::string(kSelectApplet) + " -> 90 00\n" + keyFile +
             "80 A4 08 0C 08 3F 00 30 00 30 02 00 42 00 -> ... 90 00\n00 2A 80 0C 83 82 81 80 " +
             toHex(blockAndResult(testKey(1024)).first) + " 00 -> 69 82");
    send(*card, "80 A4 08 0C 04 3F 00 00 20 00");
    EXPECT_EQ(verify(*card, "1234"), "90 00");
    play(*card, keyFile);
}

TEST(IdprotectCard, InitOptionsAndStoredStates) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"--pin-tries", "16"},
        {"--pin-tries", "0"},
        {"--login-type", "0x21"},
        {"--label", std::string(33, 'A')},
        {"--label", "caf\xC3\xA9"},
        {"--id", "0102"},
        {"--user-pin", "123"},
        {"--memory", "100"},
        {"--finger", "11=/dev/null"},
        {"--finger", "1=/nonexistent"},
        {"--finger", "1"}};
    for (const auto& [name, value] : refused) {
        vtoken::javacard::InitOptions options;
        options.add(name, value);
        EXPECT_THROW(install(options), std::invalid_argument) << name << " " << value;
    }
    const auto good = toJson(personalise(smallToken()));
    EXPECT_NO_THROW(fromJson(good));
    for (
        const char* edit :
        {R"("replace", "path": "/pin_tries", "value": 16)", R"("remove", "path": "/pins/1")",
         R"("replace", "path": "/tree/id", "value": "3000")",
         R"("add", "path": "/tree/children/0/name", "value": "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA")",
         R"("copy", "from": "/tree/children/0", "path": "/tree/children/-")"}) {
        const auto patch = nlohmann::ordered_json::parse(std::string(R"([{"op": )") + edit + "}]");
        EXPECT_THROW(fromJson(good.patch(patch)), std::invalid_argument) << edit;
    }
}

}  // namespace
}  // namespace krfs::component
