// An IDProtect PIN change through pcscd and a virtual token: KRTokenPinChange
// (a Diffie-Hellman channel per change: the group, the host's value, the
// wrapped command, the close, and two modular exponentiations with a 20-byte
// exponent on the host) side by side with a raw SCardTransmit replay of the
// commands it sent, so the host's share shows. In the replay the card
// refuses the stale wrapped command, and keeps its state file as it was; the
// library's side also takes and gives back the token lock (no APDU).
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
    std::unique_ptr<TempDir> dir;
    __tag_HToken* token = nullptr;
    std::unique_ptr<Connection> raw;
    std::vector<Bytes> replay;  // the C-APDUs of one KRTokenPinChange
};

Fixture* g = nullptr;
const char* kPins[] = {"12345678", "87654321"};

bool setUp() {
    g = new Fixture;
    g->pcscd.reset(new Pcscd(1));
    VTokenOptions o;
    TokenInit init;
    init.dialect = "idprotect";
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
    int channel = 0;
    for (const Bytes& c : g->replay)
        if (c.size() > 1 && (c[1] == 0x48 || c[1] == 0x86 || c[1] == 0x24)) ++channel;
    std::printf("KRTokenPinChange: %zu commands, %d of the channel (group, value, change, close)\n",
                g->replay.size(), channel);
    if (channel != 4) {
        std::printf("MISSED: expected the four exchanges of one channel\n");
        return false;
    }
    // The replay's connection shares the card with the library's.
    g->raw.reset(new Connection(g->card->reader()));
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

void BM_RawReplay(benchmark::State& state) {
    for (auto _ : state)
        if (!krfs::bench::replay(*g->raw, g->replay)) {
            state.SkipWithError("SCardTransmit failed");
            break;
        }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    enterPrivateNamespaces();
    if (!setUp()) {
        std::fprintf(stderr, "pin_change_bench: set-up failed\n");
        return 1;
    }
    krfs::bench::RatioReporter reporter;
    krfs::bench::runAlternating(reporter, "BM_KRTokenPinChange", BM_KRTokenPinChange,
                                "BM_RawReplay_change", BM_RawReplay);
    const double lib = reporter.perCall("BM_KRTokenPinChange");
    const double raw = reporter.perCall("BM_RawReplay_change");
    if (lib > 0 && raw > 0)
        std::printf(
            "\nper change: KRTokenPinChange %.3f ms, raw replay %.3f ms, host share %.3f ms"
            " (ratio %.2f)\n",
            lib * 1e3, raw * 1e3, (lib - raw) * 1e3, lib / raw);
    KRTokenUnbind(g->token);
    g->raw.reset();
    g->card.reset();
    g->pcscd.reset();
    return 0;
}
