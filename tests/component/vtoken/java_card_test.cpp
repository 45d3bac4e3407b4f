// The virtual Java and Joker applets byte by byte on the Java card: one story
// for both, written with operation names that each variant's table turns
// into its instruction bytes.
#include "java/java_applet.h"

#include "component/vtoken/card_script.h"
#include "javacard/javacard.h"
#include "unit/java_oracle.h"

#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using vtoken::javacard::JavaCard;
using Given = std::vector<std::pair<std::string, std::string>>;
using oracle::java::Keys;

// Each operation's class and instruction in the two variants.
const char* const kWords[] = {"SELECT",    "CREATE", "DELETE", "LIST",    "READ",
                              "WRITE",     "MARKER", "RESIZE", "STATUS",  "AUTH",
                              "CHALLENGE", "CHANGE", "INFO",   "DECIPHER"};
const struct Dialect {
    const char* name;
    vtoken::JavaInstallation (*install)(vtoken::javacard::InitOptions&);
    const char* selectApplet;
    const char* bytes;
} kDialects[] = {
    {"java", &vtoken::java::installJava, "00 A4 04 00 07 A0 00 00 03 12 02 02 00",
     "00A4 8016 00E4 8001 8018 8015 801B 801A 8007 8011 8017 800F 00CA 800C"},
    {"joker", &vtoken::java::installJoker, "00 A4 04 00 08 A0 00 00 04 48 00 04 01 00",
     "8003 8009 8001 800D 801C 801B 801D 8017 8014 8010 8012 8018 8002 8019"},
};

// The variant's bytes for each operation name.
std::string in(const Dialect& d, std::string text) {
    for (std::size_t i = 0; i < std::size(kWords); ++i)
        text = std::regex_replace(text, std::regex(std::string("\\b") + kWords[i] + "\\b"),
                                  std::string(d.bytes + 5 * i, 4));
    return text;
}

JavaCard makeCard(const Dialect& d, const Given& given) {
    vtoken::javacard::InitOptions options;
    for (const auto& [name, value] : given) options.add(name, value);
    auto installation = d.install(options);
    options.requireAllUsed(d.name);
    JavaCard card(installation.atr, std::move(installation.applets));
    EXPECT_EQ(send(card, d.selectApplet), "90 00");
    return card;
}

Bytes key(int id, const std::string& pin, const Bytes& salt) {
    return oracle::saltedKey(id, Bytes(pin.begin(), pin.end()), salt);
}

Bytes saltOf(JavaCard& card, const Dialect& d) {
    play(card, in(d, "SELECT 08 04 06 66 66 50 00 00 0F 00 -> ... 90 00"));
    const Bytes salt = card.process(fromHex(in(d, "READ 00 00 04 0E 02 00 00 14")));
    return Bytes(salt.begin(), salt.end() - 2);
}

// A login of PIN object `pin` with `key` on a fresh challenge: the status word.
std::string login(JavaCard& card, const Dialect& d, const char* pin, const Bytes& key) {
    Bytes c = card.process(fromHex(in(d, "CHALLENGE 00 00 08")));
    c.resize(8);
    return send(card, in(d, std::string("AUTH 00 ") + pin + " 0A 10 08 ") +
                          toHex(oracle::challengeMac(key, c)));
}

// Command `plain` wrapped under `k` on a fresh card challenge; `forge` spoils the MAC.
Bytes wrap(JavaCard& card, const Dialect& d, const Keys& k, const Bytes& plain, const Bytes& h,
           bool forge = false) {
    Bytes c = card.process(fromHex(in(d, "CHALLENGE 01 00 08")));
    c.resize(8);
    Bytes command = oracle::java::wrapped(k, c, plain, fromHex("01 02 03 04 05 06 07 08"), h);
    command[command.size() - 3] ^= forge;
    return command;
}

