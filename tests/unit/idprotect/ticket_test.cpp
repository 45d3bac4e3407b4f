// Tickets in place of a PIN, and the fingerprint driver, against scripted
// IDProtect cards. Tickets are built here with OpenSSL alone.
#include "token/appbio/auth_ticket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "token/applet_idprotect.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kOk = "90 00";
const TBytes kReference = hex("00 00 00 02"), kKey = hex("0123456789ABCDEF FEDCBA9876543210");

// The 189-byte record: type, reference and key (if `finger`), the PIN as
// 4-byte wide characters.
TBytes record(std::uint32_t type, bool finger, const std::string& pin) {
    TBytes r(189, 0);
    std::memcpy(r.data(), &type, 4);
    if (finger) std::memcpy(&r[4], cat({kReference, kKey}).data(), 20);
    for (std::size_t i = 0; i < pin.size(); ++i) r[24 + 4 * i] = static_cast<unsigned char>(pin[i]);
    return r;
}
// Tag 1 declared `length` long, holding the first `kept` bytes of `r`.
TBytes object(const TBytes& r, unsigned char length = 189, std::size_t kept = 130) {
    return cat({{0x01, length}, TBytes(r.begin(), r.begin() + kept)});
}
// The digest, the body, in Base64, padded with '=' to 208 chars.
std::string text(const TBytes& body) {
    const TBytes d = cat({oracle::plainKey(body), body});
    std::string out(4 * ((d.size() + 2) / 3) + 1, '\0');
    out.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), d.data(), d.size()));
    return out + std::string(out.size() < 208 ? 208 - out.size() : 0, '=');
}
TBytes bytesOf(const std::string& s) { return TBytes(s.begin(), s.end()); }

const std::string kBoth = text(object(record(0x25, true, "12345678")));

// A recognised ticket decodes as far as its data go: with 34 bytes kept,
// type, reference, key and 10 bytes of the PIN; the rest stays as it was.
TEST(Ticket, RecognisedOnlyWhenWellFormedAndDecodedWithinItsData) {
    const TBytes pin8 = record(0x25, true, "12345678");
    std::string changed = kBoth, cut = kBoth;
    changed[0] = changed[0] == 'A' ? 'B' : 'A';  // a digest byte
    cut[120] = '!';                              // decoding stops there
    // clang-format off
    const std::tuple<std::string, bool, std::wstring> rows[] = {
        {kBoth, true, L"12345678"}, {kBoth.substr(0, 207), false, L""}, {kBoth + "A", false, L""},
        {changed, false, L""}, {cut, false, L""}, {text(object(pin8, 188)), false, L""},
        // Objects before tag 1 are passed over, but not past the data.
        {text(cat({{0x02, 0x01, 0x00}, object(pin8, 189, 127)})), true, L"12345678"},
        {text(cat({{0x02, 0xFF, 0x01, 0x00}, object(pin8, 189, 126)})), false, L""},
        // Decoded data far shorter than the record: the header is what counts.
        {text(object(pin8, 189, 34)), true, L"123"}, {text({0x01}), false, L""},
    };
    // clang-format on
    for (const auto& [t, recognised, pin] : rows) {
        EXPECT_EQ(KrAuthHelper::is_bio_ticket(bytesOf(t)), recognised) << t;
        if (!recognised) continue;
        KrAuthTicket ticket{};
        std::memset(ticket.reserved, 0xEE, sizeof ticket.reserved);
        KrAuthHelper::decode_ticket(bytesOf(t), ticket);
        EXPECT_EQ(ticket.type(), 0x25u);
        EXPECT_EQ(TBytes(ticket.bioKey, ticket.bioKey + 16), kKey);
        EXPECT_EQ(ticket.pinText(), pin);
        EXPECT_EQ(ticket.reserved[44], 0xEE) << "untouched beyond the data";
    }
}

const std::string kChallenge = "11 22 33 44 55 66 77 88 ",
                  kSelectAid = "00 A4 04 00 0C A0 00 00 01 64 4C 41 53 45 52 00 01 00";
// clang-format off
// The user object 0025, a composite: its counters from 0020, then the list.
const std::vector<std::string> kSelect = {"80 A4 08 0C 04 3F 00 00 25 00", "62 07 85 05 04 10 0F 00 55 90 00",
    "80 A4 08 0C 04 3F 00 00 20 00", "62 07 85 05 04 10 00 00 55 90 00", "80 CE 00 00 00", kOk};
