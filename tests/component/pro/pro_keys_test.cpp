// The Pro card's keys: naming a key by reference or by directory, the PIN
// the decipher needs, refused ids and the state file that keeps the keys.
#include "component/vtoken/card_script.h"
#include "core/card_sender.h"
#include "pro/pro_card.h"
#include "pro/pro_keys.h"
#include "token/applet_pro.h"

namespace krfs::component {
namespace {

using vtoken::toHex;
using vtoken::pro::ProCard;

// DECIPHER with padding indicator 00: short for 128 bytes, extended for 256.
std::string decipher(const vtoken::Bytes& block) {
    const bool extended = block.size() > 0xFF;
    return (extended ? "00 2A 80 86 00 01 01 00 " : "00 2A 80 86 81 00 ") + toHex(block) +
           (extended ? " 04 00" : " 00");
}

TEST(ProKeys, ReferencesPinIdsAndTheStateFile) {
    ProCard first(vtoken::pro::personalise({}));
    first.addKey(testKey(1024), "alpha");
    first.addKey(testKey(2048), "beta");
    for (const char* id : {"alpha", "a&b", "a=b", "", "line\n"})
        EXPECT_THROW(first.addKey(testKey(1024), id), std::invalid_argument) << id;
    ProCard card(vtoken::pro::fromJsonText(vtoken::pro::toJsonText(first.state())));
    for (const auto& [bits, kk] : {std::pair{1024, "05"}, {2048, "07"}}) {  // kk = (R + 1) * 2 + 1
        const auto [block, result] = blockAndResult(testKey(bits));
        card.reset();
        EXPECT_EQ(send(card, "00 A4 08 0C 04 66 66 10 01"), "90 00");
        EXPECT_EQ(send(card, "00 22 01 B8 03 83 01 09 00"), "6A 88") << "no key R 3";
        EXPECT_EQ(send(card, std::string("00 22 01 B8 03 83 01 ") + kk + " 00"), "90 00");
        EXPECT_EQ(send(card, decipher(block)), "69 82") << "no PIN verified";
        card.verify({0x6666}, vtoken::pro::kUserPin);
        EXPECT_EQ(send(card, decipher(block)), toHex(result) + " 90 00");
        EXPECT_EQ(send(card, "00 22 03 FE 00"), "90 00");
        EXPECT_EQ(send(card, decipher(block)), "6A 88") << "no key current";
    }
}

TEST(ProKeys, FipsKeyByItsDirectoryTooLongForTheHostsSecureMessaging) {
    vtoken::pro::Personalisation p;
    p.fips = true;
    ProCard card(vtoken::pro::personalise(p));
    card.addKey(testKey(2048), "fips-2");
    vtoken::CardSender sender(card);
    libapdu::CAppletPro applet(&sender);
    applet.init();
    applet.pin()->select(applet.pin()->pathUser());
    applet.pin()->login(TBytes(p.userPin.begin(), p.userPin.end()));
    EXPECT_EQ(send(card, "00 A4 08 0C 06 66 66 50 00 02 20"), "90 00");
    EXPECT_EQ(send(card, "00 22 03 33 00"), "6A 88") << "not in a key directory";
    EXPECT_EQ(send(card, "00 22 01 B8 03 83 01 03 00"), "6A 88") << "a FIPS key has no R";
    EXPECT_EQ(send(card, "00 A4 08 0C 08 66 66 50 00 02 20 30 01"), "90 00");
    EXPECT_EQ(send(card, "00 22 03 33 00"), "90 00");
    // The host's wrapping writes the lengths of a 256-byte block modulo 256.
    TBytes answer;
    applet.pack()->sm(vtoken::fromHex(decipher(blockAndResult(testKey(2048)).first)), answer);
    EXPECT_EQ(toHex(answer), "67 00");
}

}  // namespace
}  // namespace krfs::component
