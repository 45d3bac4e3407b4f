// Keys on Pro tokens: pairing, the finders over crafted layouts in memory,
// the drivers' exact commands, and the crypto driver the Pro applet installs.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <string>
#include <vector>

#include "token/appcry/cry_pro.h"
#include "token/appcry/finder_pro4.h"
#include "token/applet_pro.h"
#include "unit/memory_fs.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using memory_fs::MemoryFS;
using memory_fs::UserPin;
using Shown = std::vector<std::string>;

struct Cert {
    TBytes der, modulus;
};

// A self-signed certificate on a new RSA key of `bits`.
Cert makeCert(int bits) {
    EVP_PKEY* key = EVP_RSA_gen(bits);
    X509* x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("krFS test"), -1, -1, 0);
    X509_set_issuer_name(x, name);
    X509_set_pubkey(x, key);
    X509_sign(x, key, EVP_sha256());
    Cert c;
    c.der.resize(static_cast<std::size_t>(i2d_X509(x, nullptr)));
    unsigned char* p = c.der.data();
    i2d_X509(x, &p);
    BIGNUM* n = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n);
    c.modulus.resize(static_cast<std::size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, c.modulus.data());
    BN_free(n);
    X509_free(x);
    EVP_PKEY_free(key);
    return c;
}
// A and B 1024-bit, W 2048-bit, made once.
const Cert& cert(char which) {
    static const Cert a = makeCert(1024), b = makeCert(1024), w = makeCert(2048);
    return which == 'A' ? a : which == 'B' ? b : w;
}
const Cert& certA() { return cert('A'); }
const Cert& certB() { return cert('B'); }
const Cert& certW() { return cert('W'); }

std::string certName(const TBytes& der) {
    for (char n : {'A', 'B', 'W'})
        if (der == cert(n).der) return std::string(1, n);
    return der.empty() ? "-" : "?";
}

// One container as a line: the path below 3F00 6666, id (#xx when not
// printable), size, private-key marker length, certificate, PIN.
std::string show(const CCryptoInfo& c) {
    EXPECT_EQ(c.provider, 0x1001);
    EXPECT_EQ(c.algorithm, 3);
    EXPECT_TRUE(
        std::all_of(c.privateKey.begin(), c.privateKey.end(), [](auto b) { return b == 0; }));
    if (!c.certificate.empty()) {
        EXPECT_EQ(c.publicKey, cert(certName(c.certificate)[0]).modulus);
    }
    std::string s;
    for (std::size_t i = 2; i < c.path.size(); ++i) s += apdu("%04X ", c.path[i]);
    s += "id=";
    for (unsigned char b : c.id)
        s += std::isprint(b) ? std::string(1, static_cast<char>(b)) : apdu("#%02X", b);
    return s + " size=" + std::to_string(c.size) + " key=" + std::to_string(c.privateKey.size()) +
           " cert=" + certName(c.certificate) + " pin=" + std::to_string(c.pin);
}
Shown show(const std::vector<CCryptoInfo>& list) {
    Shown out;
    for (const CCryptoInfo& c : list) out.push_back(show(c));
    return out;
}

TBytes text(const std::string& s) { return TBytes(s.begin(), s.end()); }
TPath join(TPath p, std::initializer_list<WORD> rest) {
    p.insert(p.end(), rest);
    return p;
}
TPath pro(std::initializer_list<WORD> rest) { return join({0x3F00, 0x6666}, rest); }
const TPath kFipsHome{0x3F00, 0x6666, 0x5000, 0x0220};

// ---- unite

struct GivenFinder : CCryFinder {
    GivenFinder(std::vector<CCryptoInfo> c, std::vector<CCryptoInfo> k) : CCryFinder(CAdapter()) {
        certs = std::move(c), keys = std::move(k);
    }
    void getcerts() override {}
    void getkeys() override {}
};

CCryptoInfo givenKey(WORD file, const std::string& id, WORD size) {
    CCryptoInfo k;
    k.provider = 0x1001, k.algorithm = 3, k.pin = 3, k.size = size;
    k.id = text(id), k.path = pro({0x6000, file});
    return k;
}
CCryptoInfo givenCert(WORD file, const std::string& id, const TBytes& der) {
    CCryptoInfo c;
    c.provider = 0x1001, c.algorithm = 3, c.id = text(id), c.certificate = der;
    c.path = pro({0x1002, file});
    return c;
}

