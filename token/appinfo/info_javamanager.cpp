#include "token/appinfo/info_javamanager.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr std::size_t kAnswer = 256;
// GET DATA of the Global Platform card production life cycle data: 9F 7F,
// its length, then the data. The operating system's release level is at 11
// and 12 of the answer.
const TBytes kLifeCycle = {0x80, 0xCA, 0x9F, 0x7F, 0x00};
constexpr std::size_t kVersionLow = 11;
constexpr std::size_t kVersionHigh = 12;
const TBytes kIdentifier = {0x80, 0xCA, 0x00, 0x46, 0x00};
constexpr unsigned char kTagIdentifier = 0x46;
const TBytes kModel = {0x00, 0xCA, 0x00, 0x01, 0x00};
constexpr unsigned char kTagModel = 0x01;
constexpr unsigned char kModelSelector = 2;

}  // namespace

TBytes CInfoJavaManager::version(unsigned char) {
    TBytes response(kAnswer);
    send(kLifeCycle, response);
    checkSW(response);
    if (response.size() <= kVersionHigh) APDU_RAISE(0x6281);
    return TBytes{response[kVersionHigh], response[kVersionLow]};
}

TBytes CInfoJavaManager::getData(const TBytes& command, unsigned char tag) {
    TBytes response(kAnswer);
    send(command, response);
    checkSW(response);
    try {
        return CTLV(response.data(), response.size() - 2).getChild(tag).asBytes();
    } catch (int) {
        APDU_RAISE(0x6281);
    }
}

TBytes CInfoJavaManager::id(unsigned char) { return getData(kIdentifier, kTagIdentifier); }

TBytes CInfoJavaManager::value(unsigned char selector) {
    if (selector != kModelSelector) return TBytes();
    return getData(kModel, kTagModel);
}

}  // namespace libapdu