// clang-format on
// The exchanges of a step and the card's last word, after `before`.
std::vector<std::string> fingerStep(const std::string& word, std::vector<std::string> before = {}) {
    const TBytes key3 = cat({kKey, TBytes(kKey.begin(), kKey.begin() + 8)});
    const TBytes proof = oracle::evp("DES-EDE3-CBC", key3, TBytes(8, 0), hex(kChallenge), true);
    before.insert(before.end(),
                  {"00 84 00 00 08", kChallenge + kOk, "80 A4 08 0C 04 3F 00 00 23 00", kOk,
                   "00 22 03 00 0C 00 00 00 02 " + toHex(proof), word});
    return before;
}
std::vector<std::string> pinStep(const std::string& word, std::vector<std::string> before = {}) {
    before.insert(before.end(), kSelect.begin(), kSelect.end());
    before.insert(before.end(),
                  {"00 84 00 00 08", kChallenge + kOk, "80 20 00 00 10" + anyBytes(16), word});
    return before;
}

TEST(Ticket, LoginTakesTheStepsTheTicketCallsForAndTheFingerprintDriver) {
    ScriptedSender card;
    card.play({kSelectAid, kOk, kSelect[0], kSelect[1], "80 A4 08 0C 06 3F 00 30 00 30 02 00",
               "62 04 86 02 00 25 90 00"});
    card.play(std::vector<std::string>(kSelect.begin() + 2, kSelect.end()));
    CAppletIdprotect applet(&card);
    IAppPin* pin = applet.pin();
    pin->select({0x3F00, 0x25});
    const auto login = [&](const std::string& t) { return [&, t] { pin->login(bytesOf(t)); }; };
    run(card,
        {
            // clang-format off
            {login(kBoth), pinStep(kOk, fingerStep(kOk)), 0, 5, 0xFF},
            {login(text(object(record(0x24, false, "1234")))), pinStep(kOk), 0, 5, 0xFF},
            {login(text(object(record(0x24, true, "")))), fingerStep(kOk), 0, 5, 0xFF},
            {login(text(object(record(0x23, true, "")))), fingerStep("63 C2"), code(0x6300), 4, 0xFF},
            {login(text(object(record(0x21, true, "1234")))), {}, 0, 4, 0xFF},
            // clang-format on
        },
        pin);

    // The fingerprint driver: match on card in parts of 254, the fingers, the login type.
    IAppBio* bio = applet.bio();
    TBytes result;
    const auto match = [&](std::size_t size) {
        return [&, size] { result = bio->appletMoC(TBytes(size, 0x5A), 5); };
    };
    const std::string head243 = "62 82 00 FA 83 01 05 81 82 00 F3 ", twenty = bytes(20, "C3"),
                      head244 = "62 82 00 FB 83 01 05 81 82 00 F4 ";
    // clang-format off
    // The call, the exchanges, the code and the result.
    const std::tuple<std::function<void()>, std::vector<std::string>, long, std::string> rows[] = {
        {match(243), {"00 22 02 00 FE " + head243 + bytes(243, "5A") + "00", twenty + "AA BB 90 00"}, 0, twenty},
        {match(244), {"10 22 02 00 FE " + head244 + bytes(243, "5A"), kOk,
                      "00 22 02 00 01 5A 00", "01 02 90 00"}, 0, "01 02 "},
        {match(244), {"10 22 02 00 FE " + head244 + bytes(243, "5A"), "63 C2"}, code(0x6300), ""},
        {match(243), {"00 22 02 00 FE" + anyBytes(254) + " 00", "63 C0"}, code(0x6286), ""},
    };
    // clang-format on
    for (const auto& [call, exchange, failed, answer] : rows) {
        result.clear();
        card.play(exchange);
        EXPECT_EQ(failureCode(call), failed) << exchange[0].substr(0, 20);
        EXPECT_EQ(toHex(result), answer);
    }

    card.play({"80 48 00 00 00", "EA 0A 00 03 00 05 00 00 00 00 00 0B 90 00",
               "80 A4 08 0C 06 3F 00 30 00 30 02 00", "62 04 86 02 00 23 90 00",
               "80 A4 08 0C 06 3F 00 30 00 30 02 00", "62 04 86 02 00 21 90 00"});
    EXPECT_EQ(toHex(bio->getEnrolledFingers()), "02 04 0A ");
    EXPECT_EQ(bio->loginType(), 0x23u);
    EXPECT_EQ(bio->loginType(), 0u);
}

}  // namespace
