#include "Token.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "conv.h"
#include "src/krfs/assert.h"
#include "src/Readers/Readers.h"
#include "src/SCardSender.h"

#define TOKEN_ASSERT KRFS_ASSERT
#define ASSERT_LOCKED(sig) TOKEN_ASSERT(IsLocked(), "IsLocked ()", sig)
#define ASSERT_UNLOCKED(sig) TOKEN_ASSERT(!IsLocked(), "!IsLocked ()", sig)
#define ASSERT_BOUND(sig) TOKEN_ASSERT(IsBound(), "IsBound ()", sig)

namespace {

constexpr WORD kDataStore = 0x2205;
constexpr WORD kJavaManager = 0x2002;

[[noreturn]] void raiseBare(long code) { CAException::RaiseAnError(code, "", "", 0); }

}  // namespace

const WORD CToken::kBindOrder[6] = {0x1001, 0x1002, 0x2001, 0x2101, 0x2205, 0x2202};

CToken::CToken() = default;

CToken::~CToken() {
    token.set(nullptr);
    connections.clear();
}

bool CToken::IsBound() const { return token.get() != nullptr; }
bool CToken::IsLocked() const { return locked; }

void CToken::Bind(const char* reader) {
    ASSERT_UNLOCKED("void CToken::Bind(const char*)");
    RequirePointer(reader);
    readerName = reader;

    CReaders readers;
    readers.Open();
    bool found = false, present = false;
    for (const CReaders::SReader& r : readers.GetReaders()) {
        if (r.name == readerName) {
            found = true;
            present = r.tokenPresent;
            break;
        }
    }
    if (!found) raiseBare(0x80100017L);
    if (!present) raiseBare(0x8010000CL);

    std::unique_ptr<libapdu::ISender> connection(new CSCardSender(readerName, 3, 0));
    Attach(std::move(connection));
}

void CToken::Attach(std::unique_ptr<libapdu::ISender> connection) {
    sender = dynamic_cast<CSCardSender*>(connection.get());
    connections.push_back(libapdu::IToken::create(connection));
    token.set(connections.back().get());

    for (WORD number : kBindOrder) {
        try {
            token->selectApplet(number);
        } catch (...) {
            continue;
        }
        appletId = number;
        if (number != kDataStore) return;
        try {
            token->switchToFileSystem(2);
            return;
        } catch (...) {
            // The v2 layout is not there; the search goes on with appletId changed.
        }
    }
}

void CToken::Rebind() {
    ASSERT_UNLOCKED("void CToken::Rebind()");
    const std::string reader = readerName;
    Bind(reader.c_str());
}

void CToken::Unbind() {
    if (sender != nullptr) sender->ReleaseResources();
    token.set(nullptr);
    sender = nullptr;
    connections.clear();
}

void CToken::Lock() {
    ASSERT_BOUND("void CToken::Lock()");
    ASSERT_UNLOCKED("void CToken::Lock()");
    if (sender != nullptr) sender->lock();
    locked = true;
}

void CToken::Unlock() {
    ASSERT_BOUND("void CToken::Unlock()");
    ASSERT_LOCKED("void CToken::Unlock()");
    if (sender != nullptr) sender->unlock();
    locked = false;
}

void CToken::SelectApplet(WORD applet) {
    ASSERT_LOCKED("void CToken::SelectApplet(WORD)");
    token->selectApplet(applet);
    appletId = applet;
    if (applet == kDataStore) token->switchToFileSystem(2);
}

void CToken::Login(const char* pin) {
    ASSERT_LOCKED("void CToken::Login(const char*)");
    RequirePointer(pin);
    libapdu::IAppPin* p = token->pin();
    p->select(p->pathUser());
    const TBytes bytes =
        libapdu::IConvert::string_to_bytes(pin, static_cast<unsigned char>(p->encoding()));
    p->login(bytes);
    ++loginCount;
}

void CToken::Logout() {
    ASSERT_LOCKED("void CToken::Logout()");
    token->pin()->logout();
    if (loginCount > 0) --loginCount;
}

