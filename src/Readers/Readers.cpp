#include "Readers.h"

#include <winscard.h>

#include <algorithm>
#include <cstring>
#include <memory>

const char* const CReaders::PnPNotification = "\\\\?PnP?\\Notification";

namespace {
[[noreturn]] void raisePcsc(LONG result) {
    APDU_RAISE(static_cast<unsigned short>(result & 0xFFFF));
}
}  // namespace

CReaders::CReaders() : cursor(readers.end()) {}

void CReaders::Open() {
    SCARDCONTEXT ctx = 0;
    const LONG rc = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &ctx);
    if (rc != SCARD_S_SUCCESS) raisePcsc(rc);
    long context = static_cast<long>(ctx);
    // A failure below leaves the context to the process, as PC/SC contexts of
    // a failed enumeration are not reused.
    _getReadersStates(context);
    SCardReleaseContext(ctx);
}

std::vector<std::string> CReaders::_getReaderNames(long& context) {
    const SCARDCONTEXT ctx = static_cast<SCARDCONTEXT>(context);
    DWORD size = 0;
    LONG rc = SCardListReaders(ctx, nullptr, nullptr, &size);
    if (rc != SCARD_S_SUCCESS) raisePcsc(rc);
    std::vector<char> buffer(size);
    rc = SCardListReaders(ctx, nullptr, buffer.data(), &size);
    if (rc != SCARD_S_SUCCESS) raisePcsc(rc);
    std::vector<std::string> names;
    const std::size_t end = std::min<std::size_t>(size, buffer.size());
    std::size_t at = 0;
    while (at < end && buffer[at] != '\0') {
        const char* start = &buffer[at];
        const std::size_t len = strnlen(start, end - at);
        names.emplace_back(start, len);
        at += len + 1;
    }
    return names;
}

void CReaders::_getReadersStates(long& context) {
    std::vector<std::string> names = _getReaderNames(context);
    names.push_back(PnPNotification);

    std::vector<SCARD_READERSTATE> states(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        std::memset(&states[i], 0, sizeof(SCARD_READERSTATE));
        states[i].szReader = names[i].c_str();
    }
    const LONG rc = SCardGetStatusChange(static_cast<SCARDCONTEXT>(context), 0, states.data(),
                                         static_cast<DWORD>(states.size()));
    if (rc != SCARD_S_SUCCESS) raisePcsc(rc);

    readers.clear();
    for (std::size_t i = 0; i < states.size(); ++i) {
        SCARD_READERSTATE& s = states[i];
        SReader r;
        r.name = names[i];
        r.tokenPresent = IsUsable(s.dwEventState);
        s.dwCurrentState = s.dwEventState;
        const DWORD atrLen = std::min<DWORD>(s.cbAtr, sizeof(s.rgbAtr));
        r.atr.assign(s.rgbAtr, s.rgbAtr + atrLen);
        readers.push_back(r);
    }
    cursor = readers.begin();
}

void CReaders::GetNext(__tag_ReaderInf* info) {
    if (cursor == readers.end()) KR_RAISE(0x00000103L);
    const std::size_t n = std::min<std::size_t>(cursor->name.size() + 1, sizeof(info->name));
    // A name of 260 chars or more fills the field without a terminator.
    std::memcpy(info->name, cursor->name.c_str(), n);
    info->tokenPresent = cursor->tokenPresent ? 1 : 0;
    ++cursor;
}
