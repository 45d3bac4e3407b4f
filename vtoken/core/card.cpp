#include "core/card.h"

namespace vtoken {

ICard::~ICard() = default;

std::optional<Bytes> ICard::control(unsigned int, const Bytes&) { return std::nullopt; }

}  // namespace vtoken
