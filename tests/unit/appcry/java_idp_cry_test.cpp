// The Java, Joker and IDProtect crypto drivers over an in-memory file system,
// a scripted card for their own commands, and certificates made by OpenSSL.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <map>

#include "crypto/rsa_helpers.h"
#include "token/appcry/cry_idprotect.h"
#include "token/appcry/cry_java.h"
#include "token/appcry/finder_java.h"
#include "unit/memory_fs.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using memory_fs::MemoryFS;

TPath child(TPath p, WORD id) { return p.push_back(id), p; }

// A self-signed certificate of a fresh key of `bits`, as DER; one per size.
const TBytes& cert(int bits) {
    static std::map<int, TBytes> made;
    if (made.count(bits)) return made[bits];
    EVP_PKEY* key = EVP_RSA_gen(bits);
    X509* x = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_set_pubkey(x, key);
    X509_sign(x, key, EVP_sha256());
    TBytes& der = made[bits];
    der.resize(i2d_X509(x, nullptr));
    unsigned char* p = der.data();
    i2d_X509(x, &p);
    X509_free(x);
    EVP_PKEY_free(key);
    return der;
}
// A block the key takes: its length, below the modulus.
TBytes blockFor(int bits) {
    TBytes block(bits / 8, 0x11);
    return block[0] = 0x00, block;
}

// Records what sm or chain was given, and the buffer; answers `answer`.
struct RecordingPack : IAppPack {
    void sm(const TBytes& apdu, TBytes& r) override { sent = "sm " + toHex(apdu), give(r); }
    void chain(const TBytes& apdu, TBytes& r) override { sent = "chain " + toHex(apdu), give(r); }
    void give(TBytes& response) { offered = response.size(), response = answer; }
    std::string sent;
    std::size_t offered = 0;
    TBytes answer;
};

struct CryDrivers : ::testing::Test {
    ScriptedSender card;
    ScriptedApplet applet{&card};
    MemoryFS* fs = new MemoryFS;
    FixedInfo* info = applet.install<FixedInfo>(applet.info_, false);
    RecordingPack* pack = new RecordingPack;
    CryDrivers() {
        applet.fs_.reset(fs);
        applet.pin_.reset(new memory_fs::UserPin);
        applet.pack_.reset(pack);
    }
};

// ---- Java and Joker ----

const TPath kHome{0x3F00, 0x6666, 0x5000, 0x0220};
// Two fields, then the identifier; keys have a 6-byte prefix.
const TBytes kCertAttributes = hex("01 01 AA 02 00 03 03 C0 FF EE");
const TBytes kKeyAttributes = cat({hex("00 01 02 03 04 05"), kCertAttributes});

// Each container: last path element, id, whether it has a certificate, the
// length of privateKey.
std::vector<std::string> summary(const std::vector<CCryptoInfo>& list) {
    std::vector<std::string> out;
    for (const CCryptoInfo& c : list)
        out.push_back(apdu("%04X ", c.path.back()) + toHex(c.id) +
                      (c.certificate.empty() ? "-" : "cert") + apdu(" %u", c.privateKey.size()));
    return out;
}

TEST_F(CryDrivers, JavaAndJokerFindersPairByTheThirdField) {
    struct Row {
        const char* what;
        std::map<WORD, std::map<WORD, TBytes>> dirs;  // directory below the home: its files
        std::vector<std::string> containers;
    };
    const TBytes der = cert(1024);
    const Row rows[] = {
        {"pair",
         {{0x1001, {{2, der}, {1, kCertAttributes}}}, {0x3001, {{1, kKeyAttributes}}}},
         {"3001 C0 FF EE cert 0"}},
        {"5-byte key attributes",
         {{0x1001, {{2, der}, {1, kCertAttributes}}}, {0x3001, {{1, hex("0001020304")}}}},
         {"3001 - 0", "1001 C0 FF EE cert 0"}},
        {"no 0001 on either side",
         {{0x1001, {{2, der}}}, {0x3001, {{9, {}}}}, {0x2001, {{1, kCertAttributes}}}},
         {"3001 cert 0"}},
        {"id past the end", {{0x3001, {{1, hex("000102030405 0100 0200 0305 C0")}}}}, {"3001 - 0"}},
        {"no 0002",
         {{0x1001, {{1, kCertAttributes}}}, {0x3002, {{1, kKeyAttributes}}}},
         {"3002 C0 FF EE - 0"}},
    };
    for (const Row& r : rows) {
        fs->files.clear();
        fs->dirs = {kHome};
        for (const auto& [dir, files] : r.dirs)
            for (const auto& [id, content] : files) fs->put(child(child(kHome, dir), id), content);
        const CAdapter adapter = AppletToAdapter(&applet);
        EXPECT_EQ(summary(CJavaFinder(adapter).containers()), r.containers) << r.what;
        EXPECT_EQ(summary(CJokerFinder(adapter).containers()), r.containers) << r.what;
    }
}

