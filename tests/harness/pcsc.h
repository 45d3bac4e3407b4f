// Raw PC/SC helpers for tests that check what a reader and a card look like
// to any PC/SC client.
#pragma once

#include "harness/process.h"

#include <PCSC/winscard.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace krfs::harness {

using Bytes = std::vector<unsigned char>;

// "SCARD_E_NO_SERVICE (0x8010001D): Service not available." style text.
std::string pcscText(LONG rv);

// Compares PC/SC results by name in failure messages:
//   EXPECT_PRED_FORMAT2(krfs::harness::PcscEq, SCARD_W_RESET_CARD, rv);
::testing::AssertionResult PcscEq(const char* expectedText, const char* actualText, LONG expected,
                                  LONG actual);
#define EXPECT_PCSC(expected, actual) EXPECT_PRED_FORMAT2(::krfs::harness::PcscEq, expected, actual)
#define ASSERT_PCSC(expected, actual) ASSERT_PRED_FORMAT2(::krfs::harness::PcscEq, expected, actual)

// The result of establishing (and releasing) a context now.
LONG tryEstablishContext();

// A PC/SC client context; throws if pcscd cannot be reached.
class Context {
public:
    Context();
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    SCARDCONTEXT get() const { return context_; }

private:
    SCARDCONTEXT context_ = 0;
};

// The reader names pcscd lists; `rv` receives the SCardListReaders result
// (no readers is SCARD_E_NO_READERS_AVAILABLE and an empty list).
std::vector<std::string> listReaders(LONG* rv = nullptr);

struct ReaderState {
    DWORD state = 0;  // SCARD_STATE_* bits, without pcscd's event counter
    Bytes atr;
};
// The reader as SCardGetStatusChange reports it now; throws if unknown.
ReaderState readerState(const std::string& reader);
// Waits for `done(state)` by SCardGetStatusChange, never longer than
// `deadline`; throws naming `what` and the last state seen on timeout.
ReaderState waitForReader(const std::string& reader, bool (*done)(const ReaderState&),
                          const char* what, milliseconds deadline = kDeadline);
bool cardPresent(const ReaderState& s);  // present, not mute
bool cardMute(const ReaderState& s);
bool readerEmpty(const ReaderState& s);

// One client's connection to a card, in a context of its own so that two
// Connections are two PC/SC clients. A failed connect is kept in status().
class Connection {
public:
    explicit Connection(const std::string& reader, DWORD share = SCARD_SHARE_SHARED,
                        DWORD protocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    LONG status() const { return status_; }
    bool connected() const { return status_ == SCARD_S_SUCCESS; }
    SCARDHANDLE handle() const { return handle_; }
    DWORD protocol() const { return protocol_; }

    // Sends one APDU; `response` is cut to what came back.
    LONG transmit(const Bytes& command, Bytes& response);
    LONG reconnect(DWORD initialization, DWORD share = SCARD_SHARE_SHARED);
    // The ATR and state as SCardStatus reports them through this handle.
    LONG cardStatus(Bytes& atr, DWORD* state = nullptr);

private:
    Context context_;
    SCARDHANDLE handle_ = 0;
    DWORD protocol_ = 0;
    LONG status_;
};

// Holds a card exclusively until destroyed; others then get
// SCARD_E_SHARING_VIOLATION. Throws if the hold cannot be taken.
class ExclusiveHold {
public:
    explicit ExclusiveHold(const std::string& reader);

private:
    Connection connection_;
};

// Resets the card from a client of its own, as another application would:
// every other handle's next call reports SCARD_W_RESET_CARD.
LONG resetCardFromAnotherClient(const std::string& reader);

}  // namespace krfs::harness
