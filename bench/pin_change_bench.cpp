// A PIN change through pcscd and a virtual token, KRTokenPinChange side by
// side with a raw SCardTransmit replay of the commands it sent, so the host's
// share shows. Two tokens (--token=idprotect, the default, or
// --token=java-fips):
// - IDProtect: a Diffie-Hellman channel per change (the group, the host's
//   value, the wrapped command, the close, and two modular exponentiations
//   with a 20-byte exponent on the host);
// - a FIPS Java token: the five keys of the PIN and of its shadow replaced
//   under secure messaging, 15 wrapped changes each behind a card challenge,
//   and two logins, with 15 PKCS#12 derivations of 999 rounds on the host.
// The replay goes to a twin token in the second reader, which refuses the
// stale login answers and wrapped commands: over the same transport, without
// disturbing the library's token. The library's side also takes and gives
// back the token lock (no APDU).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "krfs.h"
#include "replay.h"

namespace {

using namespace krfs::harness;

struct Fixture {
    std::unique_ptr<Pcscd> pcscd;
    std::unique_ptr<VToken> card;
    std::unique_ptr<VToken> twin;  // takes the replay
    std::unique_ptr<TempDir> dir;
    __tag_HToken* token = nullptr;
    std::unique_ptr<Connection> raw;
    std::vector<Bytes> replay;  // the C-APDUs of one KRTokenPinChange
};

// A token to change the PIN of, and how to tell its secure messaging in the
// commands sent.
struct Kind {
    const char* name;
    const char* dialect;
    std::vector<std::string> more;
    bool (*wrapped)(const Bytes& command);
    int expected;
    const char* what;
};
const Kind kKinds[] = {
    {"idprotect",
     "idprotect",
     {},
     [](const Bytes& c) { return c.size() > 1 && (c[1] == 0x48 || c[1] == 0x86 || c[1] == 0x24); },
     4,
     "of the channel (group, value, change, close)"},
    {"java-fips",
     "java",
     {"--fips"},
     [](const Bytes& c) { return c.size() > 1 && c[0] == 0x84 && c[1] == 0x0F; },
     15,
     "wrapped changes of key objects"},
};

Fixture* g = nullptr;
const char* kPins[] = {"12345678", "87654321"};

bool setUp(const Kind& kind) {
    g = new Fixture;
    g->pcscd.reset(new Pcscd(1));
    VTokenOptions o;
    TokenInit init;
    init.dialect = kind.dialect;
    init.more = kind.more;
    init.userPin = kPins[0];
    o.init = init;
    g->card.reset(new VToken(*g->pcscd, 0, o));
    g->dir.reset(new TempDir("krfs-bench"));
    if (KRTokenBind(&g->token, g->card->reader().c_str()) != 0) return false;
    if (KRTokenLock(g->token) != 0 || KRTokenLogin(g->token, kPins[0]) != 0) return false;
    const std::string log = g->dir->file("change.log");
    KREnableLogging(log.c_str());
    const long rc = KRTokenPinChange(g->token, kPins[1]);
    KRDisableLogging();
    if (rc != 0 || KRTokenPinChange(g->token, kPins[0]) != 0) return false;
    // The replay's connection could not send while the library holds the
    // token: each change below takes the lock and gives it back.
    if (KRTokenUnLock(g->token) != 0) return false;
    g->replay = krfs::bench::commandsIn(log);
    int wrapped = 0;
    for (const Bytes& c : g->replay) wrapped += kind.wrapped(c);
    std::printf("KRTokenPinChange on %s: %zu commands, %d %s\n", kind.name, g->replay.size(),
                wrapped, kind.what);
    if (wrapped != kind.expected) {
        std::printf("MISSED: expected %d\n", kind.expected);
        return false;
    }
    g->twin.reset(new VToken(*g->pcscd, 1, o));
    g->raw.reset(new Connection(g->twin->reader()));
    return g->raw->connected();
}

void BM_KRTokenPinChange(benchmark::State& state) {
    std::size_t next = 1;
    auto change = [](const char* pin) {
        const bool ok = KRTokenLock(g->token) == 0 && KRTokenPinChange(g->token, pin) == 0;
        return KRTokenUnLock(g->token) == 0 && ok;
    };
    for (auto _ : state) {
        if (!change(kPins[next])) {
            state.SkipWithError("KRTokenPinChange failed");
            break;
        }
        next ^= 1;
    }
    // Leave the first PIN in place for the next round.
    if (next == 0) change(kPins[0]);
}

void BM_RawReplay(benchmark::State& state) { krfs::bench::replayLoop(state, *g->raw, g->replay); }

}  // namespace

int main(int argc, char** argv) {
    const int status = krfs::bench::compare(argc, argv, "pin_change_bench", kKinds, setUp,
                                            "KRTokenPinChange", BM_KRTokenPinChange, BM_RawReplay);
    if (g == nullptr) return status;
    KRTokenUnbind(g->token);
    g->raw.reset();
    g->twin.reset();
    g->card.reset();
    g->pcscd.reset();
    return status;
}
