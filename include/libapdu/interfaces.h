// The driver interfaces of an applet. Every operation of the plain classes
// fails with 0x86E0FACE, so a capability a token lacks is a normal failure.
#pragma once

#include <string>
#include <vector>

#include "libapdu/types.h"

namespace libapdu {

// The description of a node. 0xFF in read/write: reset and not yet filled.
struct CFileInfo {
    unsigned char type;  // 0 unknown, 1 file, 2 directory
    unsigned short size;
    unsigned char read;   // 0 free, otherwise the PIN number
    unsigned char write;  // likewise, also for creating inside a directory

    CFileInfo() : type(0), size(0), read(0xFF), write(0xFF) {}
    CFileInfo(unsigned char t, unsigned short s, unsigned char r, unsigned char w)
        : type(t), size(s), read(r), write(w) {}
};

struct CPinInfo {
    unsigned short minLength = 0;
    unsigned short maxLength = 0;
    unsigned char attemptsLeft = 0xFF;
    unsigned char attemptsTotal = 0xFF;
    unsigned short loginState = 0x0010;  // 0x00FF in, 0x0000 out, 0x0010 unknown
};

struct CCryptoInfo {
    unsigned short provider = 0;
    unsigned short size = 0;
    unsigned char pin = 255;
    TBytes id;
    TBytes certificate;
    TBytes publicKey;
    TBytes privateKey;
    unsigned char algorithm = 0;
    TPath path;
};

struct CCryptoProvider {
    unsigned short id = 0;
    std::vector<unsigned short> sizes;
    unsigned char algorithm = 0;
};

class IAppFS {
public:
    virtual ~IAppFS();
    virtual void select(TPath path);
    virtual void create(WORD id, CFileInfo info);
    virtual void remove();
    virtual CFileInfo info();
    virtual TPath list(unsigned char kind);
    virtual void read(TBytes& data, WORD offset);
    virtual void write(const TBytes& data, WORD offset);

    static IAppFS stub;
};

class IAppPin {
public:
    virtual ~IAppPin();
    virtual void select(const TPath& path);
    virtual void login(const TBytes& pin);
    virtual void change(const TBytes& pin);
    virtual void unblock(const TBytes& pin);
    virtual void logout();
    virtual CPinInfo info();
    virtual const TPath& pathUser();
    virtual const TPath& pathAdmin();
    virtual const TPath& pathGlobal();
    virtual unsigned int encoding();

    static IAppPin stub;
    static const TPath EmptyPath;
};

class IAppInfo {
public:
    virtual ~IAppInfo();
    virtual TBytes rnd(unsigned long count);
    virtual bool isFips();
    virtual TBytes version(unsigned char selector);
    virtual TBytes id(unsigned char selector);
    virtual unsigned int color();
    virtual unsigned int memoryFree();
    virtual unsigned int memoryTotal();
    virtual TBytes value(unsigned char selector);

    static IAppInfo stub;
};

class IAppLabel {
public:
    virtual ~IAppLabel();
    virtual TBytes read();
    virtual void write(const TBytes& label);
    virtual unsigned int encoding();

    static IAppLabel stub;
};

class IAppCrypto {
public:
    virtual ~IAppCrypto();
    virtual void select(TPath path);
    virtual void create(CCryptoInfo info);
    virtual void remove();
    virtual CCryptoInfo info();
    virtual std::vector<TPath> list(unsigned short provider);
    virtual TBytes encrypt(const TBytes& data);
    virtual TBytes decrypt(const TBytes& data);
    virtual CCryptoProvider provider(unsigned short id);

    static IAppCrypto stub;
};

class IAppPack {
public:
    virtual ~IAppPack();
    virtual void sm(const TBytes& apdu, TBytes& response);
    virtual void chain(const TBytes& apdu, TBytes& response);
    virtual TBytes keyGet(unsigned long index);
    virtual void keyClear();
    virtual void keySet(unsigned long index, TBytes key);
    virtual void keySave();
    virtual void keyRestore();
};

class IAppBio {
public:
    virtual ~IAppBio();
    virtual void select(const TPath& path);
    virtual unsigned int loginType();
    virtual TBytes getEnrolledFingers();
    virtual TBytes readPublicBioData(unsigned char finger);
    virtual TBytes appletMoC(const TBytes& data, unsigned char finger);
    virtual void loginByTicket(const TBytes& ticket);
};

// The licence store's interface; it has no operations of its own here.
class IAppLic {
public:
    virtual ~IAppLic();

    static IAppLic stub;
};

}  // namespace libapdu
