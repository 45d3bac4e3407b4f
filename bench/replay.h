// Pieces shared by the benchmarks that set a library call beside a raw
// SCardTransmit replay of the very commands it sent.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "harness/harness.h"

namespace krfs::bench {

using harness::Bytes;

// The C-APDUs of an APDU log, in order.
inline std::vector<Bytes> commandsIn(const std::string& logPath) {
    std::ifstream in(logPath);
    std::vector<Bytes> out;
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("C-APDU: ", 0) != 0) continue;
        std::istringstream hex(line.substr(8));
        Bytes apdu;
        std::string byte;
        while (hex >> byte)
            apdu.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
        out.push_back(apdu);
    }
    return out;
}

// Sends `commands` on `raw`; false at the first PC/SC failure.
inline bool replay(harness::Connection& raw, const std::vector<Bytes>& commands) {
    Bytes response;
    for (const Bytes& c : commands)
        if (raw.transmit(c, response) != SCARD_S_SUCCESS) return false;
    benchmark::DoNotOptimize(response.data());
    return true;
}

// Sums wall seconds and iterations of each benchmark over its rounds, so
// that alternating rounds give one time per call for each side.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && r.iterations > 0) {
                auto& t = totals_[r.benchmark_name()];
                t.first += r.real_accumulated_time;
                t.second += static_cast<double>(r.iterations);
            }
        ConsoleReporter::ReportRuns(runs);
    }
    // Seconds per iteration of a benchmark registered with MinTime(1.0) and
    // real time; 0 if it never ran.
    double perCall(const std::string& name) {
        const auto& t = totals_[name + "/min_time:1.000/real_time"];
        return t.second > 0 ? t.first / t.second : 0.0;
    }

private:
    std::map<std::string, std::pair<double, double>> totals_;
};

// The raw side of a comparison: `commands` sent on `raw` at each iteration.
inline void replayLoop(benchmark::State& state, harness::Connection& raw,
                       const std::vector<Bytes>& commands) {
    for (auto _ : state)
        if (!replay(raw, commands)) {
            state.SkipWithError("SCardTransmit failed");
            break;
        }
}

// Runs the library's call and its replay in three alternating rounds of at
// least a second each, so that drift in pcscd's timing hits both alike.
inline void runAlternating(RatioReporter& reporter, const char* lib,
                           void (*libCall)(benchmark::State&), const char* raw,
                           void (*rawCall)(benchmark::State&)) {
    for (int round = 0; round < 3; ++round) {
        benchmark::RegisterBenchmark(lib, libCall)->MinTime(1.0)->UseRealTime();
        benchmark::RegisterBenchmark(raw, rawCall)->MinTime(1.0)->UseRealTime();
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
}

// A comparison program: `--token=NAME` picks one of `kinds` (the first by
// default), `setUp` makes it, then the library's call and the raw replay run
// alternating, and the time per call of each is printed.
// Returns the program's exit status.
template <class Kind, std::size_t N>
int compare(int argc, char** argv, const char* program, const Kind (&kinds)[N],
            bool (*setUp)(const Kind&), const char* call, void (*libCall)(benchmark::State&),
            void (*rawCall)(benchmark::State&)) {
    const Kind* kind = &kinds[0];
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--token=", 0) != 0) continue;
        for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
        --argc;
        kind = nullptr;
        for (const Kind& k : kinds)
            if (arg.substr(8) == k.name) kind = &k;
        break;
    }
    if (!kind) {
        std::string names;
        for (const Kind& k : kinds) names += std::string(names.empty() ? "" : ", ") + k.name;
        std::fprintf(stderr, "%s: --token= one of %s\n", program, names.c_str());
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    harness::enterPrivateNamespaces();
    if (!setUp(*kind)) {
        std::fprintf(stderr, "%s: set-up failed\n", program);
        return 1;
    }
    RatioReporter reporter;
    const std::string lib = std::string("BM_") + call, raw = lib + "_RawReplay";
    runAlternating(reporter, lib.c_str(), libCall, raw.c_str(), rawCall);
    const double l = reporter.perCall(lib), r = reporter.perCall(raw);
    if (l > 0 && r > 0)
        std::printf("\nper call: %s %.3f ms, raw replay %.3f ms, host share %.3f ms (ratio %.2f)\n",
                    call, l * 1e3, r * 1e3, (l - r) * 1e3, l / r);
    return 0;
}

}  // namespace krfs::bench
