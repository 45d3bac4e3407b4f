// The one door to the card.
#pragma once

#include "libapdu/types.h"

namespace libapdu {

class ISender {
public:
    // `response` arrives sized to the largest answer the caller takes, and
    // leaves cut to what the card sent, status word included.
    virtual void send(const TBytes& command, TBytes& response) = 0;
    virtual TBytes atr() = 0;
    // The reader's control channel; a sender without one fails with 0xFACE.
    virtual void control(unsigned int code, const TBytes& input, TBytes& output);
    virtual ~ISender();
};

}  // namespace libapdu
