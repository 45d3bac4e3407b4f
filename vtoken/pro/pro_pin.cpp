// The Pro card's PIN protocol: challenge and answer, the change and unblock
// commands, and the secure messaging that carries a FIPS token's changes.
#include "pro/pro_card.h"
#include "pro/pro_crypto.h"

#include <algorithm>

namespace vtoken::pro {

namespace {

constexpr unsigned char kLocalReference = 0x80;
constexpr std::size_t kAnswerSize = 8;
constexpr unsigned char kChangeNewOnly = 0x01;  // 00 24: only the new key follows
constexpr unsigned char kKindPin = 0x00;        // 90 24: the object authenticates
constexpr unsigned char kKindKey = 0x10;        //        the object only holds a key
constexpr std::uint16_t kUnblockObject = 0x016E;

constexpr unsigned char kTagData = 0x87;
constexpr unsigned char kTagLe = 0x97;
constexpr unsigned char kTagMac = 0x8E;
constexpr unsigned char kPaddingIndicator = 0x01;
constexpr unsigned char kSmClassBits = 0x0C;
constexpr unsigned char kDecipherIns = 0x2A;

// One level of simple TLVs with one-byte lengths, each with its raw bytes.
// The host writes a length as a single byte up to 255 (not in BER form), and
// reads the answer's the same way.
struct Object {
    unsigned char tag;
    Bytes value;
    Bytes raw;
};

std::optional<std::vector<Object>> objects(const Bytes& data) {
    std::vector<Object> out;
    std::size_t i = 0;
    while (i < data.size()) {
        if (data.size() - i < 2) return std::nullopt;
        const std::size_t length = data[i + 1];
        if (data.size() - i - 2 < length) return std::nullopt;
        out.push_back({data[i], Bytes(data.begin() + i + 2, data.begin() + i + 2 + length),
                       Bytes(data.begin() + i, data.begin() + i + 2 + length)});
        i += 2 + length;
    }
    return out;
}

const Object* find(const std::vector<Object>& list, unsigned char tag) {
    for (const auto& o : list)
        if (o.tag == tag) return &o;
    return nullptr;
}

}  // namespace

PinObject* ProCard::pinByReference(unsigned char reference, Path& dir) {
    dir = reference & kLocalReference ? session_.df : Path{};
    Node* node = state_.find(dir);
    return node && node->dir ? node->pin(reference & 0x7F) : nullptr;
}

Bytes ProCard::authenticate(const Command& c) {
    if (c.p1 != 0x00) return respond(sw::kWrongP1P2);
    if (c.data.size() != kAnswerSize) return respond(sw::kWrongLength);
    Path dir;
    PinObject* pin = pinByReference(c.p2, dir);
    if (!pin || !pin->authenticates()) return respond(sw::kDataNotFound);
    // One challenge, one answer, right or wrong.
    const Bytes challenge = std::move(session_.challenge);
    session_.challenge.clear();
    if (challenge.size() != kAnswerSize) return respond(sw::kConditionsNotSatisfied);
    if (pin->tries == 0) return respond(sw::kBlocked);

    // Right or wrong, an attempt replaces what the PIN had proved before.
    auto& v = session_.verified;
    v.erase(std::remove_if(v.begin(), v.end(),
                           [&](const Session::Verified& p) { return p.id == pin->id; }),
            v.end());
    if (des3Encrypt(pin->key, challenge) != c.data) {
        --pin->tries;
        changed_ = true;
        return respond(sw::kWrongPin);
    }
    if (pin->tries != pin->maxTries) {
        pin->tries = pin->maxTries;
        changed_ = true;
    }
    verify(dir, pin->id);

    // A FIPS PIN brings the keys of its set: its own for the MAC, the next
    // object's for the cipher.
    if (state_.fips) {
        const PinObject* enc = state_.find(dir)->pin(static_cast<unsigned char>(pin->id + 1));
        session_.smMac = pin->key;
        session_.smEnc = enc ? enc->key : Bytes{};
        session_.smDir = dir;
        if (session_.smEnc.empty()) session_.smMac.clear();
    }
    return respond(sw::kOk);
}

Bytes ProCard::changeReference(const Command& c, bool protectedCommand) {
    const bool pro4 = state_.info().pro4;
    if (c.p1 != (pro4 ? kKindPin : kChangeNewOnly) && !(protectedCommand && c.p1 == kKindKey))
        return respond(sw::kWrongP1P2);
    if (c.data.size() != kPinKeySize || c.le) return respond(sw::kWrongLength);
    // A FIPS token takes its keys only under secure messaging, which a login
    // opened; anywhere else the PIN itself, or the administrator, must be
    // verified.
    if (state_.fips != protectedCommand) return respond(sw::kSecurityNotSatisfied);
    Path dir;
    PinObject* pin = pinByReference(c.p2, dir);
    if (!pin) return respond(sw::kDataNotFound);
    if (protectedCommand) {
        if ((c.p1 == kKindPin) != pin->authenticates()) return respond(sw::kWrongP1P2);
    } else {
        if (!pin->authenticates()) return respond(sw::kDataNotFound);
        if (!granted(pin->id) && !granted(kAdminPin)) return respond(sw::kSecurityNotSatisfied);
    }
    pin->key = c.data;
    pin->tries = pin->maxTries;
    changed_ = true;
    return respond(sw::kOk);
}

Bytes ProCard::unblock(const Command& c) {
    if (c.p1p2() != kUnblockObject) return respond(sw::kWrongP1P2);
    if (c.le) return respond(sw::kWrongLength);
    if (state_.fips || !granted(kAdminPin)) return respond(sw::kSecurityNotSatisfied);
    // The user's PIN object made anew: identifier, attributes (the second
    // byte the try limit), access, key.
    auto list = objects(c.data);
    if (!list) return respond(sw::kWrongData);
    const Object* id = find(*list, 0x83);
    const Object* attributes = find(*list, 0x85);
    const Object* key = find(*list, 0x8F);
    if (!id || id->value.size() != 2 || !attributes || attributes->value.size() < 2 ||
        attributes->value[1] == 0 || !key || key->value.size() != kPinKeySize)
        return respond(sw::kWrongData);
    const unsigned char pinId = id->value[1];
    if (pinId == 0 || pinId == kAdminPin) return respond(sw::kWrongData);
    Node& dir = currentDf();
    PinObject* pin = dir.pin(pinId);
    if (!pin) {
        dir.pins.push_back({pinId, "user", {}});
        pin = &dir.pins.back();
    }
    pin->key = key->value;
    pin->maxTries = pin->tries = attributes->value[1];
    changed_ = true;
    return respond(sw::kOk);
}

Bytes ProCard::secureMessaging(const Command& c) {
    auto list = objects(c.data);
    if (!list) return respond(sw::kSmObjectsWrong);
    const Object* data = find(*list, kTagData);
    const Object* expected = find(*list, kTagLe);
    const Object* mac = find(*list, kTagMac);
    if (!data || !mac) return respond(sw::kSmObjectsMissing);
    if (data->value.empty() || data->value[0] != kPaddingIndicator || mac->value.size() != kBlock)
        return respond(sw::kSmObjectsWrong);
    if (session_.smMac.empty()) return respond(sw::kSecurityNotSatisfied);
    // The keys stay those of the login that opened the channel, whatever the
    // command changes.
    const Bytes macKey = session_.smMac;
    const Bytes encKey = session_.smEnc;

    Bytes m{c.cla, c.ins, c.p1, c.p2};
    padZeros(m);
    m.insert(m.end(), data->raw.begin(), data->raw.end());
    padZeros(m);
    if (expected) {
        m.insert(m.end(), expected->raw.begin(), expected->raw.end());
        padZeros(m);
    }
    if (retailMac(macKey, m) != mac->value) return respond(sw::kSmObjectsWrong);
    auto plain = cbcDecrypt(encKey, Bytes(data->value.begin() + 1, data->value.end()));
    if (!plain) return respond(sw::kSmObjectsWrong);

    Command inner;
    inner.cla = c.cla & static_cast<unsigned char>(~kSmClassBits);
    inner.ins = c.ins;
    inner.p1 = c.p1;
    inner.p2 = c.p2;
    inner.data = *plain;
    Bytes answer;
    if (inner.ins == 0x24 && inner.cla == 0x90 && state_.info().pro4) {
        answer = changeReference(inner, true);
    } else if (inner.ins == kDecipherIns && inner.cla == 0x00) {
        answer = decipher(inner, true);
    } else {
        answer = dispatch(inner);
    }

    // Errors come back bare; an answer that carries data or success is
    // wrapped and MACed, the status word left outside.
    const Bytes status(answer.end() - 2, answer.end());
    const Bytes body(answer.begin(), answer.end() - 2);
    if (body.empty() && status != Bytes{0x90, 0x00}) return answer;
    Bytes value{kPaddingIndicator};
    const Bytes cipher = cbcEncrypt(encKey, body);
    value.insert(value.end(), cipher.begin(), cipher.end());
    // One length byte, which the host's reader takes as it stands; FF would
    // announce two more, and no answer of this card comes near it.
    if (value.size() >= 0xFF) return respond(sw::kWrongLength);
    Bytes out{kTagData, static_cast<unsigned char>(value.size())};
    out.insert(out.end(), value.begin(), value.end());
    Bytes m2{c.cla, c.ins, c.p1, c.p2, 0x00, 0x00, 0x00, 0x00};
    append(m2, out);
    if (m2.size() % kBlock != 0) padZeros(m2);
    const Bytes check = retailMac(macKey, m2);
    out.insert(out.end(), {kTagMac, static_cast<unsigned char>(kBlock)});
    out.insert(out.end(), check.begin(), check.end());
    out.insert(out.end(), status.begin(), status.end());
    return out;
}

}  // namespace vtoken::pro
