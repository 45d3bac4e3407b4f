// Helpers that build command APDUs and read TLV data.
#pragma once

#include "libapdu/types.h"

namespace libapdu {

// Stateless helpers inherited by applets and drivers. Numbers go on the wire
// big-endian.
class IAPDUDefinitions {
public:
    static unsigned short endian(unsigned short value);
    static unsigned int endian(unsigned int value);
    static void add_w(TBytes& out, unsigned short value);
    // One length byte, then the data; 256 bytes or more fail with 0x6281.
    static void add_1(TBytes& out, const TBytes& data);
    // Above 254 bytes: escape, two length bytes, data; otherwise as add_1.
    static void add_12(TBytes& out, const TBytes& data, unsigned char escape);
    static void add_tagw(TBytes& out, unsigned char tag, unsigned short value);
    static void add_tag1(TBytes& out, unsigned char tag, const TBytes& data);
    static void add_tag12(TBytes& out, unsigned char tag, const TBytes& data, unsigned char escape);
    // Splits a command APDU; a malformed one fails with 0x6B00.
    static void parse_capdu(const TBytes& apdu, TBytes& header, TBytes& data, unsigned short& le);
};

// Appends one byte or a whole vector.
inline TBytes& operator<<(TBytes& out, unsigned char b) {
    out.push_back(b);
    return out;
}
inline TBytes& operator<<(TBytes& out, const TBytes& bytes) {
    // Reserving first also keeps GCC 12's -O3 bounds check from a false alarm.
    out.reserve(out.size() + bytes.size());
    out.insert(out.end(), bytes.begin(), bytes.end());
    return out;
}

// A read-only view of a simple TLV: one tag byte, a length byte (0xFF: two more
// bytes of length). Failures throw the integer 0.
class CTLV {
public:
    // Parses the TLV at `encoded`; the caller vouches for the buffer.
    explicit CTLV(const unsigned char* encoded);
    // A container view with tag 0 over raw bytes.
    CTLV(const unsigned char* value, unsigned long size);
    // Parses the TLV at `encoded` within `available` bytes: a header or value
    // that runs past them throws 0. Use this on anything a token sent.
    static CTLV parse(const unsigned char* encoded, unsigned long available);
    unsigned int tag() const { return tag_; }
    const unsigned char* begin() const { return data; }
    const unsigned char* end() const { return data + size_; }
    unsigned long size() const { return size_; }
    TBytes asBytes() const;
    unsigned long asNumber() const;
    // The first child with `tag` after `after` (or from the start). Children
    // are parsed within this view: one that runs past its end throws 0.
    CTLV getChild(unsigned int tag, const CTLV* after = nullptr) const;
    // A big-endian number of n bytes (n above 4 counts as 4).
    static unsigned long getle(const unsigned char* p, unsigned long n);

private:
    const unsigned char* data;
    unsigned long size_;
    unsigned int tag_;
};

// A read-only view of a BER-TLV. `tag` holds the identifier bytes, first byte
// lowest. Failures throw the integer 0.
class CBERTLV {
public:
    // Parses the TLV at `encoded`; the caller vouches for the buffer.
    explicit CBERTLV(const unsigned char* encoded);
    // A constructed container view with tag 0 over raw bytes.
    CBERTLV(const unsigned char* value, unsigned long size);
    // Bounded parse, as CTLV::parse.
    static CBERTLV parse(const unsigned char* encoded, unsigned long available);
    unsigned int tag() const { return tag_; }
    bool isConstructed() const { return constructed != 0; }
    const unsigned char* begin() const { return data; }
    const unsigned char* end() const { return data + size_; }
    unsigned long size() const { return size_; }
    TBytes asBytes() const;
    unsigned long asNumber() const;
    CBERTLV getChild(unsigned int tag, const CBERTLV* after = nullptr) const;
    static unsigned long getle(const unsigned char* p, unsigned long n);

private:
    const unsigned char* data;
    unsigned long size_;
    int constructed;
    unsigned int tag_;
};

}  // namespace libapdu
