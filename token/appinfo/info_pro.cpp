#include "token/appinfo/info_pro.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr std::size_t kChunk = 240;
constexpr unsigned char kObjectId = 0x81;
constexpr unsigned char kObjectVersion = 0x82;
constexpr unsigned char kObjectMemoryTotal = 0x89;
constexpr unsigned char kObjectMemoryFree = 0x8A;

const TPath kFipsLabel = {0x3F00, 0x6666, 0x5000, 0x0002};
const TPath kColour = {0x3F00, 0x6666, 0x1000, 0x0006};
const TPath kFipsColour = {0x3F00, 0x6666, 0x5000, 0x000A};

}  // namespace

TBytes CInfoPro::getData(unsigned char object, std::size_t capacity) {
    const TBytes command{0x00, 0xCA, 0x01, object, 0x00};
    TBytes response(capacity);
    send(command, response);
    checkSW(response);
    return response;
}

TBytes CInfoPro::rnd(unsigned long count) {
    TBytes out;
    out.reserve(count);
    while (out.size() < count) {
        const std::size_t c = std::min<std::size_t>(count - out.size(), kChunk);
        const TBytes command{0x00, 0x84, 0x00, 0x00, static_cast<unsigned char>(c)};
        TBytes response(c + 2);
        send(command, response);
        checkSW(response);
        if (response.size() != c + 2) APDU_RAISE(0x6281);
        out.insert(out.end(), response.begin(), response.end() - 2);
    }
    return out;
}

bool CInfoPro::isFips() {
    if (fips == kFipsUnknown) {
        try {
            applet->fs()->select(kFipsLabel);
            fips = kFipsYes;
        } catch (const IException&) {
            // Whatever the card said, no label file means no FIPS token.
            fips = kFipsNo;
        }
    }
    return fips == kFipsYes;
}

TBytes CInfoPro::version(unsigned char) {
    const TBytes r = getData(kObjectVersion, 258);
    if (r.size() <= 3) APDU_RAISE(0x6281);
    return TBytes(r.begin(), r.begin() + 2);
}

TBytes CInfoPro::id(unsigned char selector) {
    if (selector == 1) return qntokenID();
    const TBytes r = getData(kObjectId, 258);
    if (r.size() <= 17) APDU_RAISE(0x6281);
    return TBytes(r.begin() + 10, r.begin() + 16);
}

unsigned int CInfoPro::color() {
    const bool fipsToken = isFips();
    try {
        IAppFS* fs = applet->fs();
        TBytes colour(1);
        if (fipsToken) {
            fs->select(kFipsColour);
            fs->read(colour, 2);
        } else {
            fs->select(kColour);
            fs->read(colour, 0);
        }
        return colour[0];
    } catch (const IException&) {
        return 0xFFFFFFFF;
    }
}

unsigned int CInfoPro::memoryFree() {
    applet->fs()->select(TPath());
    const TBytes r = getData(kObjectMemoryFree, 256);
    if (r.size() != 4) APDU_RAISE(0x6281);
    return r[0] * 256u + r[1];
}

unsigned int CInfoPro::memoryTotal() {
    applet->fs()->select(TPath());
    const TBytes r = getData(kObjectMemoryTotal, 256);
    if (r.size() <= 5) APDU_RAISE(0x6281);
    // Bytes 2 and 3, in kilobytes.
    return (r[2] * 256u + r[3]) * 1024u;
}

TBytes CInfoPro::readBasicInfo() {
    const TBytes input{0x02, 0x00, 0x00, 0x00};
    TBytes output(8);
    applet->sender()->control(kControlCode, input, output);
    if (output.size() != 8) APDU_RAISE(0x6281);
    return output;
}

TBytes CInfoPro::qntokenID() {
    TBytes basic;
    try {
        basic = readBasicInfo();
    } catch (...) {
        // A reader driver without this control code: the caller falls back
        // to id(2).
        APDU_RAISE(0xFACE);
    }
    return TBytes{basic[7], basic[6], basic[5], basic[4]};
}

TBytes CInfoPro::readCfg() {
    const TBytes askLength{0x01, 0x00, 0x00, 0x00, 0xC0, 0xAA, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00};
    TBytes head(3);
    applet->sender()->control(kControlCode, askLength, head);
    if (head.size() != 3 || head[2] != 0) APDU_RAISE(0x6281);
    const unsigned length = head[0] * 256u + head[1];
    // The request carries length + 1 in 16 bits.
    if (length == 0xFFFF) APDU_RAISE(0x6281);

    const unsigned wanted = length + 1;
    const TBytes askBlock{0x01,
                          0x00,
                          0x00,
                          0x00,
                          0xC0,
                          0xAA,
                          0x00,
                          0x00,
                          0x01,
                          0x00,
                          static_cast<unsigned char>(wanted & 0xFF),
                          static_cast<unsigned char>(wanted >> 8)};
    TBytes block(wanted);
    applet->sender()->control(kControlCode, askBlock, block);
    if (block.size() != wanted || block.back() != 0) APDU_RAISE(0x6281);
    block.pop_back();
    return block;
}

}  // namespace libapdu
