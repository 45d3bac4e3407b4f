#include "token/apppin/pin_joker.h"

namespace libapdu {

namespace {

const CJavaPinDialect kJoker = {
    kJokerCommands,
    0x14,   // status
    0x10,   // authenticate
    0x18,   // change
    0x00,   // no unblock
    false,  // no administrator branch
    false,  // always the PIN's directory
};

}  // namespace

CPinJoker::CPinJoker(IApplet* owner) : CPinJava(owner, kJoker) {}

}  // namespace libapdu
