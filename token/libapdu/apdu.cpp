// Command building and the two TLV readers. Every TLV read goes through a
// cursor that knows how many bytes it may touch: token data is untrusted.
#include "libapdu/apdu.h"

#include <functional>
#include <limits>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned short kSwBadLength = 0x6281;
constexpr unsigned short kSwBadCommand = 0x6B00;

// Header of a command APDU: CLA INS P1 P2.
constexpr size_t kHeaderSize = 4;
// An extended lc (a zero byte, then a word) takes the header and three bytes.
constexpr size_t kExtendedLcEnd = kHeaderSize + 3;

// add_1 writes up to 255 bytes behind one length byte; add_12 already takes
// its escaped form at 255.
constexpr size_t kMaxShortLength = 255;
constexpr size_t kMaxEscapedShort = 254;
constexpr size_t kMaxWordLength = 0xFFFF;

// Simple TLV: tag bytes that never start one, and the escape to a word length.
constexpr unsigned char kSimpleInvalidTag = 0x00;
constexpr unsigned char kSimpleReservedTag = 0xFF;
constexpr unsigned char kSimpleWordLength = 0xFF;

// BER-TLV identifier and length bytes.
constexpr unsigned char kBerConstructedBit = 0x20;
constexpr unsigned char kBerMultiByteTag = 0x1F;
constexpr unsigned char kBerMoreTagBytes = 0x80;
constexpr unsigned char kBerIndefiniteLength = 0x80;
constexpr unsigned char kBerLongestLengthForm = 0x84;

// The one-argument constructors take the caller's word for the buffer size.
constexpr unsigned long kTrusted = std::numeric_limits<unsigned long>::max();

constexpr unsigned long kMaxNumberBytes = 4;

[[noreturn]] void fail() { throw 0; }

// Reads forward through an encoding, never past `available` bytes.
class Cursor {
public:
    Cursor(const unsigned char* p, unsigned long available) : p_(p), left_(available) {}

    unsigned char byte() {
        if (left_ < 1) fail();
        --left_;
        return *p_++;
    }
    // Consumes n bytes and returns where they start.
    const unsigned char* take(unsigned long n) {
        if (n > left_) fail();
        const unsigned char* start = p_;
        p_ += n;
        left_ -= n;
        return start;
    }
    // The value of n bytes that ends the encoding; nothing follows it.
    const unsigned char* value(unsigned long n) const {
        if (n > left_) fail();
        return p_;
    }

private:
    const unsigned char* p_;
    unsigned long left_;
};

