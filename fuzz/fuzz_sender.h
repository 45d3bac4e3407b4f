// A sender for the fuzz targets that answers every command with the fuzz
// input, cut to the buffer the driver offers, as a reader would.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

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

// Answers commands in turn from the fuzz input: each answer a two-byte
// big-endian length and that many bytes, sent with 90 00 after it. A SELECT
// by AID is always accepted and takes nothing from the input; once the input
// runs out, the card answers 90 00 alone.
class AnswerQueue : public libapdu::ISender {
public:
    AnswerQueue(const uint8_t* data, std::size_t size) {
        for (std::size_t at = 0; at + 2 <= size;) {
            const std::size_t n = static_cast<std::size_t>(data[at] << 8 | data[at + 1]);
            at += 2;
            const std::size_t take = std::min(n, size - at);
            answers_.emplace_back(data + at, data + at + take);
            at += take;
        }
    }
    void send(const TBytes& command, TBytes& response) override {
        TBytes answer;
        const bool byAid =
            command.size() >= 3 && command[0] == 0x00 && command[1] == 0xA4 && command[2] == 0x04;
        if (!byAid && next_ < answers_.size()) answer = answers_[next_++];
        answer.push_back(0x90);
        answer.push_back(0x00);
        AnswerSender::give(answer, response);
    }
    TBytes atr() override { return {}; }

private:
    std::vector<TBytes> answers_;
    std::size_t next_ = 0;
};
