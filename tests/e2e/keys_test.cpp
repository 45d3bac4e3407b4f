// On-token keys through pcscd with the C++ interface an application uses:
// each family's virtual token carries a key with its certificate and a
// certificate alone; the host lists and pairs them, and the card decrypts
// what OpenSSL encrypted with the certificate's public key.
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <memory>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "e2e/rsa_public.h"
#include "harness/harness.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "src/SCardSender.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;
using libapdu::IToken;

constexpr long kCorrupted = 0x86E06281L;
const char kPin[] = "12345678";

struct Family {
    const char* name;
    const char* dialect;
    bool fips;
    WORD applet;
    int bits;

    bool java() const { return std::string(dialect) == "java"; }
    // The FIPS Pro finder gives every key 128 bytes, whatever its modulus.
    unsigned short size() const { return fips ? 128 : static_cast<unsigned short>(bits / 8); }
    // Java takes any block to the card, which refuses it with its own word.
    long badBlock() const { return java() ? 0x86E06B00L : kCorrupted; }
};

const Family kFamilies[] = {
    {"Pro42", "pro", false, 0x1002, 1024},
    {"Pro42_2048", "pro", false, 0x1002, 2048},
    {"Pro42Fips", "pro", true, 0x1002, 1024},
    {"Pro42Fips_2048", "pro", true, 0x1002, 2048},
    {"Java", "java", false, 0x2001, 1024},
    {"Java_2048", "java", false, 0x2001, 2048},
    {"Joker", "joker", false, 0x2204, 1024},
    {"Joker_2048", "joker", false, 0x2204, 2048},
    {"IDProtect", "idprotect", false, 0x2101, 1024},
    {"IDProtect_2048", "idprotect", false, 0x2101, 2048},
};

// Counts the exchanges that reach the card.
class CountingSender : public libapdu::ISender {
public:
    explicit CountingSender(const std::string& reader) : inner(reader, 3, 0) {}
    void send(const TBytes& command, TBytes& response) override {
        ++sent;
        inner.send(command, response);
    }
    TBytes atr() override { return inner.atr(); }
    int sent = 0;

private:
    CSCardSender inner;
};

template <class F>
long codeOf(F&& call) {
    try {
        call();
    } catch (const libapdu::IException& e) {
        return e.code();
    }
    return 0;
}

std::string str(const TBytes& b) { return std::string(b.begin(), b.end()); }
TBytes bytes(const std::string& s) { return TBytes(s.begin(), s.end()); }

class Keys : public ::testing::TestWithParam<Family> {};

void story(const Family& f);

TEST_P(Keys, ListPairDecrypt) {
    try {
        story(GetParam());
    } catch (const CAException& e) {
        FAIL() << "failure 0x" << std::hex << e.Code();
    }
}

void story(const Family& f) {
    TempDir dir("krfs-keys");
    const std::string state = dir.file("token.json");
    TokenInit init;
    init.dialect = f.dialect;
    init.fips = f.fips;
    init.userPin = kPin;
    initToken(state, init);
    vtokenCommand({"add-key", "--state", state, "--bits", std::to_string(f.bits), "--cn", "alice",
                   "--id", "01"});
    vtokenCommand({"add-key", "--state", state, "--bits", "1024", "--cn", "bob", "--id", "02",
                   "--cert-only"});
    Pcscd pcscd;
    VTokenOptions o;
    o.stateFile = state;
    VToken card(pcscd, 0, o);

    std::unique_ptr<libapdu::ISender> sender(new CountingSender(card.reader()));
    CountingSender* counter = static_cast<CountingSender*>(sender.get());
    std::unique_ptr<IToken> token = IToken::create(sender);
    token->selectApplet(f.applet);
    libapdu::IAppCrypto* crypto = token->crypto();

    const int before = counter->sent;
    const std::vector<TPath> paths = crypto->list(0x1001);
    const int listed = counter->sent - before;
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(crypto->list(0x1002), paths) << "the argument is not looked at";
    if (f.applet != 0x2101) {
        EXPECT_EQ(counter->sent - before, listed) << "the list is built once";
    }  // IDProtect keeps no list: it walks its two directories each time
    std::cout << "[ APDUs  ] first list: " << listed << "\n";

    // The key with its certificate first, then the certificate alone.
    crypto->select(paths[0]);
    const libapdu::CCryptoInfo key = crypto->info();
    EXPECT_EQ(key.size, f.size());
    EXPECT_EQ(key.privateKey.size(), f.size());
    ASSERT_EQ(key.publicKey.size(), static_cast<std::size_t>(f.bits / 8));
    const Pkey rsa = publicKeyOf(str(key.certificate));
    ASSERT_NE(rsa, nullptr);

    TBytes message(key.publicKey.size(), 0);
    for (std::size_t i = 1; i < message.size(); ++i) message[i] = static_cast<unsigned char>(i);
    const TBytes raw = bytes(publicOp(rsa.get(), false, RSA_NO_PADDING, str(message)));
    ASSERT_EQ(raw.size(), message.size());
    EXPECT_EQ(codeOf([&] { crypto->decrypt(raw); }), kNoLogin) << "no PIN yet";

    token->pin()->select(token->pin()->pathUser());
    token->pin()->login(TBytes(kPin, kPin + 8));
    crypto->select(paths[0]);  // the login moved the card's current file
    if (f.fips && f.bits == 2048) {
        // Secure messaging with one-byte lengths cannot carry a 256-byte block.
        EXPECT_EQ(codeOf([&] { crypto->decrypt(raw); }), 0x86E06B00L);
        return;
    }

    TBytes result;
    ASSERT_EQ(codeOf([&] { result = crypto->decrypt(raw); }), 0);
    EXPECT_EQ(result, message);

    const TBytes secret{'k', 'r', 'F', 'S', ' ', 'k', 'e', 'y', 's'};
    const std::string sealed = publicOp(rsa.get(), false, RSA_PKCS1_PADDING, str(secret));
    ASSERT_EQ(codeOf([&] { result = crypto->decrypt(bytes(sealed)); }), 0);
    // The padding comes back for the caller to remove: 00 02 PS 00 M.
    ASSERT_EQ(result.size(), message.size());
    EXPECT_EQ(result[1], 2);
    EXPECT_EQ(str(result).substr(result.size() - secret.size() - 1), '\0' + str(secret));

    TBytes shorter(key.publicKey.begin() + 1, key.publicKey.end());
    EXPECT_EQ(codeOf([&] { crypto->decrypt(key.publicKey); }), f.badBlock()) << "the modulus";
    EXPECT_EQ(codeOf([&] { crypto->decrypt(shorter); }), f.badBlock()) << "a byte short";

    crypto->select(paths[1]);
    const libapdu::CCryptoInfo alone = crypto->info();
    EXPECT_TRUE(alone.privateKey.empty());
    EXPECT_EQ(alone.pin, 0);
    EXPECT_EQ(alone.size, 128);
    message.resize(128);
    const TBytes toBob = bytes(
        publicOp(publicKeyOf(str(alone.certificate)).get(), false, RSA_NO_PADDING, str(message)));
    // Java sends it: the card still holds the key selected before.
    if (!f.java()) {
        EXPECT_EQ(codeOf([&] { crypto->decrypt(toBob); }), kNotFound);
    }
    EXPECT_EQ(codeOf([&] { crypto->select({0x3F00, 0x1234}); }), kNotFound);
}

INSTANTIATE_TEST_SUITE_P(Families, Keys, ::testing::ValuesIn(kFamilies),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
