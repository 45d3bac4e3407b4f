#include "java/java_crypto.h"

#include "core/des3.h"
#include "pro/pro_crypto.h"

namespace vtoken::java {

Bytes pinKey(unsigned char number, const std::string& pin, const Bytes& salt) {
    return pro::saltedKey(number, pin, salt);
}

Bytes adminKey(const std::string& pin) { return pro::md5Key(pin); }

Bytes loginAnswer(const Bytes& key, const Bytes& challenge) {
    return pro::des3Encrypt(key, challenge);
}

Bytes smEncrypt(const Bytes& key, const Bytes& iv, const Bytes& data) {
    return des3CbcPadded(key, iv, data);
}

std::optional<Bytes> smDecrypt(const Bytes& key, const Bytes& iv, const Bytes& cipher) {
    return des3CbcUnpadded(key, iv, cipher);
}

Bytes smMac(const Bytes& key, const Bytes& data) {
    const Bytes chain = des3CbcPadded(key, Bytes(kBlock, 0x00), data);
    return Bytes(chain.end() - kBlock, chain.end());
}

}  // namespace vtoken::java
