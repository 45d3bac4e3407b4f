#include "core/card_sender.h"

#include <algorithm>
#include <string>

namespace vtoken {

CardSender::CardSender(ICard& card) : card_(card) { card_.powerOn(); }

void CardSender::send(const TBytes& command, TBytes& response) {
    Bytes answer = card_.process(command);
    if (answer.size() > response.size())
        throw ResponseTooLong("card answered " + std::to_string(answer.size()) +
                              " bytes, the caller takes " + std::to_string(response.size()));
    std::copy(answer.begin(), answer.end(), response.begin());
    response.resize(answer.size());
}

TBytes CardSender::atr() { return card_.atr(); }

}  // namespace vtoken
