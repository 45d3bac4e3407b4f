#include "token/applabel/label_gost.h"

namespace libapdu {

namespace {

constexpr unsigned char kBlank = 0x20;
// The byte that closes the write command.
constexpr unsigned char kWriteTrailer = 0x02;

}  // namespace

TBytes CLabelGost::read() {
    TBytes response(258);
    send({0x80, 0x17, 0x10, 0x00, 0x01, 0x01}, response);
    checkSW(response);
    response.resize(response.size() >= 2 ? response.size() - 2 : 0);
    // The first byte is not part of the text.
    if (!response.empty()) response.erase(response.begin());
    while (!response.empty() && response.back() == kBlank) response.pop_back();
    return response;
}

void CLabelGost::write(const TBytes& label) {
    // The length byte is cut to 8 bits; the card refuses what it cannot take.
    TBytes command{0x80, 0x17, 0x20, 0x00, static_cast<unsigned char>(label.size())};
    command << label << kWriteTrailer;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

}  // namespace libapdu
