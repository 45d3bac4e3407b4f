// One session with one token in one reader.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "krfs.h"
#include "src/Object/Object.h"

class CSCardSender;
namespace libapdu {
class ISender;
}

class CToken : public CObject<__tag_HToken, CToken, eToken> {
public:
    // The applets that Bind tries, in order.
    static const WORD kBindOrder[6];

    CToken();
    ~CToken() override;

    void Bind(const char* reader);
    void Rebind();
    void Unbind();
    virtual bool IsBound() const;
    virtual void Lock();
    virtual bool IsLocked() const;
    virtual void Unlock();

    void SelectApplet(WORD applet);
    void Login(const char* pin);
    void Logout();
    void ChangePin(const char* pin);
    void GetLabel(char* buffer, DWORD* size);
    void GetID(char* buffer, DWORD* size);
    void GetModel(char* buffer, DWORD* size);
    void GetMaxPinLen(DWORD* length);
    void GetMinPinLen(DWORD* length);
    void GetPinAttempts(DWORD* attempts);

    // Takes a connected sender over, makes the token and searches the applets.
    // Bind does this after its checks; tests give it a sender of their own.
    void Attach(std::unique_ptr<libapdu::ISender> connection);

    // The token shared with every handle opened from this session.
    TSharedTokenPtr& Token() { return token; }
    unsigned long LoginCount() const { return loginCount; }
    WORD AppletId() const { return appletId; }

private:
    libapdu::CPinInfo UserPinInfo();
    void ReturnToApplet();

    std::string& readerName = name;
    unsigned long loginCount = 0;
    WORD appletId = 0;  // 0: no applet accepted the card
    CSCardSender* sender = nullptr;
    bool locked = false;
    // Every connection this session made. A rebind keeps the old one
    // connected, as handles may have reached it; all go at unbind.
    std::vector<std::unique_ptr<libapdu::IToken>> connections;
};
