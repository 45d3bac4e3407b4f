#include "token/apppack/pack_joker.h"

namespace libapdu {

namespace {
constexpr unsigned char kJokerChallenge = 0x12;
}

CPackJoker::CPackJoker(IApplet* owner) : CPackJava(owner, kJokerChallenge) {}

}  // namespace libapdu