// The data of a wrapped answer after its MAC (key 4, over H and the status
// word too) checked, decrypted under key 3; its status word.
std::string unwrap(const Bytes& answer, const Keys& k, const Bytes& h) {
    if (answer.size() < 12) return toHex(answer);
    const Bytes part(answer.begin(), answer.end() - 12), sw(answer.end() - 2, answer.end());
    EXPECT_EQ(oracle::java::mac(k[4], oracle::cat({part, h, sw, {0x0D, 0x08}})),
              Bytes(answer.end() - 10, answer.end() - 2));
    if (part.size() == 4) return toHex(oracle::cat({part, sw}));
    EXPECT_EQ(toHex(Bytes(part.begin(), part.begin() + 2)), "22 08");
    const std::size_t at = part[11] == 0xFF ? 14 : 12;  // 32 L, or 32 FF HH LL
    const Bytes iv(part.begin() + 2, part.begin() + 10), e(part.begin() + at, part.end());
    Bytes plain = oracle::evp("DES-EDE3-CBC", k[3], iv, e, false);
    while (plain.back() == 0x00) plain.pop_back();
    plain.pop_back();
    return toHex(oracle::cat({plain, sw}));
}

// The refusal words a driver reacts to, and a reset that ends the login.
TEST(JavaCard, FileSystemRefusalsAndResetEndsTheLogin) {
    for (const Dialect& d : kDialects) {
        JavaCard card = makeCard(d, {});
        play(card, in(d, R"(
            00 A4 04 00 05 A0 00 00 00 00 00 -> 6A 82                   # an unknown applet
            SELECT 08 04 06 66 66 50 00 00 02 00 -> ... 90 00
            READ 00 00 04 0E 02 00 01 09 -> 6B 00
            SELECT 08 04 04 66 66 50 01 00 -> 67 07
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 67 36
        )"));
        const Bytes salt = saltOf(card, d);
        EXPECT_EQ(login(card, d, "11", key(3, "12345678", salt)), "90 00");
        play(card, in(d, R"(
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 67 03
            CREATE 01 00 12 01 01 01 02 02 00 07 03 02 00 00 04 05 11 11 11 11 11 -> 90 00
            SELECT 08 04 06 66 66 50 00 00 01 00 -> ... 90 00
            WRITE 00 00 08 0E 02 00 04 10 02 CA FE -> 90 00
            WRITE 00 00 08 0E 02 00 0F 10 02 CA FE -> 6B 00
            LIST 02 00 04 09 02 00 00 CD -> 67 01      # a file is current
            CREATE 01 00 12 01 01 02 02 02 00 09 03 02 00 10 04 05 11 11 11 11 11 -> 67 01
            SELECT 08 04 06 66 66 50 00 00 07 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 09 03 02 00 00 04 05 00 00 00 00 00 -> 90 00
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            DELETE 00 00 02 00 07 -> 69 85    # not empty
            DELETE 00 00 02 00 08 -> 67 07
        )"));
        card.reset();  // deselect: no login, no challenge, no selection
        play(card, in(d, std::string(d.selectApplet) + R"( -> 90 00
            AUTH 00 11 0A 10 08 00 00 00 00 00 00 00 00 -> 69 85
            SELECT 08 04 06 66 66 50 00 00 01 00 -> ... 90 00
            READ 00 00 04 0E 02 00 03 03 -> 67 36
            80 99 00 00 -> 6D 00
            90 18 00 00 -> 6E 00
        )"));
        EXPECT_EQ(login(card, d, "11", key(3, "12345678", salt)), "90 00");
        play(card, in(d, "READ 00 00 04 0E 02 00 03 03 -> 00 CA FE 90 00"));
    }
}

TEST(JavaCard, InformationMemoryPinCountersAndUnblock) {
    for (const Dialect& d : kDialects) {
        SCOPED_TRACE(d.name);
        const bool java = &d == &kDialects[0];
        JavaCard card = makeCard(d, {{"--pin-tries", "3"}, {"--memory", "300"}});
        const Bytes salt = saltOf(card, d);
        const Bytes first = key(3, "12345678", salt), next = key(3, "11112222", salt);
        EXPECT_EQ(login(card, d, "11", first), "90 00");
        play(card, in(d, R"(
            INFO 01 13 00 -> 13 04 00 00 01 2C 90 00
            INFO 01 14 00 -> 14 04 00 00 00 4D 90 00   # 300 - 6 nodes - 31 bytes
            INFO 02 14 00 -> 6B 00
            SELECT 08 04 06 66 66 50 00 00 02 00 -> ... 90 00
            RESIZE 00 00 04 03 02 00 57 00 -> 67 35
            RESIZE 00 00 04 03 02 00 56 00 -> 90 00
            INFO 01 14 00 -> 14 04 00 00 00 00 90 00
            RESIZE 00 00 04 03 02 00 04 00 -> 90 00
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 33 04 05 00 00 00 00 00 -> 67 35
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 32 04 05 00 00 00 00 00 -> 90 00
            MARKER 00 00 12 10 10 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 -> 90 00
        )"));
        const auto* applet = card.find<vtoken::java::JavaApplet>();
        EXPECT_EQ(toHex(applet->state().marker), "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10");
        EXPECT_EQ(send(card, in(d, "AUTH 00 11 0A 10 08 00 00 00 00 00 00 00 00")),
                  "69 85");  // challenge used
        EXPECT_EQ(send(card, in(d, "CHANGE 00 11 1A 10 18 ") + toHex(next)), "90 00");
        EXPECT_EQ(send(card, in(d, "CHANGE 00 1A 1A 10 18 ") + toHex(next)), "67 07");
        EXPECT_EQ(send(card, in(d, "CHANGE 00 21 1A 10 18 ") + toHex(next)), "67 36");
        const struct {
            bool right;
            const char* answer;
            const char* status;  // tries left, total, verified
        } steps[] = {
            {false, "67 05", "23 01 02 06 01 03 20 01 00"},
            {true, "90 00", "23 01 03 06 01 03 20 01 01"},
            {false, "67 05", "23 01 02 06 01 03 20 01 00"},
            {false, "67 05", "23 01 01 06 01 03 20 01 00"},
            {false, "67 05", "23 01 00 06 01 03 20 01 00"},
            {true, "69 83", "23 01 00 06 01 03 20 01 00"},
        };
        for (const auto& s : steps) {
            EXPECT_EQ(login(card, d, "11", s.right ? next : first), s.answer);
            EXPECT_EQ(send(card, in(d, "STATUS 00 11 05 10 03 23 06 20 00")),
                      std::string(s.status) + " 90 00");
        }
        const std::string unblock = "80 13 00 11 1A 10 18 " + toHex(first);
        EXPECT_EQ(send(card, unblock), java ? "67 36" : "6D 00");
        EXPECT_EQ(login(card, d, "21", oracle::plainKey(fromHex("3837363534333231"))), "90 00");
        EXPECT_EQ(send(card, unblock), java ? "90 00" : "6D 00");
        EXPECT_EQ(login(card, d, "11", first), java ? "90 00" : "69 83");
        EXPECT_EQ(send(card, in(d, "STATUS 00 21 05 10 03 23 06 20 00")),
                  "23 01 03 06 01 03 20 01 01 90 00");
    }
}

// The first key's directory below 3F00 6666 5000 0220.
const std::string kKeyDir = "SELECT 08 04 08 66 66 50 00 02 20 30 01 -> ... 90 00\n";

// DECIPHER 03 31 of a 256-byte block in its extended form: 10 FF 01 00 and the block.
std::string decipher(const Dialect& d, const Bytes& block) {
    return in(d, "DECIPHER 03 31 00 01 04 10 FF 01 00 ") + toHex(block) + " 04 00";
}

TEST(JavaCard, FipsChangesOnlyWrappedAndDeciphersWrapped) {
    const auto [block, result] = blockAndResult(testKey(2048));
    for (const Dialect& d : kDialects) {
        JavaCard card = makeCard(d, {{"--fips", "1"}});
        card.find<vtoken::java::JavaApplet>()->addKey(testKey(2048), "f");
        const Bytes salt = saltOf(card, d);
        Keys k;
        for (int i = 0; i < 5; ++i) k.push_back(key(i, "12345678", salt));
        const Bytes h = fromHex("A1 A2 A3 A4 A5 A6 A7 A8"), shadow = key(0, "0000", salt);
        const Bytes change = oracle::cat({fromHex(in(d, "CHANGE 00 1A 1A 10 18")), shadow});
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, change, h))), "69 88");  // no login
        EXPECT_EQ(login(card, d, "11", k[0]), "90 00");
        EXPECT_EQ(toHex(card.process(change)), "69 82");
        EXPECT_EQ(send(card, "80 13 00 11 1A 10 18 " + toHex(shadow)),
                  &d == kDialects ? "69 82" : "6D 00");  // unblock too
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, change, h, true))), "69 88");
        const Bytes wrapped = wrap(card, d, k, change, h);
        EXPECT_EQ(unwrap(card.process(wrapped), k, h), "99 02 90 00 90 00");
        EXPECT_EQ(toHex(card.process(wrapped)), "69 88");                   // its challenge is gone
        const Bytes read = fromHex(in(d, "READ 00 00 04 0E 02 00 00 02"));  // the salt
        EXPECT_EQ(unwrap(card.process(wrap(card, d, k, read, h)), k, h),
                  toHex({salt[0], salt[1]}) + " 90 00");
        play(card, in(d, kKeyDir));
        EXPECT_EQ(unwrap(card.process(wrap(card, d, k, fromHex(decipher(d, block)), h)), k, h),
                  "10 FF 01 00 " + toHex(result) + " 90 00");
        const Bytes admin = oracle::cat({fromHex(in(d, "CHANGE 00 21 1A 10 18")), shadow});
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, admin, h))), "67 36");
        EXPECT_EQ(login(card, d, "1A", shadow), "90 00");
    }
}

