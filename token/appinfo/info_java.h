// Token information of the Java applet, from the same driver as the Joker
// applet's, which differs only in its instruction bytes.
#pragma once

#include "token/appfs/fs_javafamily.h"
#include "token/appinfo/info_common.h"

namespace libapdu {

// The information block of both applets, one class per table of commands:
// CInfoJava and CInfoJoker. The FIPS state is read once and kept.
template <const JavaFamilyCommands& Commands>
class CInfoJavaFamily : public CInfoCommon {
public:
    explicit CInfoJavaFamily(IApplet* owner) : CInfoCommon(owner) {}

    TBytes rnd(unsigned long count) override;
    bool isFips() override;
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    // 0xFFFFFFFF when the card gives no colour.
    unsigned int color() override;
    unsigned int memoryFree() override;
    unsigned int memoryTotal() override;
    // 1: the manufacturing date; anything else: empty, without an exchange.
    TBytes value(unsigned char selector) override;
    TBytes ManufacturingDate();

private:
    static constexpr unsigned short kFipsUnknown = 16;
    static constexpr unsigned short kFipsYes = 255;
    static constexpr unsigned short kFipsNo = 0;

    // The answer to the information query `tag`, without its status word.
    TBytes query(unsigned char tag);
    // Child `tag` of the answer to query `tag`; 0x6281 when it is missing.
    TBytes single(unsigned char tag);
    // Child `inner` of the information block, or false when it is missing.
    bool fromBlock(unsigned char inner, TBytes& value);
    // The same, with 0x6281 when it is missing.
    TBytes requireFromBlock(unsigned char inner);

    unsigned short fips = kFipsUnknown;
};

extern template class CInfoJavaFamily<kJavaCommands>;
extern template class CInfoJavaFamily<kJokerCommands>;

using CInfoJava = CInfoJavaFamily<kJavaCommands>;

}  // namespace libapdu
