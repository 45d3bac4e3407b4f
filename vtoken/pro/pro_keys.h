// RSA keys and certificates on the virtual Pro card, written in the layout
// the host searches: the plain one under 3F00 6666, or the FIPS one under
// 3F00 6666 5000 0220. The card's commands for them are in ProCard.
#pragma once

#include "core/rsa_key.h"
#include "pro/pro_state.h"

#include <string>

namespace vtoken::pro {

// Layout of the plain token, under the home directory 6666.
constexpr std::uint16_t kCertRecords = 0x1002;  // one record per certificate, 0001..0FFF
constexpr std::uint16_t kKeyFiles = 0x6000;     // key files 1xxx and 2xxx
constexpr std::uint16_t kSizeTable = 0xECEC;    // in 6000: key lengths by reference
constexpr std::uint16_t kMapDir = 0x1001;
constexpr std::uint16_t kMapFile = 0x1001;  // in 1001: the container map text
// Layout of the FIPS token, under 6666 5000.
constexpr std::uint16_t kObjects = 0x0220;  // dirs 1xxx (certificates), 3xxx (keys)
constexpr std::uint16_t kAttributes = 0x0001;
constexpr std::uint16_t kCertificateFile = 0x0002;

// Stores the certificate of `key` as the container `id`, and its private key
// unless `key.privateKey` is empty; the first text of a plain record and the
// label fields take the certificate's common name. Throws
// std::invalid_argument, leaving the state as it was, for an id the layout
// cannot hold (1 to 64 bytes, no zero byte, '=', '&' or line break) or one the
// token has already, a key that is not 1024 or 2048 bits, or a token without
// the room. A FIPS token takes a 2048-bit key, but the host's secure
// messaging, one short command each way, carries only a 1024-bit decipher.
void addKey(ProState& state, const RsaKey& key, const std::string& id);

// The containers the host would list: keys, and certificates without one.
std::size_t countContainers(const ProState& state);

// The developer's view: each container with its key and certificate, size
// and subject. Empty without any.
std::string describeKeys(const ProState& state);

}  // namespace vtoken::pro
