// Pro keys where a real token cannot go: crafted layouts, exact commands, the applet's choice.
#include <gtest/gtest.h>

#include "token/appcry/cry_pro.h"
#include "token/appcry/finder_pro4.h"
#include "token/applet_pro.h"
#include "unit/min_certificate.h"
#include "unit/memory_fs.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using memory_fs::MemoryFS;
using memory_fs::UserPin;
using Shown = std::vector<std::string>;
using Files = std::vector<std::pair<TPath, TBytes>>;

const TBytes kA = certificate(0xAA), kB = certificate(0xBB);

// Each container as a line: id, path below 3F00 6666, size, key length, certificate, PIN.
Shown show(const std::vector<CCryptoInfo>& list) {
    Shown out;
    for (const CCryptoInfo& c : list) {
        std::string s = "id=";
        for (unsigned char b : c.id) s += apdu(b < 0x20 ? "#%02X" : "%c", b);
        for (std::size_t i = 2; i < c.path.size(); ++i) s += apdu(" %04X", c.path[i]);
        const char* cert = c.certificate.empty() ? "-" : c.certificate == kA ? "A" : "B";
        out.push_back(s + apdu(" size=%u key=%u cert=", c.size, c.privateKey.size()) + cert +
                      apdu(" pin=%u", c.pin));
    }
    return out;
}

TBytes text(const std::string& s) { return TBytes(s.begin(), s.end()); }
template <class... W>
TPath pro(W... below) {
    return {0x3F00, 0x6666, static_cast<WORD>(below)...};
}
Files::value_type at(const TPath& path, const TBytes& data) { return {path, data}; }

// Pro4 files: a certificate record (a word, L, the certificate, unless `tail` is empty 6 bytes
// and `tail`, '|' a zero byte), a key file, the container map, an older layout's key file.
Files::value_type record(WORD file, const TBytes& der, std::string tail) {
    std::replace(tail.begin(), tail.end(), '|', '\0');
    const unsigned char n = static_cast<unsigned char>(der.size() + 4);
    return at(pro(0x1002, file),
              cat({{0, 0, n, 0}, der, TBytes(tail.empty() ? 0 : 6, 0xEE), text(tail)}));
}
Files::value_type key(WORD file, unsigned char r) { return at(pro(0x6000, file), {r}); }
Files::value_type map(const char* s) { return at(pro(0x1001, 0x1001), text(s)); }
Files::value_type old(WORD file, std::size_t n) {
    return at(pro(0x5000, 0x0201, file), TBytes(n, 'A'));
}

// FIPS objects: a certificate's id is its second field after 1 byte, a key's the fifth after 6.
TPath fips(WORD dir, WORD file) { return pro(0x5000, 0x0220, dir, file); }
TBytes field(unsigned char tag, const std::string& value) {
    return cat({{tag, static_cast<unsigned char>(value.size())}, text(value)});
}
// A pair of certificate A and a key, and `more`.
Files fipsPair(WORD cert, WORD key, const std::string& id, Files more = {}) {
    more.insert(more.end(), {at(fips(cert, 2), kA),
                             at(fips(cert, 1), cat({{0xC0}, field(1, "a"), field(2, id)})),
                             at(fips(key, 1), cat({TBytes(6, 0x55), field(1, "a"), field(1, "bb"),
                                                   field(1, ""), field(1, "d"), field(2, id)}))});
    return more;
}

// Records what goes through secure messaging and answers 01 02.
struct RecordingPack : IAppPack {
    void sm(const TBytes& apdu, TBytes& response) override {
        sent.push_back(toHex(apdu)), response = hex("01 02 90 00");
    }
    Shown sent;
};

// An applet over files in memory: the card sees only the drivers' commands.
struct ProCryDriver : ::testing::Test {
    ScriptedSender card;
    ScriptedApplet applet{&card};
    RecordingPack* pack = new RecordingPack;

    ProCryDriver() { applet.pin_.reset(new UserPin), applet.pack_.reset(pack); }
    // `files` and the size table by key reference: absent, 128 bytes, 256, 128, size 0.
    void put(const Files& files) {
        auto* fs = new MemoryFS;
        fs->put(pro(0x6000, 0xECEC), hex("0000 8000 2040 8000 0000"));
        for (const auto& [path, data] : files) fs->put(path, data);
        applet.fs_.reset(fs);
    }
};