TEST(ProCry, UnitePairsByIdWithoutTieBreak) {
    const TBytes a = certA().der, b = certB().der, bad = hex("30 03 02 01 01");
    const struct {
        const char* what;
        std::vector<CCryptoInfo> certs, keys;
        Shown containers;
        long code = 0;
    } cases[] = {
        {"pairs, then keys alone, then certificates alone",
         {givenCert(1, "c", a), givenCert(2, "a", b)},
         {givenKey(0x1001, "a", 128), givenKey(0x1002, "b", 256)},
         {"6000 1001 id=a size=128 key=128 cert=B pin=3",
          "6000 1002 id=b size=256 key=256 cert=- pin=3",
          "1002 0001 id=c size=128 key=0 cert=A pin=0"}},
        {"empty ids pair",
         {givenCert(1, "", a)},
         {givenKey(0x1001, "", 128)},
         {"6000 1001 id= size=128 key=128 cert=A pin=3"}},
        {"two certificates for one key, in certificate order",
         {givenCert(1, "a", a), givenCert(2, "a", b)},
         {givenKey(0x1001, "a", 128)},
         {"6000 1001 id=a size=128 key=128 cert=A pin=3",
          "6000 1001 id=a size=128 key=128 cert=B pin=3"}},
        {"one certificate for two keys",
         {givenCert(1, "a", a)},
         {givenKey(0x1001, "a", 128), givenKey(0x1002, "a", 128)},
         {"6000 1001 id=a size=128 key=128 cert=A pin=3",
          "6000 1002 id=a size=128 key=128 cert=A pin=3"}},
        {"a paired key of size 0 has no private key",
         {givenCert(1, "a", a)},
         {givenKey(0x1001, "a", 0)},
         {"6000 1001 id=a size=0 key=0 cert=A pin=3"}},
        {"a bad certificate alone fails the search",
         {givenCert(1, "a", a), givenCert(2, "x", bad)},
         {givenKey(0x1001, "a", 128)},
         {},
         code(0x6281)},
        {"a bad certificate paired fails the search",
         {givenCert(2, "a", bad)},
         {givenKey(0x1001, "a", 128)},
         {},
         code(0x6281)},
    };
    for (const auto& c : cases) {
        GivenFinder finder(c.certs, c.keys);
        EXPECT_EQ(failureCode([&] { finder.unite(); }), c.code) << c.what;
        if (c.code == 0) {
            EXPECT_EQ(show(finder.containers()), c.containers) << c.what;
        }
    }
}

// ---- CPro4Finder

// A certificate record: an unused word, L, the certificate, 6 bytes, then
// `tail`, in which '|' stands for a zero byte.
TBytes record(const TBytes& der, std::string tail) {
    std::replace(tail.begin(), tail.end(), '|', '\0');
    const std::size_t length = der.size() + 4;
    return cat({{0xA5, 0xA5, static_cast<unsigned char>(length & 0xFF),
                 static_cast<unsigned char>(length >> 8)},
                der,
                tail.empty() ? TBytes{} : TBytes(6, 0xEE),
                text(tail)});
}

struct Pro4Layout {
    MemoryFS fs;
    UserPin pin;
    CAdapter adapter() {
        CAdapter a;
        a.fs = &fs, a.pin = &pin;
        return a;
    }
    void put(std::initializer_list<WORD> rest, const TBytes& data) { fs.put(pro(rest), data); }
    void cert(WORD file, const TBytes& bytes) { put({0x1002, file}, bytes); }
    void key(WORD file, unsigned char r) { put({0x6000, file}, {r, 0x01, 0x02}); }
    void map(const std::string& s) { put({0x1001, 0x1001}, text(s)); }
    // References 0..4: absent, 128 bytes, 256 bytes, absent, 128 bytes.
    void sizes() { put({0x6000, 0xECEC}, hex("0000 8000 2040 0000 8000")); }
};

