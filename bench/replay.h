// Pieces shared by the benchmarks that set a library call beside a raw
// SCardTransmit replay of the very commands it sent.
#pragma once

#include <benchmark/benchmark.h>

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

// Runs the library's call and its replay in three alternating rounds of at
// least a second each, so that drift in pcscd's timing hits both alike.
// Takes `--token=NAME` out of the command line: the kind of that name, the
// first kind without the option, null for an unknown name.
template <class Kind, std::size_t N>
const Kind* tokenOption(int& argc, char** argv, const Kind (&kinds)[N]) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--token=", 0) != 0) continue;
        for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
        --argc;
        for (const Kind& k : kinds)
            if (arg.substr(8) == k.name) return &k;
        return nullptr;
    }
    return &kinds[0];
}

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

}  // namespace krfs::bench