unsigned long bigEndian(const unsigned char* p, unsigned long n) {
    if (n > kMaxNumberBytes) n = kMaxNumberBytes;
    unsigned long v = 0;
    for (unsigned long i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

unsigned short wordAt(const TBytes& bytes, size_t i) {
    return static_cast<unsigned short>(bytes[i] << 8 | bytes[i + 1]);
}

// The walk of getChild shared by both dialects. Children are parsed within
// the parent, and `after` must be a child of it (it ends inside the parent).
template <class View>
View findChild(const View& parent, unsigned int tag, const View* after) {
    const unsigned char* pos = parent.begin();
    if (after) {
        pos = after->end();
        std::less<const unsigned char*> before;
        if (before(pos, parent.begin()) || before(parent.end(), pos)) fail();
    }
    while (pos != parent.end()) {
        const View child = View::parse(pos, static_cast<unsigned long>(parent.end() - pos));
        if (child.tag() == tag) return child;
        pos = child.end();
    }
    fail();
}

}  // namespace

// ---- IAPDUDefinitions ----

unsigned short IAPDUDefinitions::endian(unsigned short value) {
    return static_cast<unsigned short>((value >> 8) | (value << 8));
}

unsigned int IAPDUDefinitions::endian(unsigned int value) {
    return (value >> 24) | ((value >> 8) & 0x0000FF00u) | ((value << 8) & 0x00FF0000u) |
           (value << 24);
}

void IAPDUDefinitions::add_w(TBytes& out, unsigned short value) {
    out << static_cast<unsigned char>(value >> 8) << static_cast<unsigned char>(value);
}

// Length checks come before any byte is appended, so a failed call leaves
// `out` as it was.
void IAPDUDefinitions::add_1(TBytes& out, const TBytes& data) {
    if (data.size() > kMaxShortLength) APDU_RAISE(kSwBadLength);
    out << static_cast<unsigned char>(data.size()) << data;
}

void IAPDUDefinitions::add_12(TBytes& out, const TBytes& data, unsigned char escape) {
    if (data.size() <= kMaxEscapedShort) return add_1(out, data);
    // A longer value would wrap its two-byte length and mislead the card.
    if (data.size() > kMaxWordLength) APDU_RAISE(kSwBadLength);
    out << escape;
    add_w(out, static_cast<unsigned short>(data.size()));
    out << data;
}

void IAPDUDefinitions::add_tagw(TBytes& out, unsigned char tag, unsigned short value) {
    out << tag << static_cast<unsigned char>(2);
    add_w(out, value);
}

void IAPDUDefinitions::add_tag1(TBytes& out, unsigned char tag, const TBytes& data) {
    if (data.size() > kMaxShortLength) APDU_RAISE(kSwBadLength);
    out << tag;
    add_1(out, data);
}

void IAPDUDefinitions::add_tag12(TBytes& out, unsigned char tag, const TBytes& data,
                                 unsigned char escape) {
    if (data.size() > kMaxWordLength) APDU_RAISE(kSwBadLength);
    out << tag;
    add_12(out, data, escape);
}

void IAPDUDefinitions::parse_capdu(const TBytes& apdu, TBytes& header, TBytes& data,
                                   unsigned short& le) {
    if (apdu.size() < kHeaderSize) APDU_RAISE(kSwBadCommand);
    header.assign(apdu.begin(), apdu.begin() + kHeaderSize);

    size_t lc = 0;
    size_t lcBytes = 0;
    if (apdu.size() > kHeaderSize && apdu[kHeaderSize] != 0) {
        lcBytes = 1;
        lc = apdu[kHeaderSize];
    }
    if (apdu.size() >= kExtendedLcEnd && apdu[kHeaderSize] == 0) {
        lcBytes = 3;
        lc = wordAt(apdu, kHeaderSize + 1);
    }

    const size_t start = kHeaderSize + lcBytes;
    if (start >= apdu.size()) {
        // Nothing behind the length byte(s): what was read as lc is le.
        data.clear();
        le = static_cast<unsigned short>(lc);
        return;
    }

    const size_t end = start + lc;
    if (end > apdu.size()) APDU_RAISE(kSwBadCommand);
    data.assign(apdu.begin() + start, apdu.begin() + end);

    const size_t rest = apdu.size() - end;
    if (rest > 3 || (rest == 3 && apdu[end] != 0)) APDU_RAISE(kSwBadCommand);
    switch (rest) {
        case 3:
            le = wordAt(apdu, end + 1);
            break;
        case 2:
            le = wordAt(apdu, end);
            break;
        case 1:
            le = apdu[end];
            break;
        default:
            le = 0;
            break;
    }
}

// ---- CTLV ----

CTLV::CTLV(const unsigned char* encoded) : CTLV(parse(encoded, kTrusted)) {}

CTLV::CTLV(const unsigned char* value, unsigned long size) : data(value), size_(size), tag_(0) {}

CTLV CTLV::parse(const unsigned char* encoded, unsigned long available) {
    Cursor in(encoded, available);
    const unsigned char tag = in.byte();
    if (tag == kSimpleInvalidTag || tag == kSimpleReservedTag) fail();
    unsigned long length = in.byte();
    if (length == kSimpleWordLength) length = bigEndian(in.take(2), 2);
    CTLV view(in.value(length), length);
    view.tag_ = tag;
    return view;
}

TBytes CTLV::asBytes() const { return TBytes(begin(), end()); }

unsigned long CTLV::asNumber() const { return getle(begin(), size()); }

CTLV CTLV::getChild(unsigned int tag, const CTLV* after) const {
    return findChild(*this, tag, after);
}

unsigned long CTLV::getle(const unsigned char* p, unsigned long n) { return bigEndian(p, n); }

// ---- CBERTLV ----

CBERTLV::CBERTLV(const unsigned char* encoded) : CBERTLV(parse(encoded, kTrusted)) {}

CBERTLV::CBERTLV(const unsigned char* value, unsigned long size)
    : data(value), size_(size), constructed(1), tag_(0) {}

CBERTLV CBERTLV::parse(const unsigned char* encoded, unsigned long available) {
    Cursor in(encoded, available);
    const unsigned char first = in.byte();
    unsigned int tag = first;
    // Only 0x1F itself continues the tag; 0x5F, 0x7F and their like are
    // complete one-byte tags, which is how the card data is laid out.
    if (first == kBerMultiByteTag) {
        const unsigned char second = in.byte();
        // Second bytes that cannot continue a tag here.
        if (second == 0x00 || second == 0x80 || second == 0x1E) fail();
        tag |= static_cast<unsigned int>(second) << 8;
        if (second & kBerMoreTagBytes) {
            const unsigned char third = in.byte();
            if (third & kBerMoreTagBytes) fail();
            tag |= static_cast<unsigned int>(third) << 16;
        }
    }

    unsigned long length = in.byte();
    if (length == kBerIndefiniteLength || length > kBerLongestLengthForm) fail();
    if (length > kBerIndefiniteLength) {
        const unsigned long count = length - kBerIndefiniteLength;
        length = bigEndian(in.take(count), count);
    }

    CBERTLV view(in.value(length), length);
    view.constructed = (first & kBerConstructedBit) ? 1 : 0;
    view.tag_ = tag;
    return view;
}

TBytes CBERTLV::asBytes() const { return TBytes(begin(), end()); }

unsigned long CBERTLV::asNumber() const { return getle(begin(), size()); }

CBERTLV CBERTLV::getChild(unsigned int tag, const CBERTLV* after) const {
    if (!isConstructed()) fail();
    return findChild(*this, tag, after);
}

unsigned long CBERTLV::getle(const unsigned char* p, unsigned long n) { return bigEndian(p, n); }

}  // namespace libapdu
