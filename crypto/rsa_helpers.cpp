#include "crypto/rsa_helpers.h"

#include <cstdlib>
#include <cstring>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

struct Malformed {};

// A bounded view of DER: every header and value is checked against the
// bytes that remain before it is read.
struct Der {
    const unsigned char* data;
    size_t size;
    unsigned tag;

    // The children of this value, in order.
    Der child(unsigned wanted, const Der* after = nullptr) const {
        size_t at = after == nullptr ? 0 : static_cast<size_t>(after->end() - data);
        while (at < size) {
            Der d = parseAt(data + at, size - at);
            if (d.tag == wanted) return d;
            at = static_cast<size_t>(d.end() - data);
        }
        throw Malformed();
    }

    const unsigned char* end() const { return data + size; }

    // One TLV at p within n bytes.
    static Der parseAt(const unsigned char* p, size_t n) {
        size_t i = 0;
        if (n < 2) throw Malformed();
        unsigned tag = p[i++];
        if ((tag & 0x1F) == 0x1F) {  // high tag number: more identifier bytes
            unsigned shift = 8;
            do {
                if (i >= n || shift > 24) throw Malformed();
                tag |= static_cast<unsigned>(p[i]) << shift;
                shift += 8;
            } while (p[i++] & 0x80);
        }
        if (i >= n) throw Malformed();
        size_t length = p[i++];
        if (length & 0x80) {
            const size_t count = length & 0x7F;
            if (count == 0 || count > 4 || count > n - i) throw Malformed();  // no indefinite form
            length = 0;
            for (size_t k = 0; k < count; ++k) length = (length << 8) | p[i++];
        }
        if (length > n - i) throw Malformed();
        // Remember where the value starts: the header is gone from the view.
        Der d{p + i, length, tag};
        return d;
    }
};

constexpr unsigned kSequence = 0x30, kBitString = 0x03, kInteger = 0x02;

}  // namespace

TBytes extractPublicKeyFromCert(const TBytes& certificate) {
    try {
        const Der whole{certificate.data(), certificate.size(), 0};
        const Der cert = whole.child(kSequence);
        const Der tbs = cert.child(kSequence);
        // Signature algorithm, issuer, validity and subject come first.
        Der item = tbs.child(kSequence);
        for (int i = 0; i < 4; ++i) item = tbs.child(kSequence, &item);
        const Der bits = item.child(kBitString);
        if (bits.size < 1) throw Malformed();
        const Der key{bits.data + 1, bits.size - 1, 0};  // past the unused-bits count
        const Der modulus = key.child(kSequence).child(kInteger);
        if (modulus.size < 1) throw Malformed();
        // Drops DER's leading zero; a modulus without one loses its top byte.
        return TBytes(modulus.data + 1, modulus.end());
    } catch (...) {
        APDU_RAISE(0x6281);
    }
}

bool isValidDataForRSA(const TBytes& key, const TBytes& data) {
    return data.size() == key.size() && !data.empty() &&
           std::memcmp(data.data(), key.data(), data.size()) < 0;
}

void pkcs1pad(TBytes& data, int blockSize) {
    if (blockSize < 1) APDU_RAISE(0x6B00);
    TBytes prefix{0x00, 0x02};
    const size_t block = static_cast<size_t>(blockSize);
    while ((data.size() + prefix.size() + 1) % block != 0)
        prefix.push_back(static_cast<unsigned char>(std::rand() % 255));
    prefix.push_back(0x00);
    data.insert(data.begin(), prefix.begin(), prefix.end());
}

}  // namespace libapdu