// A key 3001 paired with a 1024-bit certificate 1001, and a certificate
// 1002 alone.
struct JavaCrypto : CryDrivers {
    JavaCrypto() {
        fs->put(child(child(kHome, 0x1001), 2), cert(1024));
        fs->put(child(child(kHome, 0x1001), 1), kCertAttributes);
        fs->put(child(child(kHome, 0x3001), 1), kKeyAttributes);
        fs->put(child(child(kHome, 0x1002), 2), cert(2048));
    }
    std::unique_ptr<IAppCrypto> driver(bool joker) {
        if (joker) return std::make_unique<CCryJoker>(&applet);
        return std::make_unique<CCryJava>(&applet);
    }
};

TEST_F(JavaCrypto, SelectAsksTheKeyOnlyForKeyDirectories) {
    const struct Row {
        std::string answer;
        long failure;
        unsigned size;
    } rows[] = {
        {"00 00 05 04 00 90 00", 0, 256},
        {"00 00 05 FB 00 90 00", 0, 128},
        {"00 00 05 04 90 00", code(0x6281), 0},
        {"00 00 04 04 00 90 00", code(0x6283), 0},
        {"69 82", code(0x6982), 0},
    };
    for (bool joker : {false, true}) {
        for (const Row& r : rows) {
            auto cry = driver(joker);
            cry->select(child(kHome, 0x1002));  // a certificate alone: nothing sent
            EXPECT_EQ(cry->info().size, 256);
            card.expect(joker ? "80 14 00 31 03 10 01 1A 00" : "80 07 00 31 03 10 01 1A 00",
                        r.answer);
            EXPECT_EQ(failureCode([&] { cry->select(child(kHome, 0x3001)); }), r.failure)
                << r.answer;
            EXPECT_EQ(fs->current, child(kHome, 0x3001));
            EXPECT_EQ(card.offered.back(), 258u);
            if (r.failure) continue;
            EXPECT_EQ(cry->info().size, r.size);
            EXPECT_EQ(cry->info().privateKey, TBytes(r.size, 0));
            EXPECT_EQ(failureCode([&] { cry->select(child(kHome, 0x3002)); }), code(0x6A82));
        }
    }
}

TEST_F(JavaCrypto, DecipherBytesChecksAndAnswer) {
    const TBytes block = blockFor(1024);
    const std::string tail = " 00 00 84 10 FF 00 80 " + toHex(block) + "04 00";
    const std::string result = "10 FF 00 03 0A 0B 0C";
    for (bool joker : {false, true}) {
        auto cry = driver(joker);
        const std::string decipher = joker ? "80 19 03 31" : "80 0C 03 31";
        if (joker) {
            // Joker checks the block against the certificate, then the key.
            EXPECT_EQ(failureCode([&] { cry->decrypt(block); }), code(0x6281));
            cry->select(child(kHome, 0x1002));
            EXPECT_EQ(failureCode([&] { cry->decrypt(blockFor(2048)); }), code(0x6A82));
            card.expect("80 14" + anyBytes(7), "00 00 05 00 00 90 00");
            cry->select(child(kHome, 0x3001));
            EXPECT_EQ(failureCode([&] { cry->decrypt(TBytes(block.begin() + 1, block.end())); }),
                      code(0x6281));
        }
        // Java sends even without a selection.
        card.expect(decipher + tail, "07 02 00 00 " + result + " 90 00");
        EXPECT_EQ(cry->decrypt(block), hex("0A0B0C"));
        // Malformed or missing child 0x10, then a refusal of the card.
        for (const char* answer : {"10 05 01 90 00", "11 01 00 90 00"}) {
            card.expect(decipher + tail, answer);
            EXPECT_EQ(failureCode([&] { cry->decrypt(block); }), code(0x6281)) << answer;
        }
        card.expect(decipher + tail, "69 82");
        EXPECT_EQ(failureCode([&] { cry->decrypt(block); }), code(0x6982));
        EXPECT_EQ(card.offered.back(), 1026u);

        // On a FIPS token the same command goes through secure messaging.
        info->fips = true;
        pack->answer = hex(result + " 90 00");
        EXPECT_EQ(cry->decrypt(block), hex("0A0B0C"));
        EXPECT_EQ(pack->sent, "sm " + toHex(hex(decipher + tail)));
        EXPECT_EQ(pack->offered, 1026u);
        info->fips = false;
    }
}

// ---- IDProtect ----

const TPath kKeys{0x3F00, 0x3000, 0x3002}, kCerts{0x3F00, 0x3000, 0x3001};

TBytes certificateObject(const TBytes& der) {
    TBytes object(125, 0xEE);
    object << static_cast<unsigned char>(der.size() >> 8) << static_cast<unsigned char>(der.size())
           << der;
    return object;
}