TEST(JavaCard, StateRoundTripAndRefusedStatesAndOptions) {
    const Dialect& d = kDialects[1];
    JavaCard card = makeCard(d, {{"--pin-tries", "4"}});
    const Bytes salt = saltOf(card, d);
    login(card, d, "11", key(3, "1", salt));
    auto* applet = card.find<vtoken::java::JavaApplet>();
    applet->addKey(testKey(2048), "k");
    auto copy = vtoken::java::loadJoker(applet->save());
    EXPECT_EQ(copy->save(), applet->save());
    EXPECT_EQ(copy->describe().find(toHex(testKey(2048).privateKey)), std::string::npos);
    for (const char* edit :
         {R"("replace", "path": "/pins/0/tries_left", "value": 5)",
          R"("replace", "path": "/pins/0/slots/1", "value": "01 02")",
          R"("remove", "path": "/pins/1")", R"("replace", "path": "/tree/access", "value": "21")",
          R"("replace", "path": "/marker", "value": "01")",
          R"("replace", "path": "/keys/0/private_key", "value": "30 01")"}) {
        const auto patch = nlohmann::ordered_json::parse(std::string(R"([{"op": )") + edit + "}]");
        EXPECT_THROW(vtoken::java::fromJson(applet->save().patch(patch)), std::invalid_argument)
            << edit;
    }
    for (const Given& given : std::vector<Given>{{{"--pin-tries", "16"}},
                                                 {{"--pin-tries", "0"}},
                                                 {{"--label", std::string(33, 'L')}},
                                                 {{"--memory", "200"}},
                                                 {{"--id", ""}},
                                                 {{"--colour", "256"}}})
        EXPECT_THROW(makeCard(d, given), std::invalid_argument) << given.front().first;
}

}  // namespace
}  // namespace krfs::component
