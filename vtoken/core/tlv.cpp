#include "core/tlv.h"

namespace vtoken {

std::optional<Tlvs> parseTlvs(const Bytes& data, TlvLengths lengths) {
    Tlvs out;
    std::size_t at = 0;
    while (at < data.size()) {
        if (data.size() - at < 2) return std::nullopt;
        const unsigned char tag = data[at++];
        std::size_t len = data[at++];
        std::size_t lengthBytes = 0;
        if (lengths == TlvLengths::kFfWord && len == 0xFF) {
            lengthBytes = 2;
        } else if (lengths == TlvLengths::kBer && (len == 0x81 || len == 0x82)) {
            lengthBytes = len - 0x80;
        } else if (lengths == TlvLengths::kBer && len >= 0x80) {
            return std::nullopt;
        }
        if (lengthBytes) {
            if (data.size() - at < lengthBytes) return std::nullopt;
            len = 0;
            for (std::size_t i = 0; i < lengthBytes; ++i) len = len << 8 | data[at++];
        }
        if (data.size() - at < len) return std::nullopt;
        const auto from = data.begin() + static_cast<std::ptrdiff_t>(at);
        out.push_back({tag, Bytes(from, from + static_cast<std::ptrdiff_t>(len))});
        at += len;
    }
    return out;
}

Bytes tlv(unsigned char tag, const Bytes& value, TlvLengths lengths) {
    const std::size_t n = value.size();
    // Reserved up front: GCC 12's -O3 bounds check misfires on a one-byte vector.
    Bytes out;
    out.reserve(n + 4);
    out.push_back(tag);
    if (lengths == TlvLengths::kFfWord && n >= 0xFF) {
        out.push_back(0xFF);
        putWord(out, n);
    } else if (lengths == TlvLengths::kBer && n >= 0x100) {
        out.push_back(0x82);
        putWord(out, n);
    } else if (lengths == TlvLengths::kBer && n >= 0x80) {
        out.push_back(0x81);
        out.push_back(static_cast<unsigned char>(n));
    } else {
        out.push_back(static_cast<unsigned char>(n));
    }
    append(out, value);
    return out;
}

const Bytes* findTag(const Tlvs& tlvs, unsigned char tag) {
    for (const auto& t : tlvs)
        if (t.tag == tag) return &t.value;
    return nullptr;
}

}  // namespace vtoken
