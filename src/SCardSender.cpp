#include "SCardSender.h"

#include <winscard.h>

#include <cstring>

#include "Log.h"
#include "libapdu/exception.h"

namespace {

// PC/SC results are 32-bit; bit 31 marks a failure.
bool failed32(LONG result) { return (static_cast<unsigned long>(result) & 0x80000000ul) != 0; }

[[noreturn]] void raise(LONG result) {
    KR_RAISE(static_cast<long>(static_cast<unsigned long>(result) & 0xFFFFFFFFul));
}

}  // namespace

CSCardSender::CSCardSender(const std::string& r, unsigned long protocols, unsigned long s)
    : reader(to_aistring(r)), context(0), scope(s), card(0), protocol(protocols) {
    InitResources();
}

CSCardSender::~CSCardSender() { ReleaseResources(); }

void CSCardSender::InitResources() {
    ReleaseResources();
    SCARDCONTEXT ctx = 0;
    LONG rc = SCardEstablishContext(scope, nullptr, nullptr, &ctx);
    if (failed32(rc)) raise(rc);
    context = static_cast<long>(ctx);
    SCARDHANDLE h = 0;
    DWORD active = 0;
    const std::string name = from_aistring(reader);
    rc = SCardConnect(ctx, name.c_str(), SCARD_SHARE_SHARED, protocol, &h, &active);
    if (failed32(rc)) raise(rc);
    card = static_cast<long>(h);
    protocol = active;
}

void CSCardSender::ReleaseResources() {
    if (card != 0) {
        SCardDisconnect(static_cast<SCARDHANDLE>(card), SCARD_LEAVE_CARD);
        card = 0;
    }
    if (context != 0) {
        SCardCancel(static_cast<SCARDCONTEXT>(context));
        SCardReleaseContext(static_cast<SCARDCONTEXT>(context));
        context = 0;
    }
}

long CSCardSender::HandleSCardErrors(long result) {
    if (result != static_cast<long>(SCARD_W_RESET_CARD)) return result;
    DWORD active = 0;
    const LONG rc = SCardReconnect(static_cast<SCARDHANDLE>(card), SCARD_SHARE_SHARED, protocol,
                                   SCARD_LEAVE_CARD, &active);
    if (failed32(rc)) raise(rc);
    protocol = active;
    return result;
}

void CSCardSender::send(const TBytes& command, TBytes& response) {
    DWORD length = static_cast<DWORD>(response.size());
    const SCARD_IO_REQUEST* pci = protocol == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
    LONG rc = SCardTransmit(static_cast<SCARDHANDLE>(card), pci, command.data(),
                            static_cast<DWORD>(command.size()), nullptr, response.data(), &length);
    if (LoggingEnabled()) LogAPDU("C-APDU", command);
    if (HandleSCardErrors(rc) != 0) {
        // pcsc-lite zeroes the length of a failed transmission, and a retry
        // with no room for the answer could never succeed: give it the whole
        // buffer again.
        length = static_cast<DWORD>(response.size());
        pci = protocol == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
        rc = SCardTransmit(static_cast<SCARDHANDLE>(card), pci, command.data(),
                           static_cast<DWORD>(command.size()), nullptr, response.data(), &length);
        if (failed32(rc)) raise(rc);
    }
    response.resize(length);
    if (LoggingEnabled()) LogAPDU("R-APDU", response);
}

void CSCardSender::control(unsigned int code, const TBytes& input, TBytes& output) {
    DWORD returned = 0;
    LONG rc = SCardControl(static_cast<SCARDHANDLE>(card), code, input.data(),
                           static_cast<DWORD>(input.size()), output.data(),
                           static_cast<DWORD>(output.size()), &returned);
    if (HandleSCardErrors(rc) != 0) {
        rc = SCardControl(static_cast<SCARDHANDLE>(card), code, input.data(),
                          static_cast<DWORD>(input.size()), output.data(),
                          static_cast<DWORD>(output.size()), &returned);
        if (failed32(rc)) raise(rc);
    }
    output.resize(returned);
}

void CSCardSender::lock() {
    const LONG rc = SCardBeginTransaction(static_cast<SCARDHANDLE>(card));
    if (HandleSCardErrors(rc) != 0) SCardBeginTransaction(static_cast<SCARDHANDLE>(card));
}

void CSCardSender::unlock() {
    HandleSCardErrors(SCardEndTransaction(static_cast<SCARDHANDLE>(card), SCARD_LEAVE_CARD));
}

TBytes CSCardSender::atr() {
    SCARD_READERSTATE state;
    std::memset(&state, 0, sizeof(state));
    const std::string name = from_aistring(reader);
    state.szReader = name.c_str();
    const LONG rc = SCardGetStatusChange(static_cast<SCARDCONTEXT>(context), 0, &state, 1);
    if (failed32(rc)) raise(rc);
    const DWORD n = state.cbAtr < sizeof(state.rgbAtr) ? state.cbAtr : sizeof(state.rgbAtr);
    return TBytes(state.rgbAtr, state.rgbAtr + n);
}
