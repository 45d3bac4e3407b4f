#include "token/appinfo/info_java.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr std::size_t kQueryAnswer = 256;
constexpr unsigned long kRandomPiece = 32;

// Queries and their tags.
constexpr unsigned char kBlock = 0x07;
constexpr unsigned char kVersion = 0x11;
constexpr unsigned char kMemoryTotal = 0x13;
constexpr unsigned char kMemoryFree = 0x14;
// Children of the block.
constexpr unsigned char kId = 0x01;
constexpr unsigned char kDate = 0x04;
constexpr unsigned char kColour = 0x05;

// The second byte of this file is not zero on a FIPS token.
const TPath kFipsFile = {0x000A};

// Child `tag` of a CTLV sequence; throws the integer 0 when it is not there.
CTLV child(const TBytes& answer, unsigned char tag) {
    return CTLV(answer.data(), answer.size()).getChild(tag);
}

// A big-endian number of at most four bytes; longer values give their first four.
unsigned int number(const TBytes& value) {
    return static_cast<unsigned int>(CTLV::getle(value.data(), value.size()));
}

}  // namespace

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::query(unsigned char tag) {
    TBytes response(kQueryAnswer);
    send({Commands.query[0], Commands.query[1], 0x01, tag, 0x00}, response);
    checkSW(response);
    response.resize(response.size() - 2);
    return response;
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::single(unsigned char tag) {
    const TBytes answer = query(tag);
    try {
        return child(answer, tag).asBytes();
    } catch (int) {
        APDU_RAISE(0x6281);
    }
}

template <const JavaFamilyCommands& Commands>
bool CInfoJavaFamily<Commands>::fromBlock(unsigned char inner, TBytes& value) {
    const TBytes answer = query(kBlock);
    try {
        value = child(answer, kBlock).getChild(inner).asBytes();
        return true;
    } catch (int) {
        return false;
    }
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::requireFromBlock(unsigned char inner) {
    TBytes value;
    if (!fromBlock(inner, value)) APDU_RAISE(0x6281);
    return value;
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::rnd(unsigned long count) {
    TBytes out;
    while (out.size() < count) {
        const unsigned long c = std::min(count - out.size(), kRandomPiece);
        TBytes response(c + 2);
        send({Commands.random[0], Commands.random[1], 0x00, 0x00, static_cast<unsigned char>(c)},
             response);
        checkSW(response);
        if (response.size() != c + 2) APDU_RAISE(0x6281);
        out.insert(out.end(), response.begin(), response.end() - 2);
    }
    return out;
}

template <const JavaFamilyCommands& Commands>
bool CInfoJavaFamily<Commands>::isFips() {
    if (fips == kFipsUnknown) {
        try {
            IAppFS* fs = applet->fs();
            fs->select(kFipsFile);
            TBytes mode(2);
            fs->read(mode, 0);
            fips = mode[1] != 0 ? kFipsYes : kFipsNo;
        } catch (const IException&) {
            // No such file, or one the driver cannot read: not a FIPS token.
            fips = kFipsNo;
        }
    }
    return fips == kFipsYes;
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::version(unsigned char) {
    return single(kVersion);
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::id(unsigned char) {
    return requireFromBlock(kId);
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::ManufacturingDate() {
    return requireFromBlock(kDate);
}

template <const JavaFamilyCommands& Commands>
unsigned int CInfoJavaFamily<Commands>::color() {
    TBytes colour;
    if (!fromBlock(kColour, colour)) return 0xFFFFFFFF;
    return number(colour);
}

template <const JavaFamilyCommands& Commands>
unsigned int CInfoJavaFamily<Commands>::memoryFree() {
    return number(single(kMemoryFree));
}

template <const JavaFamilyCommands& Commands>
unsigned int CInfoJavaFamily<Commands>::memoryTotal() {
    return number(single(kMemoryTotal));
}

template <const JavaFamilyCommands& Commands>
TBytes CInfoJavaFamily<Commands>::value(unsigned char selector) {
    if (selector != 1) return TBytes();
    return ManufacturingDate();
}

template class CInfoJavaFamily<kJavaCommands>;
template class CInfoJavaFamily<kJokerCommands>;

}  // namespace libapdu
