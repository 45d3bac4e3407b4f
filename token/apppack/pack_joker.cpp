#include "token/apppack/pack_joker.h"

namespace libapdu {

CPackJoker::CPackJoker(IApplet* owner) : CPackJava(owner, kJokerCommands) {}

}  // namespace libapdu
