// Java, Joker and IDProtect keys where a real token cannot go: crafted layouts and answers.
#include <gtest/gtest.h>

#include "token/appcry/cry_idprotect.h"
#include "token/appcry/cry_java.h"
#include "token/appcry/finder_java.h"
#include "unit/memory_fs.h"
#include "unit/min_certificate.h"

namespace {

using namespace krfs_test;
using namespace memory_fs;
using Files = std::map<TPath, TBytes>;

const TBytes kA = certificate(0xAA), kB = certificate(0xBB, 256), kBlock = TBytes(128, 0x11);

// Containers, one per line: last path element, size, id, certificate's last byte (AA or BB).
std::string show(const std::vector<CCryptoInfo>& list) {
    std::string out;
    for (const CCryptoInfo& c : list)
        out += apdu("%04X %u ", c.path.empty() ? 0 : c.path.back(), c.size) + toHex(c.id) +
               (c.certificate.empty() ? "-" : toHex({c.certificate.back()})) + "\n";
    return out;
}
// What `f` gives, or "!" and the status word it fails with.
template <class F>
std::string run(F&& f) {
    std::string got;
    const long failure = failureCode([&] { got = f(); });
    return failure ? apdu("!%04X", failure & 0xFFFF) : got;
}

struct RecordingPack : IAppPack {
    void sm(const TBytes& apdu, TBytes& r) override { sent = "sm " + toHex(apdu), r = answer; }
    void chain(const TBytes& apdu, TBytes& r) override { sent = "ch " + toHex(apdu), r = answer; }
    std::string sent;
    TBytes answer = hex("80 03 0A 0B 0C 90 00");  // an IDProtect result
};

struct CryDrivers : ::testing::Test {
    ScriptedSender card;
    ScriptedApplet applet{&card};
    FixedInfo* info = applet.install<FixedInfo>(applet.info_, false);
    RecordingPack* pack = new RecordingPack;
    MemoryFS* fs = new MemoryFS;
    CryDrivers() { applet.pin_.reset(new UserPin), applet.pack_.reset(pack), applet.fs_.reset(fs); }
};

// Java and Joker: one directory per object; fields (tag, length, value), the id the third.
TPath home(WORD dir) { return {0x3F00, 0x6666, 0x5000, 0x0220, dir}; }
TPath file(WORD dir, WORD id) { return {0x3F00, 0x6666, 0x5000, 0x0220, dir, id}; }
const TBytes kFields = hex("01 01 AA 02 00 03 03 C0 FF EE");
const TBytes kKeyFields = cat({hex("00 01 02 03 04 05"), kFields});  // after 6 bytes

TEST_F(CryDrivers, JavaAndJokerFindersOnCraftedLayouts) {
    const std::pair<Files, std::string> rows[] = {
        {{{file(0x1001, 2), kA}, {file(0x1001, 1), kFields}, {file(0x3001, 1), hex("0102030405")}},
         "3001 0 -\n1001 128 C0 FF EE AA \n"},  // 5-byte key attributes
        {{{file(0x3001, 1), hex("000102030405 0100 0200 0305 C0")}}, "3001 0 -\n"},  // overrun
        {{{file(0x1002, 2), kA}, {file(0x3001, 9), {}}, {file(0x2001, 1), kFields}},
         "3001 0 AA \n"},  // no 0001 on either side: empty ids pair; 2xxx is nothing
        {{{file(0x1002, 1), kFields}, {file(0x3002, 1), kKeyFields}}, "3002 0 C0 FF EE -\n"}};
    for (const auto& [files, containers] : rows) {
        fs->files.clear(), fs->dirs.clear();
        for (const auto& [path, data] : files) fs->put(path, data);
        EXPECT_EQ(show(CJavaFinder(AppletToAdapter(&applet)).containers()), containers);
        EXPECT_EQ(show(CJokerFinder(AppletToAdapter(&applet)).containers()), containers);
    }
}

TEST_F(CryDrivers, JavaFamilyAsksTheKeyOnlyInKeyDirectoriesThenDeciphers) {
    const char* selects[][2] = {{"00 00 05 04 90 00", "!6281"},
                                {"00 00 04 04 00 90 00", "!6283"},
                                {"00 00 05 FB 00 90 00", "3001 128 C0 FF EE AA \n"},
                                {"00 00 05 04 00 90 00", "3001 256 C0 FF EE AA \n"}};
    // Under secure messaging or not, the block, the answer, the result.
    const std::tuple<bool, TBytes, std::string, std::string> deciphers[] = {
        {false, kBlock, "07 02 00 00 10 FF 00 03 0A 0B 0C 90 00", "0A 0B 0C "},
        {false, kBlock, "10 05 01 90 00", "!6281"},
        {true, kBlock, "10 FF 00 02 0A 0B 90 00", "0A 0B "},
        {false, TBytes(127, 0x11), "10 FF 00 01 0A 90 00", "0A "}};  // not the key's: Joker refuses
    fs->put(file(0x1001, 1), kFields), fs->put(file(0x1001, 2), kA), fs->put(file(0x1002, 2), kB);
    fs->put(file(0x3001, 1), kKeyFields);
    for (const bool joker : {false, true}) {
        const std::string query = joker ? "80 14" : "80 07", decipher = joker ? "80 19" : "80 0C";
        std::unique_ptr<IAppCrypto> cry(joker ? static_cast<IAppCrypto*>(new CCryJoker(&applet))
                                              : new CCryJava(&applet));
        for (const auto& [answer, length] : selects) {
            cry->select(home(0x1002));  // a certificate alone: the card hears nothing
            card.expect(query + " 00 31 03 10 01 1A 00", answer);
            EXPECT_EQ(run([&] { return cry->select(home(0x3001)), show({cry->info()}); }), length);
        }
        for (const auto& [fips, block, answer, result] : deciphers) {
            const TBytes& b = block;
            const std::string command = decipher +
                                        apdu(" 03 31 00 %04X 10 FF %04X ", b.size() + 4, b.size()) +
                                        toHex(b) + "04 00 ";
            const bool refused = joker && b.size() != 128;
            if (!fips && !refused) card.expect(command, answer);
            info->fips = fips, pack->answer = hex(answer), pack->sent.clear();
            EXPECT_EQ(run([&] { return toHex(cry->decrypt(b)); }), refused ? "!6281" : result);
            EXPECT_EQ(pack->sent, fips ? "sm " + toHex(hex(command)) : "");
        }
    }
}

// IDProtect: key 02nn, companion (nn|0x40)+1 sized as the key, certificate object 84nn.
TPath key(WORD id) { return {0x3F00, 0x3000, 0x3002, id}; }
TPath object(WORD id) { return {0x3F00, 0x3000, 0x3001, id}; }
TBytes certObject(const TBytes& d) { return cat({TBytes(125, 0), hex(apdu("%04X", d.size())), d}); }

TEST_F(CryDrivers, IdprotectListsSelectsAndDeciphersThroughChaining) {
    for (WORD id : {0x0201, 0x0202, 0x0203, 0x0205, 0x0301, 0x0042, 0x0043, 0x0044})
        fs->put(key(id), TBytes(id == 0x0043 ? 256 : 128));
    for (WORD id : {0x8401, 0x8402, 0x8441, 0x8541})
        fs->put(object(id), certObject(id == 0x8401 ? kA : kB));
    CCryIdprotect cry(&applet);
    EXPECT_EQ(cry.list(0x1002), (std::vector<TPath>{key(0x0201), key(0x0202), key(0x0203),
                                                    key(0x0205), object(0x8441)}));
    for (const TBytes& bad : {TBytes(126, 0), cat({TBytes(125, 0), hex("0006"), TBytes(5)})})
        EXPECT_EQ(failureCode([&] { IdprotectCertificate(bad); }), code(0x6281));
    // The selection, then the hh ll, tag and length sent through chaining, or the failure.
    const std::tuple<TPath, std::string, std::string> rows[] = {
        {key(0x0203), "0203 128 02 -\n", "!6281"},  // no certificate
        {key(0x0201), "0201 128 00 AA \n", "00 83 82 81 80 "},
        {key(0x0202), "0202 256 01 BB \n", "01 04 82 82 01 00 "},
        {key(0x0301), "!6A82", ""},
        {key(0x0205), "!6A82", ""}};  // no companion

    for (const auto& [path, shows, body] : rows) {
        const TPath& p = path;
        EXPECT_EQ(run([&] { return cry.select(p), show({cry.info()}); }), shows);
        EXPECT_EQ(show({cry.info()}), body.empty() ? "0202 256 01 BB \n" : shows);  // kept
        if (body.empty()) continue;
        const TBytes block(cry.info().size, 0x11);
        const bool refused = body[0] == '!';
        EXPECT_EQ(run([&] { return toHex(cry.decrypt(block)); }), refused ? body : "0A 0B 0C ");
        EXPECT_EQ(pack->sent, refused ? "" : "ch 00 2A 80 0C 00 " + body + toHex(block) + "00 00 ");
    }
}

}  // namespace
