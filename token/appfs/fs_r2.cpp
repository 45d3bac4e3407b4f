#include "token/appfs/fs_r2.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kMasterFile = 0x3F00;
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;

// The card's own words, rewritten to the common ones before folding.
constexpr WORD kSwNoNode = 0x6407;
constexpr WORD kSwNodeExists = 0x6408;
constexpr WORD kSwDeleteRefused = 0x6406;

// The select answer: 8 bytes and the status word.
constexpr std::size_t kSelectAnswer = 10;
constexpr std::size_t kAtType = 2;
constexpr std::size_t kAtPrivate = 3;
constexpr std::size_t kAtSize = 4;
constexpr std::size_t kListAnswer = 2052;

// Low byte first, as every number of this dialect.
void add_le(TBytes& out, WORD value) {
    out << static_cast<unsigned char>(value & 0xFF) << static_cast<unsigned char>(value >> 8);
}

WORD rewrite(WORD sw, WORD from, WORD to) { return sw == from ? to : sw; }

}  // namespace

void CFSR2::select(TPath path) {
    if (path.empty() || path.front() != kMasterFile) path.insert(path.begin(), kMasterFile);
    // Lc is one byte: the count and two bytes per identifier.
    if (path.size() > 126) APDU_RAISE(0x6B00);

    TBytes command{0x00,
                   0xA4,
                   0x00,
                   0x00,
                   static_cast<unsigned char>(2 * path.size() + 2),
                   0x00,
                   static_cast<unsigned char>(path.size())};
    for (WORD id : path) add_le(command, id);
    command << 0x08;
    TBytes response(kSelectAnswer);
    send(command, response);
    raiseSW(rewrite(extractSW(response), kSwNoNode, 0x6A82));
    if (response.size() != kSelectAnswer) APDU_RAISE(0x6281);

    info_ = CFileInfo();
    info_.size = static_cast<WORD>(response[kAtSize] | response[kAtSize + 1] << 8);
    info_.type = response[kAtType] == kTypeDir ? kTypeDir : kTypeFile;
    const unsigned char user = static_cast<unsigned char>(pinUser());
    if (info_.type == kTypeDir) {
        info_.read = 0;
    } else {
        // The card keeps only a private flag; the user PIN stands for it.
        info_.read = response[kAtPrivate] != 0 ? user : 0;
    }
    info_.write = user;
}

void CFSR2::create(WORD id, CFileInfo info) {
    valid_name(id);
    TBytes command{0x00, 0xE0, 0x00, 0x00, 0x06};
    if (info.type == kTypeFile) {
        // The caller's access number goes as it is; the card keeps it as a flag.
        command << kTypeFile << info.read;
        add_le(command, info.size);
    } else if (info.type == kTypeDir) {
        command << kTypeDir << 0x00 << 0x00 << 0x00;
    } else {
        APDU_RAISE(0xFACE);
    }
    add_le(command, id);
    command << 0x00;
    TBytes response(2);
    send(command, response);
    raiseSW(rewrite(extractSW(response), kSwNodeExists, 0x6A89));
}

void CFSR2::remove() {
    const unsigned char type = info_.type == kTypeDir ? kTypeDir : kTypeFile;
    TBytes response(2);
    send({0x00, 0xE2, 0x00, 0x00, 0x01, type}, response);
    raiseSW(rewrite(extractSW(response), kSwDeleteRefused, 0x6900));
}

TPath CFSR2::list(unsigned char kind) {
    if (info_.type != kTypeDir) APDU_RAISE(0x6283);
    const unsigned char type = kind == kTypeDir ? kTypeDir : kTypeFile;
    TBytes response(kListAnswer);
    send({0x00, 0xD2, 0x00, 0x00, 0x03, 0x00, 0x04, type, 0x00}, response);
    raiseSW(extractSW(response));

    // Two leading bytes, then identifiers up to the status word; an odd
    // byte left over is no identifier.
    TPath found;
    const std::size_t end = response.size() >= 2 ? response.size() - 2 : 0;
    for (std::size_t at = 2; at + 2 <= end; at += 2)
        found.push_back(static_cast<WORD>(response[at] | response[at + 1] << 8));
    return found;
}

void CFSR2::read_bit(TBytes& data, WORD offset) {
    FileCheckRange(offset, data.size(), info_.size, 0x6282);
    const WORD length = static_cast<WORD>(data.size());
    TBytes command{0x00, 0xB0, 0x00, 0x00, 0x04};
    add_le(command, offset);
    add_le(command, length);
    command << 0x00;
    TBytes response(length + 2u);
    send(command, response);
    raiseSW(extractSW(response));
    if (response.size() != length + 2u) APDU_RAISE(0x6282);
    response.resize(length);
    data = response;
}

void CFSR2::write_bit(const TBytes& data, WORD offset) {
    FileCheckRange(offset, data.size(), info_.size, 0x6A84);
    TBytes command{0x00, 0xD0, 0x00, 0x00, static_cast<unsigned char>(data.size() + 4)};
    add_le(command, offset);
    add_le(command, static_cast<WORD>(data.size()));
    command << data;
    TBytes response(2);
    send(command, response);
    raiseSW(extractSW(response));
}

}  // namespace libapdu