TEST(ProCry, Pro4FinderReadsRecordsKeysTableAndMap) {
    const TBytes a = certA().der;
    const TBytes twelve = hex("00 00 00 00 00 00 00 00 00 00 00 41");
    const struct {
        const char* what;
        std::function<void(Pro4Layout&)> build;
        Shown containers;
        long code = 0;
    } cases[] = {
        {"pairs by the map, the table's 0x4000 rule",
         [&](Pro4Layout& l) {
             l.cert(0x0001, record(a, "Key one|k1|tail"));
             l.key(0x1001, 1), l.key(0x2002, 2);
             l.map("C0=k1&1001\nC1=k2&2002\n");
         },
         {"6000 1001 0001 id=k1 size=128 key=128 cert=A pin=3",
          "6000 2002 0002 id=k2 size=256 key=256 cert=- pin=3"}},
        {"the name runs from the last '=' before the mark to its first '&'",
         [&](Pro4Layout& l) {
             l.key(0x1001, 1), l.key(0x1002, 4), l.key(0x1003, 1);
             l.map("C0=k1&1001&1002\nC1=k2&1003\n");
         },
         {"6000 1001 0001 id=k1 size=128 key=128 cert=- pin=3",
          "6000 1002 0004 id=k1 size=128 key=128 cert=- pin=3",
          "6000 1003 0001 id=k2 size=128 key=128 cert=- pin=3"}},
        {"upper-case marks do not match; size 0, beyond the table and other ids are no keys",
         [&](Pro4Layout& l) {
             l.key(0x100A, 1);
             l.key(0x1001, 3), l.key(0x1002, 5), l.key(0x0123, 1), l.key(0x3001, 1);
             l.put({0x6000, 0x1004}, {});  // no key reference to read
             l.cert(0x1123, record(a, "l|x"));
             l.map("C0=x&100A&1001&1002&0123&3001&1004\n");
         },
         {"6000 100A 0001 id= size=128 key=128 cert=- pin=3"}},
        {"a mark without '=' gives an empty id, which pairs with an empty one",
         [&](Pro4Layout& l) {
             l.cert(0x0002, record(a, "label|"));
             l.key(0x1001, 1);
             l.map("k1&1001");
         },
         {"6000 1001 0001 id= size=128 key=128 cert=A pin=3"}},
        {"too little behind the certificate: the file's low byte is the id",
         [&](Pro4Layout& l) {
             l.cert(0x0107, record(a, ""));
             l.cert(0x0108, cat({record(a, ""), hex("0102030405")}));
         },
         {"1002 0107 id=#07 size=128 key=0 cert=A pin=0",
          "1002 0108 id=#08 size=128 key=0 cert=A pin=0"}},
        {"an empty map switches to the older layout",
         [&](Pro4Layout& l) {
             l.key(0x1001, 1);
             l.map("");
             l.put({0x5000, 0x0201, 0x0502}, twelve);
             l.put({0x5000, 0x0201, 0x0503}, hex("0102"));  // no byte 11
             l.put({0x5000, 0x0201, 0x0504}, twelve);       // reference 3: size 0
             l.put({0x5000, 0x0201, 0x0602}, twelve);
         },
         {"5000 0201 0502 0001 id=B size=0 key=0 cert=- pin=3",
          "5000 0201 0503 0002 id= size=0 key=0 cert=- pin=3"}},
        {"without a map no keys at all",
         [&](Pro4Layout& l) {
             l.cert(0x0001, record(a, "l|k1"));
             l.key(0x1001, 1);
         },
         {"1002 0001 id=k1 size=128 key=0 cert=A pin=0"}},
        {"without a size table no keys",
         [&](Pro4Layout& l) {
             l.fs.files.erase(pro({0x6000, 0xECEC}));
             l.key(0x1001, 1);
             l.map("=k1&1001");
         },
         {}},
        {"a certificate length beyond the record fails the search",
         [&](Pro4Layout& l) {
             TBytes r = record(a, "l|k1");
             r[3] = 0x7F;
             l.cert(0x0001, r);
         },
         {},
         code(0x6281)},
    };
    for (const auto& c : cases) {
        Pro4Layout l;
        l.sizes();
        c.build(l);
        std::vector<CCryptoInfo> found;
        EXPECT_EQ(failureCode([&] { found = CPro4Finder(l.adapter()).containers(); }), c.code)
            << c.what;
        EXPECT_EQ(show(found), c.containers) << c.what;
    }
}

// ---- CPro4FipsFinder: the field layout {1, 1, 4, 128}