void CToken::ChangePin(const char* pin) {
    ASSERT_LOCKED("void CToken::ChangePin(const char*)");
    RequirePointer(pin);
    // Judged by this session's count, not by the card.
    if (loginCount == 0) KR_RAISE(0x86E06982L);
    libapdu::IAppPin* p = token->pin();
    p->select(p->pathUser());
    const TBytes bytes =
        libapdu::IConvert::string_to_bytes(pin, static_cast<unsigned char>(p->encoding()));
    p->change(bytes);
}

libapdu::CPinInfo CToken::UserPinInfo() {
    libapdu::IAppPin* p = token->pin();
    p->select(p->pathUser());
    return p->info();
}

void CToken::GetMaxPinLen(DWORD* length) {
    ASSERT_LOCKED("void CToken::GetMaxPinLen(DWORD*)");
    RequirePointer(length);
    *length = UserPinInfo().maxLength;
}

void CToken::GetMinPinLen(DWORD* length) {
    ASSERT_LOCKED("void CToken::GetMinPinLen(DWORD*)");
    RequirePointer(length);
    *length = UserPinInfo().minLength;
}

void CToken::GetPinAttempts(DWORD* attempts) {
    ASSERT_LOCKED("void CToken::GetPinAttempts(DWORD*)");
    RequirePointer(attempts);
    *attempts = UserPinInfo().attemptsLeft;
}

void CToken::GetLabel(char* buffer, DWORD* size) {
    ASSERT_LOCKED("void CToken::GetLabel(char*, DWORD*)");
    RequirePointer(size);
    libapdu::IAppLabel* l = token->label();
    const unsigned char encoding = static_cast<unsigned char>(l->encoding());
    const std::wstring wide = libapdu::IConvert::bytes_to_wstring(l->read(), encoding);
    // Straight to the locale, with no catch: a char it can't show is a failure.
    std::string text;
    utf8::utf16toascii(wide.begin(), wide.end(), std::back_inserter(text));
    if (buffer == nullptr) {
        *size = text.size() + 1;
        return;
    }
    // Cut without a terminator when it does not fit; *size stays.
    const std::size_t n = std::min<std::size_t>(text.size() + 1, *size);
    std::strncpy(buffer, text.c_str(), n);
}

void CToken::GetID(char* buffer, DWORD* size) {
    ASSERT_LOCKED("void CToken::GetID(char*, DWORD*)");
    RequirePointer(size);
    TBytes id;
    try {
        id = token->info()->id(1);
    } catch (...) {
        id = token->info()->id(2);
    }
    std::string text;
    char hex[3];
    for (unsigned char b : id) {
        std::snprintf(hex, sizeof(hex), "%02x", b);
        text += hex;
    }
    if (buffer == nullptr) {
        *size = text.size() + 1;
        return;
    }
    // The terminator lands at min(length, *size): one past a short buffer.
    const std::size_t n = std::min<std::size_t>(text.size() + 1, *size);
    std::memcpy(buffer, text.c_str(), n);
    buffer[std::min<std::size_t>(text.size(), *size)] = '\0';
}

void CToken::ReturnToApplet() {
    token->selectApplet(appletId);
    if (appletId == kDataStore) token->switchToFileSystem(2);
}

void CToken::GetModel(char* buffer, DWORD* size) {
    ASSERT_LOCKED("void CToken::GetModel(char*, DWORD*)");
    RequirePointer(size);
    TBytes model;
    try {
        token->selectApplet(kJavaManager);
        model = token->info()->value(2);
        ReturnToApplet();
    } catch (...) {
        ReturnToApplet();
        const char fallback[] = "Qntoken";
        model.assign(fallback, fallback + sizeof(fallback) - 1);
    }
    if (buffer == nullptr) {
        *size = model.size();
        return;
    }
    // The terminator lands at min(bytes, *size): one past a short buffer.
    const std::size_t n = std::min<std::size_t>(model.size(), *size);
    std::memcpy(buffer, model.data(), n);
    buffer[n] = '\0';
}
