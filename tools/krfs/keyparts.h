// The pieces of the key commands that need no token: key paths, hexadecimal
// text, PKCS#1 padding and certificate fields.
#pragma once

#include <optional>
#include <string>

#include "libapdu/types.h"

namespace krfstool {

// "3F00/6666/6000/1001/0001": the absolute path of a container, at least one
// 16-bit hexadecimal element.
TPath parseKeyPath(const std::string& text);
std::string formatKeyPath(const TPath& path);

// Upper-case hexadecimal, two digits a byte; "" for no bytes.
std::string hexText(const TBytes& bytes);

// The message M of a PKCS#1 v1.5 encryption block 00 02 PS 00 M, PS at least
// eight nonzero bytes; throws std::invalid_argument for any other block.
TBytes unpadPkcs1Type2(const TBytes& block);

struct CertificateFields {
    std::string subject;  // one line, RFC 2253
    std::string serial;   // upper-case hexadecimal
};
// The subject and serial number of a DER X.509 certificate; nullopt when the
// bytes are not one.
std::optional<CertificateFields> certificateFields(const TBytes& der);

}  // namespace krfstool
