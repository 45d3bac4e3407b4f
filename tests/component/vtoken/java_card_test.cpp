// The virtual Java and Joker applets byte by byte on the Java card: one story
// for both, written with operation names that each variant's table turns
// into its instruction bytes. Keys, login answers and secure messaging are
// computed here with OpenSSL alone.
#include "java/java_applet.h"

#include "component/vtoken/card_script.h"
#include "javacard/javacard.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>

#include <iterator>
#include <memory>
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

// Each operation's class and instruction in the two variants.
const char* const kWords[] = {"SELECT",    "CREATE", "DELETE", "LIST",   "READ",
                              "WRITE",     "MARKER", "RESIZE", "STATUS", "AUTH",
                              "CHALLENGE", "CHANGE", "INFO"};
const struct Dialect {
    const char* name;
    vtoken::JavaInstallation (*install)(vtoken::javacard::InitOptions&);
    const char* selectApplet;
    const char* bytes;
} kDialects[] = {
    {"java", &vtoken::java::installJava, "00 A4 04 00 07 A0 00 00 03 12 02 02 00",
     "00A4 8016 00E4 8001 8018 8015 801B 801A 8007 8011 8017 800F 00CA"},
    {"joker", &vtoken::java::installJoker, "00 A4 04 00 08 A0 00 00 04 48 00 04 01 00",
     "8003 8009 8001 800D 801C 801B 801D 8017 8014 8010 8012 8018 8002"},
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

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes pad80(Bytes m) {
    m.push_back(0x80);
    while (m.size() % 8) m.push_back(0x00);
    return m;
}

Bytes des3(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& iv, const Bytes& data,
           bool encrypt) {
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    Bytes out(data.size() + 8);
    int n = 0, last = 0;
    EXPECT_EQ(EVP_CipherInit_ex(ctx.get(), cipher, nullptr, key.data(), iv.data(), encrypt), 1);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    EVP_CipherUpdate(ctx.get(), out.data(), &n, data.data(), static_cast<int>(data.size()));
    EVP_CipherFinal_ex(ctx.get(), out.data() + n, &last);
    out.resize(static_cast<std::size_t>(n + last));
    return out;
}

// Full triple DES CBC-MAC over the data padded with 80 00...
Bytes mac(const Bytes& key, const Bytes& data) {
    const Bytes chain = des3(EVP_des_ede3_cbc(), key, Bytes(8), pad80(data), true);
    return Bytes(chain.end() - 8, chain.end());
}

Bytes pkcs12Key(int id, const std::string& pin, const Bytes& salt) {
    Bytes bmp;
    for (char c : pin) bmp.insert(bmp.end(), {0x00, static_cast<unsigned char>(c)});
    bmp.insert(bmp.end(), {0x00, 0x00});
    Bytes key(24);
    EXPECT_EQ(
        PKCS12_key_gen_uni(bmp.data(), int(bmp.size()), const_cast<unsigned char*>(salt.data()),
                           int(salt.size()), id, 999, 24, key.data(), EVP_sha1()),
        1);
    return key;
}

// MD5(00 PIN) and MD5(01 PIN), 7 bits a key byte from the lowest up.
Bytes md5Key(const std::string& pin) {
    Bytes bits(32);
    for (unsigned char counter : {0, 1}) {
        const Bytes in = Bytes{counter} + Bytes(pin.begin(), pin.end());
        EVP_Digest(in.data(), in.size(), bits.data() + 16 * counter, nullptr, EVP_md5(), nullptr);
    }
    Bytes key(24);
    for (int bit = 0; bit < 168; ++bit)
        if (bits[bit / 8] >> (bit % 8) & 1)
            key[bit / 7] |= static_cast<unsigned char>(1 << bit % 7);
    return key;
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
    const Bytes answer = des3(EVP_des_ede3_ecb(), key, Bytes(8), c, true);
    return send(card, in(d, std::string("AUTH 00 ") + pin + " 0A 10 08 ") + toHex(answer));
}

// Command `plain` (header, Lc, body) wrapped under keys 1 and 2, asking
// for `le` bytes; `forge` spoils the MAC.
Bytes wrap(JavaCard& card, const Dialect& d, const std::vector<Bytes>& k, const Bytes& plain,
           const Bytes& h, unsigned char le = 0, bool forge = false) {
    Bytes c = card.process(fromHex(in(d, "CHALLENGE 01 00 08")));
    c.resize(8);
    c[7]++;
    const Bytes iv = fromHex("01 02 03 04 05 06 07 08");
    const Bytes e =
        des3(EVP_des_ede3_cbc(), k[1], iv, pad80(Bytes(plain.begin() + 5, plain.end())), true);
    Bytes body = Bytes{0x32, static_cast<unsigned char>(e.size())} + e + Bytes{0x22, 0x08} + iv +
                 fromHex("34 02 01 3E 33 08") + h + Bytes{0x0D, 0x08} + c;
    Bytes command = Bytes{static_cast<unsigned char>(plain[0] | 0x04), plain[1], plain[2], plain[3],
                          static_cast<unsigned char>(body.size())} +
                    body;
    const Bytes m = mac(k[2], command);
    std::copy(m.begin(), m.end(), command.end() - 8);
    if (forge) command.back() ^= 0x01;
    return command + Bytes{0x00, static_cast<unsigned char>(0x20 + le)};
}

// The data of a wrapped answer after its MAC (key 4, over H and the status
// word too) checked, decrypted under key 3; its status word.
std::string unwrap(const Bytes& answer, const std::vector<Bytes>& k, const Bytes& h) {
    if (answer.size() < 12) return toHex(answer);
    const Bytes part(answer.begin(), answer.end() - 12), sw(answer.end() - 2, answer.end());
    EXPECT_EQ(mac(k[4], part + h + sw + Bytes{0x0D, 0x08}),
              Bytes(answer.end() - 10, answer.end() - 2));
    if (part.size() == 4) return toHex(part + sw);
    EXPECT_EQ(toHex(Bytes(part.begin(), part.begin() + 2)), "22 08");
    const Bytes iv(part.begin() + 2, part.begin() + 10), e(part.begin() + 12, part.end());
    Bytes plain = des3(EVP_des_ede3_cbc(), k[3], iv, e, false);
    while (plain.back() == 0x00) plain.pop_back();
    plain.pop_back();
    return toHex(plain + sw);
}

TEST(JavaCard, FileSystemStory) {
    for (const Dialect& d : kDialects) {
        SCOPED_TRACE(d.name);
        JavaCard card = makeCard(d, {});
        play(card, in(d, R"(
            SELECT 00 04 00 -> 01 01 01 03 02 00 00 04 05 21 00 00 00 00 90 00
            SELECT 08 04 06 66 66 50 00 00 02 00 -> 01 01 02 03 02 00 09 04 05 00 11 00 00 00 90 00
            READ 00 00 04 0E 02 00 00 09 -> 6B 72 46 53 20 4A 61 76 61 90 00    # krFS Java
            READ 00 00 04 0E 02 00 01 09 -> 6B 00
            SELECT 08 04 04 66 66 50 01 00 -> 67 07
            SELECT 08 04 04 66 66 50 00 00 -> 01 01 01 03 02 00 00 04 05 11 00 00 00 00 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 67 36
            LIST 02 00 04 09 02 00 00 CD -> 0A 06 00 02 00 0A 00 0F 0B 01 00 90 00
        )"));
        const Bytes salt = saltOf(card, d);
        EXPECT_EQ(login(card, d, "11", pkcs12Key(3, "12345678", salt)), "90 00");
        play(card, in(d, R"(
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 10 04 05 11 11 11 11 11 -> 67 03
            CREATE 01 00 12 01 01 01 02 02 00 07 03 02 00 00 04 05 11 11 11 11 11 -> 90 00
            LIST 02 00 04 09 02 00 00 CD -> 0A 08 00 02 00 0A 00 0F 00 01 0B 01 00 90 00
            LIST 01 00 04 09 02 00 00 CD -> 0A 02 00 07 0B 01 00 90 00
            SELECT 08 04 06 66 66 50 00 00 01 00 -> 01 01 02 03 02 00 10 04 05 11 11 11 11 11 90 00
            WRITE 00 00 08 0E 02 00 04 10 02 CA FE -> 90 00
            READ 00 00 04 0E 02 00 03 03 -> 00 CA FE 90 00
            WRITE 00 00 08 0E 02 00 0F 10 02 CA FE -> 6B 00
            LIST 02 00 04 09 02 00 00 CD -> 67 01
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
        EXPECT_EQ(login(card, d, "11", pkcs12Key(3, "12345678", salt)), "90 00");
        play(card, in(d, "READ 00 00 04 0E 02 00 03 03 -> 00 CA FE 90 00"));
    }
}

TEST(JavaCard, PinCountersChangeAndUnblock) {
    for (const Dialect& d : kDialects) {
        SCOPED_TRACE(d.name);
        const bool java = &d == &kDialects[0];
        JavaCard card = makeCard(d, {{"--pin-tries", "3"}});
        const Bytes salt = saltOf(card, d);
        const Bytes first = pkcs12Key(3, "12345678", salt), next = pkcs12Key(3, "11112222", salt);
        EXPECT_EQ(login(card, d, "11", first), "90 00");
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
        EXPECT_EQ(login(card, d, "21", md5Key("87654321")), "90 00");
        EXPECT_EQ(send(card, unblock), java ? "90 00" : "6D 00");
        EXPECT_EQ(login(card, d, "11", first), java ? "90 00" : "69 83");
        EXPECT_EQ(send(card, in(d, "STATUS 00 21 05 10 03 23 06 20 00")),
                  "23 01 03 06 01 03 20 01 01 90 00");
    }
}

TEST(JavaCard, FipsChangesOnlyWrapped) {
    for (const Dialect& d : kDialects) {
        SCOPED_TRACE(d.name);
        JavaCard card = makeCard(d, {{"--fips", "1"}});
        const Bytes salt = saltOf(card, d);
        play(card, in(d, "READ 00 00 04 0E 02 00 00 14 -> " + toHex(salt) + R"( 90 00
            SELECT 08 04 06 66 66 50 00 00 0A 00 -> ... 90 00
            READ 00 00 04 0E 02 00 00 02 -> 00 01 90 00)"));
        std::vector<Bytes> k;
        for (int i = 0; i < 5; ++i) k.push_back(pkcs12Key(i, "12345678", salt));
        const Bytes h = fromHex("A1 A2 A3 A4 A5 A6 A7 A8"), shadow = pkcs12Key(0, "0000", salt);
        const Bytes change = fromHex(in(d, "CHANGE 00 1A 1A 10 18")) + shadow;
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, change, h))), "69 88");  // no login
        EXPECT_EQ(login(card, d, "11", k[0]), "90 00");
        EXPECT_EQ(toHex(card.process(change)), "69 82");
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, change, h, 0, true))), "69 88");
        const Bytes wrapped = wrap(card, d, k, change, h);
        EXPECT_EQ(unwrap(card.process(wrapped), k, h), "99 02 90 00 90 00");
        EXPECT_EQ(toHex(card.process(wrapped)), "69 88");  // its challenge is gone
        const Bytes read = fromHex(in(d, "READ 00 00 04 0E 02 00 00"));
        EXPECT_EQ(unwrap(card.process(wrap(card, d, k, read, h, 2)), k, h), "00 01 90 00");
        const Bytes admin = fromHex(in(d, "CHANGE 00 21 1A 10 18")) + shadow;
        EXPECT_EQ(toHex(card.process(wrap(card, d, k, admin, h))), "67 36");
        EXPECT_EQ(login(card, d, "1A", shadow), "90 00");
    }
}

