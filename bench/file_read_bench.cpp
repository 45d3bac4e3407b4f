// Reading a 16 KiB file through pcscd and a virtual Pro token: KRFileRead
// side by side with a raw SCardTransmit loop that replays the very commands
// the library sent. Checks first that the read takes one select and 65 reads,
// then prints the ratio of wall times (the work is mostly waiting on pcscd).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "replay.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using krfs::bench::commandsIn;

constexpr WORD kSize = 16384;

struct Fixture {
    std::unique_ptr<Pcscd> pcscd;
    std::unique_ptr<VToken> card;
    std::unique_ptr<TempDir> dir;
    __tag_HToken* token = nullptr;
    __tag_HDir* vendor = nullptr;
    __tag_HFile* file = nullptr;
    std::unique_ptr<Connection> raw;
    std::vector<Bytes> replay;  // the C-APDUs of one KRFileRead
};

Fixture* g = nullptr;

bool setUp() {
    g = new Fixture;
    g->pcscd.reset(new Pcscd(1));
    VTokenOptions o;
    TokenInit init;
    init.model = "pro42";
    o.init = init;
    o.serveArgs = {"--assume-verified", "01"};
    g->card.reset(new VToken(*g->pcscd, 0, o));
    g->dir.reset(new TempDir("krfs-bench"));
    if (KRTokenBind(&g->token, g->card->reader().c_str()) != 0) return false;
    if (KRRootDirOpen(&g->vendor, g->token, 0xF006) != 0) return false;
    if (KRFileCreate(&g->file, g->vendor, 0x0001, kSize, 0) != 0) return false;
    std::vector<unsigned char> data(kSize);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31);
    if (KRFileWrite(g->file, 0, data.data(), kSize) != 0) return false;

    // One read with the log on: its commands are the count to check and the
    // script of the raw replay.
    const std::string log = g->dir->file("read.log");
    std::vector<unsigned char> buffer(kSize);
    KREnableLogging(log.c_str());
    const long rc = KRFileRead(g->file, 0, kSize, buffer.data(), kSize);
    KRDisableLogging();
    if (rc != 0 || buffer != data) return false;
    g->replay = commandsIn(log);
    int selects = 0, reads = 0;
    for (const Bytes& c : g->replay) {
        if (c.size() > 1 && c[1] == 0xA4) ++selects;
        if (c.size() > 1 && c[1] == 0xB0) ++reads;
    }
    std::printf("KRFileRead of %u bytes: %zu commands, %d select, %d read\n", kSize,
                g->replay.size(), selects, reads);
    if (selects != 1 || reads != 65 || g->replay.size() != 66) {
        std::printf("MISSED: expected exactly 1 select and 65 reads\n");
        return false;
    }
    g->raw.reset(new Connection(g->card->reader()));
    return g->raw->connected();
}

void BM_KRFileRead(benchmark::State& state) {
    std::vector<unsigned char> buffer(kSize);
    for (auto _ : state) {
        if (KRFileRead(g->file, 0, kSize, buffer.data(), kSize) != 0) {
            state.SkipWithError("KRFileRead failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

void BM_RawReplay(benchmark::State& state) {
    for (auto _ : state)
        if (!krfs::bench::replay(*g->raw, g->replay)) {
            state.SkipWithError("SCardTransmit failed");
            break;
        }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    enterPrivateNamespaces();
    if (!setUp()) {
        std::fprintf(stderr, "file_read_bench: set-up failed\n");
        return 1;
    }
    krfs::bench::RatioReporter reporter;
    krfs::bench::runAlternating(reporter, "BM_KRFileRead_16KiB", BM_KRFileRead,
                                "BM_RawReplay_16KiB", BM_RawReplay);
    const double lib = reporter.perCall("BM_KRFileRead_16KiB");
    const double raw = reporter.perCall("BM_RawReplay_16KiB");
    if (lib > 0 && raw > 0)
        std::printf("\nper read: KRFileRead %.3f ms, raw replay %.3f ms\n", lib * 1e3, raw * 1e3),
            std::printf(
                "ratio krfileread-16KiB  KRFileRead/raw replay time = %.3f (target <= 1.05) %s\n",
                lib / raw, lib / raw <= 1.05 ? "met" : "MISSED");
    KRFileClose(g->file);
    KRDirClose(g->vendor);
    KRTokenUnbind(g->token);
    g->raw.reset();
    g->card.reset();
    g->pcscd.reset();
    return 0;
}
