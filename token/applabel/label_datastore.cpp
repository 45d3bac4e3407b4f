#include "token/applabel/label_datastore.h"

namespace libapdu {

namespace {

constexpr unsigned char kBlank = 0x20;
// The byte after the label in the write command.
constexpr unsigned char kWriteTrailer = 0x02;

}  // namespace

TBytes CLabelDataStore::read() {
    TBytes response(258);
    send({0x80, 0x30, 0x10, 0x00, 0x00}, response);
    checkSW(response);
    response.resize(response.size() >= 2 ? response.size() - 2 : 0);
    while (!response.empty() && response.back() == kBlank) response.pop_back();
    return response;
}

void CLabelDataStore::write(const TBytes& label) {
    // The length byte keeps the low 8 bits only.
    TBytes command{0x80, 0x30, 0x20, 0x00, static_cast<unsigned char>(label.size() & 0xFF)};
    command << label << kWriteTrailer;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

}  // namespace libapdu
