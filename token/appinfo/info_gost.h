// Token information of the GOST applet: nearly all of it from the applet's
// status record, read anew on every call.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

// The applet's 24-byte status record. The PIN driver and the applet's start
// read the same record.
struct tagGostStatus {
    static constexpr std::size_t kSize = 24;
    static constexpr std::size_t kAnswer = 258;
    static const TBytes kCommand;  // 80 15 10 00 01 01

    // The record from an answer with its status word; fails with 0x6281 when
    // it holds fewer than 24 bytes.
    static TBytes record(const TBytes& response);
};

class CInfoGost : public CInfoCommon {
public:
    // The fields of the status record that this driver reads, numbers in
    // host order.
    struct CStatus {
        TBytes version;  // 4 bytes
        WORD memoryFree;
        TBytes id;  // 8 bytes
    };

    explicit CInfoGost(IApplet* owner) : CInfoCommon(owner) {}

    // One exchange for any count, 0 included.
    TBytes rnd(unsigned long count) override;
    bool isFips() override { return false; }
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    unsigned int color() override { return 0xFFFFFFFF; }
    unsigned int memoryFree() override;
    // The card does not tell; nothing is sent.
    unsigned int memoryTotal() override { return 0xFFFFFFFF; }

    CStatus get_status();
};

}  // namespace libapdu
