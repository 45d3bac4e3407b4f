// libkrfs-pcsc-shim, loaded with LD_PRELOAD: lets a PC/SC client that asks
// for T=0 or T=1 reach a card whose ATR offers neither, such as the R2 token
// (T=15 only). pcsc-lite refuses that connection with SCARD_E_PROTO_MISMATCH,
// yet carries the card's APDUs over the RAW protocol. So the shim connects
// such a card RAW, tells the caller T=1 (or T=0 if that is all it asked for)
// and sends the caller's APDUs with the RAW protocol control information.
// Every other call and every other card pass through untouched. A tool for
// developing and testing against virtual tokens; libkrFS knows nothing of it.
#include <PCSC/winscard.h>
#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <mutex>

namespace {

// The next definition of a PC/SC function after this library: pcsc-lite's.
#define NEXT(function)                                                                           \
    static const auto next = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
    if (next == nullptr) return SCARD_F_INTERNAL_ERROR

constexpr DWORD kT0OrT1 = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;

// The handles connected RAW here, with the protocol their caller was told.
std::mutex g_mutex;
std::map<SCARDHANDLE, DWORD> g_raw;

void remember(SCARDHANDLE card, DWORD told) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_raw[card] = told;
}

void forget(SCARDHANDLE card) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_raw.erase(card);
}

// The protocol the caller was told, or 0 for a handle left alone.
DWORD told(SCARDHANDLE card) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const auto found = g_raw.find(card);
    return found == g_raw.end() ? 0 : found->second;
}

// Whether the ATR offers T=0 or T=1 (ISO/IEC 7816-3): T=0 if there is no
// TD1, else any TDi naming T=0 or T=1. An ATR cut short counts as offering
// them, so the shim leaves such a card alone.
bool offersT0OrT1(const BYTE* atr, DWORD length) {
    DWORD at = 1;  // T0, the format byte, comes after TS
    bool sawTd = false;
    while (at < length) {
        const BYTE y = atr[at];
        at += 1 + ((y >> 4) & 1) + ((y >> 5) & 1) + ((y >> 6) & 1);  // past TAi, TBi, TCi
        if ((y & 0x80) == 0) return !sawTd;
        if (at >= length) return true;
        const BYTE protocol = atr[at] & 0x0F;
        if (protocol == 0 || protocol == 1) return true;
        sawTd = true;
    }
    return true;
}

bool onlyT0OrT1(DWORD preferred) {
    return (preferred & kT0OrT1) != 0 && (preferred & ~kT0OrT1) == 0;
}

DWORD protocolToTell(DWORD preferred) {
    return (preferred & SCARD_PROTOCOL_T1) != 0 ? SCARD_PROTOCOL_T1 : SCARD_PROTOCOL_T0;
}

}  // namespace

LONG SCardConnect(SCARDCONTEXT context, LPCSTR reader, DWORD share, DWORD preferred,
                  LPSCARDHANDLE card, LPDWORD active) {
    NEXT(SCardConnect);
    const LONG rv = next(context, reader, share, preferred, card, active);
    if (rv == SCARD_S_SUCCESS) forget(*card);  // a new connection on a recycled handle
    if (rv != SCARD_E_PROTO_MISMATCH || !onlyT0OrT1(preferred)) return rv;

    // The ATR decides: a card that offers T=0 or T=1 refused the caller rightly.
    SCARD_READERSTATE state{};
    state.szReader = reader;
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    if (SCardGetStatusChange(context, 0, &state, 1) != SCARD_S_SUCCESS ||
        offersT0OrT1(state.rgbAtr, std::min<DWORD>(state.cbAtr, sizeof state.rgbAtr)))
        return rv;
    DWORD raw = 0;
    if (next(context, reader, share, SCARD_PROTOCOL_RAW, card, &raw) != SCARD_S_SUCCESS) return rv;
    remember(*card, protocolToTell(preferred));
    if (active != nullptr) *active = protocolToTell(preferred);
    return SCARD_S_SUCCESS;
}

// Only a handle connected RAW here can need RAW again: any other was
// connected as asked, to a card that stays the same while the handle lives.
LONG SCardReconnect(SCARDHANDLE card, DWORD share, DWORD preferred, DWORD initialization,
                    LPDWORD active) {
    NEXT(SCardReconnect);
    if (told(card) == 0 || !onlyT0OrT1(preferred)) {
        const LONG rv = next(card, share, preferred, initialization, active);
        if (rv == SCARD_S_SUCCESS) forget(card);  // the caller has what it asked for
        return rv;
    }
    DWORD raw = 0;
    const LONG rv = next(card, share, SCARD_PROTOCOL_RAW, initialization, &raw);
    if (rv == SCARD_S_SUCCESS) {
        remember(card, protocolToTell(preferred));
        if (active != nullptr) *active = protocolToTell(preferred);
    }
    return rv;
}

LONG SCardTransmit(SCARDHANDLE card, const SCARD_IO_REQUEST* sendPci, LPCBYTE command,
                   DWORD commandLength, SCARD_IO_REQUEST* receivePci, LPBYTE response,
                   LPDWORD responseLength) {
    NEXT(SCardTransmit);
    if (told(card) != 0) sendPci = SCARD_PCI_RAW;
    return next(card, sendPci, command, commandLength, receivePci, response, responseLength);
}

LONG SCardStatus(SCARDHANDLE card, LPSTR readerNames, LPDWORD readerLength, LPDWORD state,
                 LPDWORD protocol, LPBYTE atr, LPDWORD atrLength) {
    NEXT(SCardStatus);
    const LONG rv = next(card, readerNames, readerLength, state, protocol, atr, atrLength);
    const DWORD protocolTold = told(card);
    if (rv == SCARD_S_SUCCESS && protocol != nullptr && protocolTold != 0) *protocol = protocolTold;
    return rv;
}

LONG SCardDisconnect(SCARDHANDLE card, DWORD disposition) {
    NEXT(SCardDisconnect);
    forget(card);
    return next(card, disposition);
}