TBytes field(unsigned char tag, const std::string& value) {
    return cat({{tag, static_cast<unsigned char>(value.size())}, text(value)});
}
TBytes certFields(const std::string& id) { return cat({{0xC0}, field(1, "skip"), field(2, id)}); }
TBytes keyFields(const std::string& id) {
    return cat({TBytes(6, 0x55), field(1, "a"), field(1, "bb"), field(1, ""), field(1, "d"),
                field(2, id)});
}

TEST(ProCry, FipsFinderTakesIdsFromAttributeFields) {
    const TBytes a = certA().der;
    const auto at = [](WORD dir, WORD file) { return join(kFipsHome, {dir, file}); };
    TBytes overrun = keyFields("k3");
    overrun.pop_back();
    const struct {
        const char* what;
        std::vector<std::pair<TPath, TBytes>> files;
        Shown containers;
    } cases[] = {
        {"pair",
         {{at(0x1001, 2), a}, {at(0x1001, 1), certFields("k1")}, {at(0x3001, 1), keyFields("k1")}},
         {"5000 0220 3001 id=k1 size=128 key=128 cert=A pin=3"}},
        {"no certificate attributes and a 5-byte key file: empty ids, paired",
         {{at(0x1002, 2), a}, {at(0x3002, 1), hex("0102030405")}},
         {"5000 0220 3002 id= size=128 key=128 cert=A pin=3"}},
        {"no certificate file: no object; 2xxx is neither",
         {{at(0x1003, 1), certFields("k1")}, {at(0x2001, 1), keyFields("k1")}, {at(0x2001, 2), a}},
         {}},
        {"an id field running past the end gives an empty id",
         {{at(0x1001, 2), a}, {at(0x1001, 1), certFields("k3")}, {at(0x3003, 1), overrun}},
         {"5000 0220 3003 id= size=128 key=128 cert=- pin=3",
          "5000 0220 1001 id=k3 size=128 key=0 cert=A pin=0"}},
    };
    for (const auto& c : cases) {
        Pro4Layout l;
        for (const auto& [path, data] : c.files) l.fs.put(path, data);
        EXPECT_EQ(show(CPro4FipsFinder(l.adapter()).containers()), c.containers) << c.what;
    }
}

// ---- the drivers

TEST(ProCry, DecipherApduIsShortUpTo255BytesOfData) {
    const std::pair<std::size_t, const char*> heads[] = {
        {1, "00 2A 80 86 02 00 "}, {255, "00 2A 80 86 00 00 "}, {256, "00 2A 80 86 00 01 01 00 "}};
    for (const auto& [n, head] : heads) {
        const TBytes apdu = CryProDecipherApdu(TBytes(n, 0x33));
        const std::string tail = n <= 255 ? "33 00 " : "33 04 00 ";
        const std::string got = toHex(apdu);
        EXPECT_EQ(got.substr(0, std::string(head).size()), head) << n;
        EXPECT_EQ(got.substr(got.size() - tail.size()), tail) << n;
        EXPECT_EQ(apdu.size(), n + (n <= 255 ? 7 : 10)) << n;
    }
}

// Records what goes through secure messaging and answers `answer`.
struct RecordingPack : IAppPack {
    void sm(const TBytes& apdu, TBytes& response) override {
        sent.push_back(apdu);
        offered = response.size();
        response = answer;
    }
    std::vector<TBytes> sent;
    TBytes answer;
    std::size_t offered = 0;
};

// An applet whose file system is the layout in memory: the card script sees
// only the drivers' own commands.
struct ProCryDriver : ::testing::Test {
    ScriptedSender card;
    ScriptedApplet applet{&card};
    MemoryFS* fs = new MemoryFS;
    RecordingPack* pack = new RecordingPack;

    ProCryDriver() {
        applet.fs_.reset(fs);
        applet.pin_.reset(new UserPin);
        applet.pack_.reset(pack);
    }
    void put(std::initializer_list<WORD> rest, const TBytes& data) { fs->put(pro(rest), data); }
    // Key 1001 with reference 3 (128 bytes) for A, and B on the same id after
    // it; key 2002 with reference 2 (256 bytes) for W; C alone.
    void token() {
        put({0x6000, 0xECEC}, hex("0000 8000 2040 8000"));
        put({0x6000, 0x1001}, {3});
        put({0x6000, 0x2002}, {2});
        put({0x1002, 0x0001}, record(certA().der, "l|k1"));
        put({0x1002, 0x0002}, record(certW().der, "l|k2"));
        put({0x1002, 0x0003}, record(certB().der, "l|k3"));
        put({0x1001, 0x1001}, text("C0=k1&1001\nC1=k2&2002\n"));
    }
    // The select's commands; the first must come with 3F00 6666 1001 current.
    void expectSelect(const std::string& kk) {
        card.respond([this](const TBytes& c) {
            EXPECT_EQ(fs->current, pro({0x1001}));
            EXPECT_EQ(toHex(c), "00 22 03 FE 00 ");
            return hex("90 00");
        });
        card.expect("00 22 01 B8 03 83 01 " + kk + " 00", "90 00");
    }
};