TEST(JavaCard, MemoryLabelMarkerAndInformation) {
    for (const Dialect& d : kDialects) {
        SCOPED_TRACE(d.name);
        JavaCard card = makeCard(d, {{"--memory", "300"},
                                     {"--id", "01 02 03"},
                                     {"--date", "20 24 12 31"},
                                     {"--colour", "7"},
                                     {"--version", "02 05"}});
        login(card, d, "11", pkcs12Key(3, "12345678", saltOf(card, d)));
        play(card, in(d, R"(
            INFO 01 07 00 -> 07 0E 01 03 01 02 03 04 04 20 24 12 31 05 01 07 90 00
            INFO 01 11 00 -> 11 02 02 05 90 00
            INFO 01 13 00 -> 13 04 00 00 01 2C 90 00
            INFO 01 14 00 -> 14 04 00 00 00 4D 90 00   # 300 - 6 nodes - 31 bytes
            INFO 02 14 00 -> 6B 00
            SELECT 08 04 06 66 66 50 00 00 02 00 -> ... 90 00
            RESIZE 00 00 04 03 02 00 57 00 -> 67 35
            RESIZE 00 00 04 03 02 00 56 00 -> 90 00
            INFO 01 14 00 -> 14 04 00 00 00 00 90 00
            RESIZE 00 00 04 03 02 00 04 00 -> 90 00
            READ 00 00 04 0E 02 00 00 04 -> 6B 72 46 53 90 00
            SELECT 08 04 04 66 66 50 00 00 -> ... 90 00
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 33 04 05 00 00 00 00 00 -> 67 35
            CREATE 01 00 12 01 01 02 02 02 00 01 03 02 00 32 04 05 00 00 00 00 00 -> 90 00
            MARKER 00 00 12 10 10 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 -> 90 00
        )"));
        const auto* applet = card.find<vtoken::java::JavaApplet>();
        EXPECT_EQ(toHex(applet->state().marker), "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10");
        EXPECT_NE(applet->describe().find("marker      01 02 03"), std::string::npos);
    }
}

TEST(JavaCard, ListPagesAndStateRoundTrip) {
    const Dialect& d = kDialects[1];
    JavaCard card = makeCard(d, {{"--pin-tries", "4"}});
    const Bytes salt = saltOf(card, d);
    login(card, d, "11", pkcs12Key(3, "12345678", salt));
    send(card, in(d, "SELECT 08 04 04 66 66 50 00 00"));
    for (int i = 0; i < 98; ++i) {
        const std::string id = toHex({0x10, static_cast<unsigned char>(i)});
        ASSERT_EQ(send(card, in(d, "CREATE 01 00 12 01 01 02 02 02 " + id +
                                       " 03 02 00 00 04 05 00 00 00 00 00")),
                  "90 00");
    }
    const std::string page1 = send(card, in(d, "LIST 02 00 04 09 02 00 00 CD"));
    EXPECT_EQ(page1.substr(0, 24) + page1.substr(page1.size() - 20),
              "0A C8 00 02 00 0A 00 0F 10 60 0B 01 01 90 00");  // the first 100
    EXPECT_EQ(send(card, in(d, "LIST 02 00 04 09 02 00 64 CD")),
              "0A 02 10 61 0B 01 00 90 00");  // the 101st file
    login(card, d, "11", pkcs12Key(3, "1", salt));

    auto* applet = card.find<vtoken::java::JavaApplet>();
    auto copy = vtoken::java::loadJoker(applet->save());
    EXPECT_EQ(copy->save(), applet->save());
    EXPECT_NE(copy->describe().find("PIN 11  user  tries 3/4  keys in slots 0 1 2 3 4"),
              std::string::npos);
    using Edit = void (*)(nlohmann::ordered_json&);
    const Edit broken[] = {
        [](nlohmann::ordered_json& j) { j["pins"][0]["tries_left"] = 5; },
        [](nlohmann::ordered_json& j) { j["pins"][0]["slots"][1] = "01 02"; },
        [](nlohmann::ordered_json& j) { j["pins"].erase(1); },
        [](nlohmann::ordered_json& j) { j["tree"]["access"] = "21"; },
        [](nlohmann::ordered_json& j) { j["marker"] = "01"; },
    };
    for (const Edit edit : broken) {
        auto j = applet->save();
        edit(j);
        EXPECT_THROW(vtoken::java::fromJson(j), std::invalid_argument) << j.dump();
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
