#include "harness/pcsc.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace krfs::harness {

namespace {

// pcscd counts events in the upper 16 bits of the event state.
constexpr DWORD kStateBits = 0xFFFF;

std::string stateText(DWORD state) {
    static const struct {
        DWORD bit;
        const char* name;
    } names[] = {{SCARD_STATE_IGNORE, "IGNORE"},      {SCARD_STATE_CHANGED, "CHANGED"},
                 {SCARD_STATE_UNKNOWN, "UNKNOWN"},    {SCARD_STATE_UNAVAILABLE, "UNAVAILABLE"},
                 {SCARD_STATE_EMPTY, "EMPTY"},        {SCARD_STATE_PRESENT, "PRESENT"},
                 {SCARD_STATE_ATRMATCH, "ATRMATCH"},  {SCARD_STATE_EXCLUSIVE, "EXCLUSIVE"},
                 {SCARD_STATE_INUSE, "INUSE"},        {SCARD_STATE_MUTE, "MUTE"},
                 {SCARD_STATE_UNPOWERED, "UNPOWERED"}};
    std::string text;
    for (const auto& n : names)
        if (state & n.bit) text += (text.empty() ? "" : "|") + std::string(n.name);
    return text.empty() ? "0" : text;
}

}  // namespace

std::string pcscText(LONG rv) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(rv) & 0xFFFFFFFFul);
    return std::string(code) + " (" + pcsc_stringify_error(rv) + ")";
}

::testing::AssertionResult PcscEq(const char* expectedText, const char* actualText, LONG expected,
                                  LONG actual) {
    if (expected == actual) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << actualText << " is " << pcscText(actual) << ", expected " << expectedText << " = "
           << pcscText(expected);
}

LONG tryEstablishContext() {
    SCARDCONTEXT context = 0;
    LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context);
    if (rv == SCARD_S_SUCCESS) SCardReleaseContext(context);
    return rv;
}

Context::Context() {
    LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_);
    if (rv != SCARD_S_SUCCESS) throw std::runtime_error("SCardEstablishContext: " + pcscText(rv));
}

Context::~Context() { SCardReleaseContext(context_); }

std::vector<std::string> listReaders(LONG* rvOut) {
    Context context;
    DWORD size = 0;
    LONG rv = SCardListReaders(context.get(), nullptr, nullptr, &size);
    std::vector<std::string> readers;
    if (rv == SCARD_S_SUCCESS) {
        std::vector<char> buffer(size);
        rv = SCardListReaders(context.get(), nullptr, buffer.data(), &size);
        for (std::size_t i = 0; rv == SCARD_S_SUCCESS && i < size && buffer[i] != '\0';) {
            readers.emplace_back(&buffer[i]);
            i += readers.back().size() + 1;
        }
    }
    if (rvOut) *rvOut = rv;
    return readers;
}

namespace {

ReaderState toState(const SCARD_READERSTATE& s) {
    ReaderState state;
    state.state = s.dwEventState & kStateBits;
    state.atr.assign(s.rgbAtr, s.rgbAtr + s.cbAtr);
    return state;
}

}  // namespace

ReaderState readerState(const std::string& reader) {
    Context context;
    SCARD_READERSTATE s{};
    s.szReader = reader.c_str();
    s.dwCurrentState = SCARD_STATE_UNAWARE;
    LONG rv = SCardGetStatusChange(context.get(), 0, &s, 1);
    if (rv != SCARD_S_SUCCESS || (s.dwEventState & SCARD_STATE_UNKNOWN))
        throw std::runtime_error("no reader \"" + reader + "\": " + pcscText(rv));
    return toState(s);
}

ReaderState waitForReader(const std::string& reader, bool (*done)(const ReaderState&),
                          const char* what, milliseconds deadline) {
    Context context;
    auto until = Clock::now() + deadline;
    SCARD_READERSTATE s{};
    s.szReader = reader.c_str();
    s.dwCurrentState = SCARD_STATE_UNAWARE;
    for (;;) {
        auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now());
        LONG rv = SCardGetStatusChange(context.get(),
                                       static_cast<DWORD>(std::max<long>(0, left.count())), &s, 1);
        if (rv == SCARD_S_SUCCESS) {
            if (s.dwEventState & SCARD_STATE_UNKNOWN)
                throw std::runtime_error("no reader \"" + reader + "\" while waiting for " + what);
            if (done(toState(s))) return toState(s);
            s.dwCurrentState = s.dwEventState;
        } else if (rv != SCARD_E_TIMEOUT) {
            throw std::runtime_error(std::string("waiting for ") + what + ": " + pcscText(rv));
        }
        if (Clock::now() >= until)
            throw std::runtime_error(std::string("timed out waiting for ") + what + " in \"" +
                                     reader + "\"; its state is " +
                                     stateText(s.dwEventState & kStateBits));
    }
}

bool cardPresent(const ReaderState& s) {
    return (s.state & SCARD_STATE_PRESENT) && !(s.state & SCARD_STATE_MUTE);
}
bool cardMute(const ReaderState& s) {
    return (s.state & SCARD_STATE_PRESENT) && (s.state & SCARD_STATE_MUTE);
}
bool readerEmpty(const ReaderState& s) { return (s.state & SCARD_STATE_EMPTY) != 0; }

Connection::Connection(const std::string& reader, DWORD share, DWORD protocols) {
    status_ = SCardConnect(context_.get(), reader.c_str(), share, protocols, &handle_, &protocol_);
}

Connection::~Connection() {
    if (connected()) SCardDisconnect(handle_, SCARD_LEAVE_CARD);
}

LONG Connection::transmit(const Bytes& command, Bytes& response) {
    const SCARD_IO_REQUEST* pci = protocol_ == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
    response.resize(MAX_BUFFER_SIZE_EXTENDED);
    DWORD length = static_cast<DWORD>(response.size());
    LONG rv = SCardTransmit(handle_, pci, command.data(), static_cast<DWORD>(command.size()),
                            nullptr, response.data(), &length);
    response.resize(rv == SCARD_S_SUCCESS ? length : 0);
    return rv;
}

LONG Connection::reconnect(DWORD initialization, DWORD share) {
    return SCardReconnect(handle_, share, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, initialization,
                          &protocol_);
}

LONG Connection::cardStatus(Bytes& atr, DWORD* state) {
    char name[MAX_READERNAME];
    DWORD nameLength = sizeof name;
    DWORD cardState = 0, protocol = 0;
    unsigned char buffer[MAX_ATR_SIZE];
    DWORD atrLength = sizeof buffer;
    LONG rv = SCardStatus(handle_, name, &nameLength, &cardState, &protocol, buffer, &atrLength);
    atr.assign(buffer, buffer + (rv == SCARD_S_SUCCESS ? atrLength : 0));
    if (state) *state = cardState;
    return rv;
}

ExclusiveHold::ExclusiveHold(const std::string& reader)
    : connection_(reader, SCARD_SHARE_EXCLUSIVE) {
    if (!connection_.connected())
        throw std::runtime_error("cannot hold \"" + reader +
                                 "\" exclusively: " + pcscText(connection_.status()));
}

LONG resetCardFromAnotherClient(const std::string& reader) {
    Connection other(reader);
    if (!other.connected()) return other.status();
    return other.reconnect(SCARD_RESET_CARD);
}

}  // namespace krfs::harness