const TPath kKey128 = pro({0x6000, 0x1001, 0x0003}), kKey256 = pro({0x6000, 0x2002, 0x0002}),
            kCertOnly = pro({0x1002, 0x0003});

TEST_F(ProCryDriver, SelectSetsTheKeyReferenceOnlyForAPrivateKey) {
    token();
    CCryPro cry(&applet);
    expectSelect("09");  // R = 3
    cry.select(kKey128);
    EXPECT_EQ(card.offered, (std::vector<std::size_t>{258, 258}));
    EXPECT_EQ(cry.info().certificate, certA().der);

    cry.select(kCertOnly);  // no command at all
    EXPECT_EQ(cry.info().certificate, certB().der);

    EXPECT_EQ(failureCode([&] { cry.select(pro({0x6000, 0x1001, 0x0004})); }), code(0x6A82));
    EXPECT_TRUE(cry.info().path.empty());
    EXPECT_EQ(cry.info().pin, 255);
    EXPECT_EQ(failureCode([&] { cry.select({}); }), code(0x6A82));

    card.expect("00 22 03 FE 00", "90 00").expect("00 22 01 B8 03 83 01 07 00", "6A 88");
    EXPECT_EQ(failureCode([&] { cry.select(kKey256); }), code(0x6A88));
}

TEST_F(ProCryDriver, TheLastContainerOfAPathWins) {
    token();
    put({0x1002, 0x0004}, record(certB().der, "l|k1"));
    CCryPro cry(&applet);
    expectSelect("09");
    cry.select(kKey128);
    EXPECT_EQ(cry.info().certificate, certB().der);
}

TEST_F(ProCryDriver, DecryptSendsShortOrExtendedAndRefusesWhatTheKeyCannotTake) {
    token();
    CCryPro4 cry(&applet);
    expectSelect("09");
    cry.select(kKey128);
    const TBytes block(128, 0x11), result = oracle::random(128);
    card.expect("00 2A 80 86 81 00 " + bytes(128, "11") + "00", toHex(result) + "90 00");
    EXPECT_EQ(cry.decrypt(block), result);
    EXPECT_EQ(card.offered.back(), 1026u);

    TBytes shortBlock = certA().modulus;
    shortBlock.pop_back();
    for (const TBytes& refused : {certA().modulus, shortBlock, TBytes(256, 0x11)})
        EXPECT_EQ(failureCode([&] { cry.decrypt(refused); }), code(0x6281)) << refused.size();

    card.expect("00 2A 80 86 81 00 " + bytes(128, "11") + "00", "69 82");
    EXPECT_EQ(failureCode([&] { cry.decrypt(block); }), code(0x6982));

    expectSelect("07");
    cry.select(kKey256);
    card.expect("00 2A 80 86 00 01 01 00 " + bytes(256, "22") + "04 00", "AB CD 90 00");
    EXPECT_EQ(cry.decrypt(TBytes(256, 0x22)), hex("AB CD"));

    cry.select(kCertOnly);
    EXPECT_EQ(failureCode([&] { cry.decrypt(block); }), code(0x6A82));
}

TEST_F(ProCryDriver, ListIsBuiltOnceAndTheProviderIsTheOnlyOne) {
    token();
    CCryPro pro3(&applet);
    CCryPro4 cry(&applet);
    EXPECT_EQ(pro3.provider(0x1001).sizes, (std::vector<unsigned short>{128}));
    EXPECT_EQ(cry.provider(0x1001).sizes, (std::vector<unsigned short>{128, 256}));
    EXPECT_EQ(cry.provider(0x1001).algorithm, 3);
    EXPECT_EQ(failureCode([&] { cry.provider(0x1002); }), code(0xFACE));

    const std::vector<TPath> paths{kKey128, kKey256, kCertOnly};
    EXPECT_EQ(cry.list(0x1002), paths);
    const int selects = fs->selects;
    put({0x1002, 0x0005}, record(certB().der, "l|k5"));
    EXPECT_EQ(cry.list(0x1001), paths);
    EXPECT_EQ(fs->selects, selects);
}