TEST_F(ProCryDriver, FindersOnCraftedLayouts) {
    const struct {
        Files files;
        Shown containers;
        bool fips = false;
    } cases[] = {
        // Pairs in key order, keys alone, certificates alone; 0x4000; the name from '=' to '&'.
        {{record(1, kA, "Key one|k2|tail"), record(2, kB, "l|k1"), record(3, kA, "l|c"),
          key(0x1001, 1), key(0x1003, 3), key(0x2002, 2),
          map("C0=k1&1001\nC1=k2&0000&2002\nC2=k3&1003\n")},
         {"id=k1 6000 1001 0001 size=128 key=128 cert=B pin=3",
          "id=k2 6000 2002 0002 size=256 key=256 cert=A pin=3",
          "id=k3 6000 1003 0003 size=128 key=128 cert=- pin=3",
          "id=c 1002 0003 size=128 key=0 cert=A pin=0"}},
        // Marks without '=' or in upper case name nothing, and empty ids pair; 0107 has nothing
        // after its certificate; no other file is a key or a certificate.
        {{record(2, kA, "label|"), record(0x0107, kA, ""), record(0x1123, kA, "l|x"),
          key(0x1005, 1), key(0x100A, 1), key(0x1001, 4), key(0x1002, 5), key(0x0123, 1),
          key(0x3001, 1), at(pro(0x6000, 0x1004), TBytes()),
          map("k1&1005\nC0=x&100A&1001&1002&0123&3001&1004\n")},
         {"id= 6000 1005 0001 size=128 key=128 cert=A pin=3",
          "id= 6000 100A 0001 size=128 key=128 cert=A pin=3",
          "id=#07 1002 0107 size=128 key=0 cert=A pin=0"}},
        // An empty map: the older layout, size 0 even when paired, id = byte 11 + 1.
        {{key(0x1001, 1), map(""), record(1, kA, "l|B"), old(0x0502, 12), old(0x0503, 2),
          old(0x0505, 12), old(0x0602, 12)},
         {"id=B 5000 0201 0502 0001 size=0 key=0 cert=A pin=3",
          "id= 5000 0201 0503 0002 size=0 key=0 cert=- pin=3"}},
        // FIPS: a pair; 1002 (no attributes) pairs with 3002 (5 bytes) and 3003 (id past the end).
        {fipsPair(0x1001, 0x3001, "k1",
                  {at(fips(0x1002, 2), kB), at(fips(0x3002, 1), hex("0102030405")),
                   at(fips(0x3003, 1), hex("555555555555 0100 0100 0100 0100 0205 6B")),
                   at(fips(0x1003, 1), hex("C0 0000 0200"))}),
         {"id=k1 5000 0220 3001 size=128 key=128 cert=A pin=3",
          "id= 5000 0220 3002 size=128 key=128 cert=B pin=3",
          "id= 5000 0220 3003 size=128 key=128 cert=B pin=3"},
         true},
    };
    for (const auto& c : cases) {
        put(c.files);
        const CAdapter a = AppletToAdapter(&applet);
        const auto found = c.fips ? CPro4FipsFinder(a).containers() : CPro4Finder(a).containers();
        EXPECT_EQ(show(found), c.containers) << "case " << &c - cases;
    }
}

TEST_F(ProCryDriver, SelectSetsTheKeyReferenceOnlyForAPrivateKeyAndTheLastContainerWins) {
    put({key(0x1001, 3), record(1, kA, "l|k1"), record(2, kB, "l|k1"), record(3, kA, "l|k3"),
         map("C0=k1&1001")});
    CCryPro4 cry(&applet);
    card.expect("00 22 03 FE 00", "90 00").expect("00 22 01 B8 03 83 01 09 00", "90 00");  // R = 3
    cry.select(pro(0x6000, 0x1001, 0x0003));
    EXPECT_EQ(cry.info().certificate, kB);
    cry.select(pro(0x1002, 0x0003));  // a certificate alone: no command
}

TEST_F(ProCryDriver, OneBadCertificateFailsTheSearchAndLeavesAnEmptyList) {
    put({record(1, kA, "l|a"), key(0x1001, 1), map("=a&1001"), record(2, hex("3003020101"), "")});
    CCryPro4 cry(&applet);
    EXPECT_EQ(failureCode([&] { cry.list(0x1001); }), code(0x6281));
    EXPECT_TRUE(cry.list(0x1001).empty());
    EXPECT_EQ(failureCode([&] { cry.provider(0x1002); }), code(0xFACE));
}

TEST_F(ProCryDriver, FipsPreparesTheKeyAndDeciphersUnderSecureMessaging) {
    put(fipsPair(0x1001, 0x3001, "k1"));
    CCryPro4Fips cry(&applet);
    card.expect("00 22 03 33 00", "90 00");
    cry.select(pro(0x5000, 0x0220, 0x3001));
    EXPECT_EQ(cry.decrypt(TBytes(128, 0x11)), hex("01 02"));
    EXPECT_EQ(pack->sent, Shown{"00 2A 80 86 81 00 " + bytes(128, "11") + "00 "});
    EXPECT_EQ(toHex(CryProDecipherApdu(TBytes(256, 0x33))),
              "00 2A 80 86 00 01 01 00 " + bytes(256, "33") + "04 00 ");  // extended
}

TEST(ProCry, InitInstallsTheFipsOrThePro4DriverWhateverTheFileSystem) {
    const std::string pro42 = "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00";
    const std::pair<std::string, bool> cases[] = {
        {pro42, true}, {pro42, false}, {"3B F2 98 00 FF C1 10 31 FE 55 C8 03 15", false}};
    for (const auto& [atr, fips] : cases) {
        ScriptedSender card;
        card.setAtr(atr);
        CAppletPro applet(&card);
        card.play({kHome, kDirFcp, "00 CA 01 83 00", "00 90 00", "00 A4 00 00 00", kDirFcp,
                   kFipsLabel, fips ? fileFcp(4) : "6A 82"});
        applet.init();
        IAppCrypto& cry = *applet.crypto();
        IAppFS& fs = *applet.fs();
        EXPECT_TRUE(typeid(cry) == (fips ? typeid(CCryPro4Fips) : typeid(CCryPro4))) << atr;
        EXPECT_EQ(typeid(fs) == typeid(CFSPro4), atr == pro42) << atr;  // a Pro32 keeps CFSPro
    }
}

}  // namespace
