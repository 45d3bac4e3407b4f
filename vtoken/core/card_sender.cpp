#include "core/card_sender.h"

#include "libapdu/exception.h"

#include <algorithm>
#include <string>

namespace vtoken {

namespace {

void deliver(const Bytes& answer, TBytes& out) {
    if (answer.size() > out.size())
        throw ResponseTooLong("card answered " + std::to_string(answer.size()) +
                              " bytes, the caller takes " + std::to_string(out.size()));
    std::copy(answer.begin(), answer.end(), out.begin());
    out.resize(answer.size());
}

}  // namespace

CardSender::CardSender(ICard& card) : card_(card) { card_.powerOn(); }

void CardSender::send(const TBytes& command, TBytes& response) {
    Bytes answer;
    try {
        answer = card_.process(command);
    } catch (const NoAnswer& e) {
        KR_RAISE(e.why() == NoAnswer::Why::Gone ? kRemovedCode : kNoAnswerCode);
    }
    deliver(answer, response);
}

TBytes CardSender::atr() { return card_.atr(); }

void CardSender::control(unsigned int code, const TBytes& input, TBytes& output) {
    auto answer = card_.control(code, input);
    if (!answer) {
        libapdu::ISender::control(code, input, output);
        return;
    }
    deliver(*answer, output);
}

}  // namespace vtoken