TEST_F(ProCryDriver, AFailedSearchLeavesNoContainers) {
    token();
    put({0x1002, 0x0009}, record(hex("30 03 02 01 01"), "l|x"));
    CCryPro4 cry(&applet);
    EXPECT_EQ(failureCode([&] { cry.list(0x1001); }), code(0x6281));
    EXPECT_TRUE(cry.list(0x1001).empty());
    EXPECT_EQ(failureCode([&] { cry.select(kKey128); }), code(0x6A82));
}

TEST_F(ProCryDriver, FipsSelectsTheKeyDirectoryAndDeciphersUnderSecureMessaging) {
    const TPath key = join(kFipsHome, {0x3001}), lone = join(kFipsHome, {0x1002});
    fs->put(join(lone, {2}), certB().der);
    fs->put(join(lone, {1}), certFields("k2"));
    fs->put(join(kFipsHome, {0x1001, 2}), certA().der);
    fs->put(join(kFipsHome, {0x1001, 1}), certFields("k1"));
    fs->put(join(key, {1}), keyFields("k1"));
    CCryPro4Fips cry(&applet);
    EXPECT_EQ(cry.provider(0x1001).sizes, (std::vector<unsigned short>{128}));

    card.respond([&](const TBytes& c) {
        EXPECT_EQ(fs->current, key);
        EXPECT_EQ(toHex(c), "00 22 03 33 00 ");
        return hex("90 00");
    });
    cry.select(key);
    EXPECT_EQ(card.offered, (std::vector<std::size_t>{258}));

    pack->answer = hex("01 02 03 90 00");
    EXPECT_EQ(cry.decrypt(TBytes(128, 0x11)), hex("01 02 03"));
    ASSERT_EQ(pack->sent.size(), 1u);
    EXPECT_EQ(toHex(pack->sent[0]), "00 2A 80 86 81 00 " + bytes(128, "11") + "00 ");
    EXPECT_EQ(pack->offered, 1026u);
    EXPECT_EQ(failureCode([&] { cry.decrypt(certA().modulus); }), code(0x6281));

    cry.select(lone);  // a certificate alone: nothing to prepare
    EXPECT_EQ(failureCode([&] { cry.decrypt(TBytes(128, 0x11)); }), code(0x6A82));
    EXPECT_EQ(pack->sent.size(), 1u);
}

// ---- the applet's choice

TEST(ProCry, InitInstallsTheFipsOrThePro4DriverWhateverTheFileSystem) {
    const std::string pro42 = "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00",
                      pro32 = "3B F2 98 00 FF C1 10 31 FE 55 C8 03 15";
    const struct {
        std::string atr;
        bool fips;
        bool fsPro4;
    } cases[] = {
        {pro42, true, true}, {pro42, false, true}, {pro32, false, false}, {pro32, true, false}};
    for (const auto& c : cases) {
        ScriptedSender card;
        card.setAtr(c.atr);
        CAppletPro applet(&card);
        // Before init: the stub on a Pro42, the oldest tokens' driver on a Pro32.
        IAppCrypto* before = applet.crypto();
        EXPECT_EQ(typeid(*before) == typeid(IAppCrypto), c.fsPro4) << c.atr;
        EXPECT_EQ(typeid(*before) == typeid(CCryPro), !c.fsPro4) << c.atr;

        card.play({kHome, kDirFcp, "00 CA 01 83 00", "00 90 00", "00 A4 00 00 00", kDirFcp,
                   kFipsLabel, c.fips ? fileFcp(4) : "6A 82"});
        applet.init();
        IAppCrypto* cry = applet.crypto();
        if (c.fips)
            EXPECT_EQ(typeid(*cry), typeid(CCryPro4Fips)) << c.atr;
        else
            EXPECT_EQ(typeid(*cry), typeid(CCryPro4)) << c.atr;
        IAppFS* fs = applet.fs();
        EXPECT_EQ(typeid(*fs) == typeid(CFSPro4), c.fsPro4) << c.atr;
    }
}

}  // namespace
