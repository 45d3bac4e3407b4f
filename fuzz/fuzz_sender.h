// A sender for the fuzz targets that answers every command with the fuzz
// input, cut to the buffer the driver offers, as a reader would.
#pragma once

#include "libapdu/sender.h"

class AnswerSender : public libapdu::ISender {
public:
    TBytes answer;
    void send(const TBytes&, TBytes& response) override { give(answer, response); }
    TBytes atr() override { return {}; }

    static void give(const TBytes& answer, TBytes& response) {
        const std::size_t n = answer.size() < response.size() ? answer.size() : response.size();
        response.assign(answer.begin(), answer.begin() + n);
    }
};
