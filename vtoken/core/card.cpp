#include "core/card.h"

namespace vtoken {

ICard::~ICard() = default;

}  // namespace vtoken
