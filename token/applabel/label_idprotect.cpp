#include "token/applabel/label_idprotect.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

const TPath kLabelFile = {0x3F00, 0x3000, 0xC000};
constexpr std::size_t kLabelSize = 32;
constexpr unsigned char kBlank = 0x20;

}  // namespace

TBytes CLabelIdprotect::read() {
    adapter.fs->select(kLabelFile);
    TBytes label(kLabelSize, 0x00);
    adapter.fs->read(label, 0);
    while (!label.empty() && (label.back() == kBlank || label.back() == 0x00)) label.pop_back();
    return label;
}

void CLabelIdprotect::write(const TBytes& label) {
    if (label.size() > kLabelSize) APDU_RAISE(0x6B00);
    TBytes stored = label;
    stored.resize(kLabelSize, kBlank);
    for (unsigned char b : stored)
        if (b == 0x00 || b > 0x7F) APDU_RAISE(0x6B00);
    adapter.fs->select(kLabelFile);
    adapter.fs->write(stored, 0);
}

}  // namespace libapdu
