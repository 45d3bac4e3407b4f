#include "idprotect/idprotect_crypto.h"

#include "core/des3.h"
#include "core/random.h"
#include "pro/pro_crypto.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace vtoken::idprotect {

namespace {

constexpr std::size_t kExponentSize = 32;
constexpr std::size_t kWord = 4;
constexpr std::size_t kMacKeyAt = 24;

using Context = std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)>;

Bytes digest(const EVP_MD* md, const Bytes& data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    if (EVP_Digest(data.data(), data.size(), out.data(), &n, md, nullptr) != 1)
        throw std::runtime_error("a digest failed in OpenSSL");
    out.resize(n);
    return out;
}

Bytes bytesOf(const BIGNUM* n, std::size_t size) {
    Bytes out(size);
    if (BN_bn2binpad(n, out.data(), static_cast<int>(size)) < 0)
        throw std::runtime_error("a number too long for its field");
    return out;
}

}  // namespace

Bytes sha256(const Bytes& data) { return digest(EVP_sha256(), data); }

bool answerMatches(const Bytes& pin, const Bytes& challenge, const Bytes& answer) {
    if (challenge.size() != kChallengeSize || answer.size() != kAnswerSize) return false;
    const Bytes hash = digest(EVP_sha1(), pin);
    const Bytes key(hash.begin(), hash.begin() + 16);
    // CBC: the second block is E(first block ^ challenge).
    Bytes chained(answer.begin(), answer.begin() + kDesBlock);
    for (std::size_t i = 0; i < kDesBlock; ++i) chained[i] ^= challenge[i];
    return pro::des3Encrypt(key, chained) == Bytes(answer.begin() + kDesBlock, answer.end());
}

KeyExchange::KeyExchange()
    : p_(BN_get_rfc3526_prime_1536(nullptr), BN_clear_free),
      g_(BN_new(), BN_clear_free),
      exponent_(nullptr, BN_clear_free),
      public_(BN_new(), BN_clear_free) {
    const Bytes c = randomBytes(kExponentSize);
    exponent_.reset(BN_bin2bn(c.data(), static_cast<int>(c.size()), nullptr));
    Context ctx(BN_CTX_new(), BN_CTX_free);
    if (!p_ || !g_ || !exponent_ || !public_ || !ctx || BN_set_word(g_.get(), 2) != 1 ||
        BN_mod_exp(public_.get(), g_.get(), exponent_.get(), p_.get(), ctx.get()) != 1)
        throw std::runtime_error("Diffie-Hellman failed in OpenSSL");
}

Bytes KeyExchange::generator() const { return bytesOf(g_.get(), BN_num_bytes(g_.get())); }

Bytes KeyExchange::prime() const { return bytesOf(p_.get(), BN_num_bytes(p_.get())); }

Bytes KeyExchange::cardValue() const { return bytesOf(public_.get(), BN_num_bytes(p_.get())); }

std::optional<SessionKeys> KeyExchange::agree(const Bytes& hostValue, const Bytes& q) const {
    Number x(BN_bin2bn(hostValue.data(), static_cast<int>(hostValue.size()), nullptr),
             BN_clear_free);
    Number limit(BN_dup(p_.get()), BN_clear_free);
    Number y(BN_new(), BN_clear_free);
    Context ctx(BN_CTX_new(), BN_CTX_free);
    if (!x || !limit || !y || !ctx || BN_sub_word(limit.get(), 1) != 1)
        throw std::runtime_error("Diffie-Hellman failed in OpenSSL");
    if (BN_cmp(x.get(), BN_value_one()) <= 0 || BN_cmp(x.get(), limit.get()) >= 0)
        return std::nullopt;
    if (BN_mod_exp(y.get(), x.get(), exponent_.get(), p_.get(), ctx.get()) != 1)
        throw std::runtime_error("Diffie-Hellman failed in OpenSSL");
    const std::size_t words = (static_cast<std::size_t>(BN_num_bytes(y.get())) + kWord - 1) / kWord;
    const Bytes yBytes = bytesOf(y.get(), words * kWord);
    if (yBytes.size() < kMacKeyAt + kSessionKeySize || q.size() < 2 * kSessionKeySize)
        return std::nullopt;
    SessionKeys keys{Bytes(kSessionKeySize), Bytes(kSessionKeySize)};
    for (std::size_t i = 0; i < kSessionKeySize; ++i) {
        keys.enc[i] = q[i] ^ yBytes[i];
        keys.mac[i] = q[kSessionKeySize + i] ^ yBytes[kMacKeyAt + i];
    }
    return keys;
}

Bytes smMac(const Bytes& key, const Bytes& data) {
    return pro::retailMac(des3Key(key), pad80(data));
}

std::optional<Bytes> smDecrypt(const Bytes& key, const Bytes& cipher) {
    return pro::cbcDecrypt(key, cipher);
}

}  // namespace vtoken::idprotect
