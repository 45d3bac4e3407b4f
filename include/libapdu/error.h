// Status word translation: each applet owns one error object, whose subclass
// rewrites its dialect's words before the common folding.
#pragma once

#include "libapdu/apdu.h"

namespace libapdu {

class IAppError : public IAPDUDefinitions {
public:
    virtual ~IAppError();
    // The last two bytes, high byte first; 0 for fewer than two bytes.
    virtual unsigned short extractSW(const TBytes& response);
    // Returns for success, else raises 0x86E00000 | canonical value.
    virtual void raiseSW(unsigned short sw);

    // The canonical value of a word after the common folding: 0x9000 for
    // success, 0xFFFF for an unknown word.
    static unsigned short fold(unsigned short sw);
};

// R2 sends its status words low byte first.
class CErrorR2 : public IAppError {
public:
    unsigned short extractSW(const TBytes& response) override;
    void raiseSW(unsigned short sw) override;
};

class CErrorPro : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

class CErrorJava : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

class CErrorJoker : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

class CErrorIdprotect : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

class CErrorGost : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

class CErrorDataStore : public IAppError {
public:
    void raiseSW(unsigned short sw) override;
};

}  // namespace libapdu