// Keys 0201 (companion 0042, certificate 8401) and 0202 (0043, 8402, 2048
// bits), 0203 without certificate and 0205 without companion; a certificate
// 8441 alone; 0301, 0042 and 8501 are neither.
struct IdprotectCrypto : CryDrivers {
    IdprotectCrypto() {
        for (WORD id : {0x0201, 0x0202, 0x0203, 0x0205, 0x0301}) fs->put(child(kKeys, id), {0});
        fs->put(child(kKeys, 0x0042), TBytes(128));
        fs->put(child(kKeys, 0x0043), TBytes(256));
        fs->put(child(kKeys, 0x0044), TBytes(128));
        fs->put(child(kCerts, 0x8401), certificateObject(cert(1024)));
        fs->put(child(kCerts, 0x8402), certificateObject(cert(2048)));
        fs->put(child(kCerts, 0x8441), certificateObject(cert(2048)));
        fs->put(child(kCerts, 0x8501), certificateObject(cert(1024)));
    }
    CCryIdprotect cry{&applet};
};

TEST_F(IdprotectCrypto, ListsKeysThenCertificatesAlone) {
    const std::vector<TPath> expected = {child(kKeys, 0x0201), child(kKeys, 0x0202),
                                         child(kKeys, 0x0203), child(kKeys, 0x0205),
                                         child(kCerts, 0x8441)};
    EXPECT_EQ(cry.list(0x1002), expected);
}

TEST_F(IdprotectCrypto, SelectTiesKeyCertificateAndCompanion) {
    cry.select(child(kKeys, 0x0202));
    CCryptoInfo c = cry.info();
    EXPECT_EQ(c.certificate, cert(2048));
    EXPECT_EQ(c.publicKey, extractPublicKeyFromCert(cert(2048)));
    EXPECT_EQ(std::make_tuple(c.size, c.pin, c.id, c.privateKey.size()),
              std::make_tuple(256, 0x03, hex("01"), 256));
    EXPECT_EQ(fs->current, child(kKeys, 0x0043));  // decrypt counts on the companion being current

    for (const TPath& bad : {child(kKeys, 0x0301), child(kKeys, 0x0205), TPath{}})
        EXPECT_EQ(failureCode([&] { cry.select(bad); }), code(0x6A82));
    EXPECT_EQ(cry.info().path, child(kKeys, 0x0202));

    cry.select(child(kKeys, 0x0203));  // no certificate: selected, but cannot decrypt
    c = cry.info();
    EXPECT_EQ(std::make_tuple(c.size, c.id, c.publicKey.empty()),
              std::make_tuple(128, hex("02"), true));
    EXPECT_EQ(failureCode([&] { cry.decrypt(blockFor(1024)); }), code(0x6281));

    cry.select(child(kCerts, 0x8441));
    c = cry.info();
    EXPECT_EQ(std::make_tuple(c.size, c.pin, c.privateKey.empty()), std::make_tuple(256, 0, true));
    EXPECT_EQ(failureCode([&] { cry.decrypt(blockFor(2048)); }), code(0x6A82));
    fs->files[child(kCerts, 0x8441)].resize(200);  // a cut object fails the lone certificate
    EXPECT_EQ(failureCode([&] { cry.select(child(kCerts, 0x8441)); }), code(0x6281));
}

TEST_F(IdprotectCrypto, DecipherGoesThroughChainingWithBerLengths) {
    const struct Row {
        WORD key;
        int bits;
        std::string head;  // hh ll and the body's tag and length
    } rows[] = {{0x0201, 1024, "00 83 82 81 80 "}, {0x0202, 2048, "01 04 82 82 01 00 "}};
    for (const Row& r : rows) {
        cry.select(child(kKeys, r.key));
        const TBytes block = blockFor(r.bits);
        pack->answer = hex("80 81 80" + bytes(128, "5A") + "90 00");
        EXPECT_EQ(cry.decrypt(block), TBytes(128, 0x5A));
        EXPECT_EQ(pack->sent, "chain 00 2A 80 0C 00 " + r.head + toHex(block) + "00 00 ");
        EXPECT_EQ(pack->offered, 1024u);
        for (const char* answer : {"80 05 01 90 00", "81 01 00 90 00", "69 85"}) {
            pack->answer = hex(answer);
            EXPECT_EQ(failureCode([&] { cry.decrypt(block); }),
                      code(answer[0] == '6' ? 0x6985 : 0x6281));
        }
    }
}

TEST(IdprotectCertificate, LengthStaysInsideTheObject) {
    const TBytes der = hex("30 03 02 01 05");
    EXPECT_EQ(IdprotectCertificate(certificateObject(der)), der);
    EXPECT_EQ(IdprotectCertificate(TBytes(127, 0)), TBytes{});
    TBytes longer = certificateObject(der);
    longer[126] = 6;
    for (const TBytes& bad : {TBytes(126, 0), longer})
        EXPECT_EQ(failureCode([&] { IdprotectCertificate(bad); }), code(0x6281));
}

}  // namespace
