// krFS crypto against OpenSSL, in pairs, in one run. At the end the three
// ratios are printed, each as krFS time over OpenSSL time:
//   3DES CBC 4 KiB (target <= 2.0, i.e. at least half the throughput),
//   PIN key derivation (target <= 1.5), modexp 2048/160 (target <= 4.0).
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "crypto/token_crypto.h"
#include "crypto/vlong.h"
#include "qncrypto.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes randomBytes(size_t n) {
    Bytes b(n);
    RAND_bytes(b.data(), static_cast<int>(n));
    return b;
}

// CPU seconds per iteration of each benchmark, filled by the reporter; CPU
// time keeps the ratios steady on a shared machine.
std::map<std::string, double> g_times;

const Bytes& key24() {
    static const Bytes k = randomBytes(24);
    return k;
}

// ---- triple DES CBC, 4 KiB ----

void BM_Des3Cbc_krFS(benchmark::State& state) {
    const Bytes in = randomBytes(4096), iv = randomBytes(8);
    Bytes out(4096);
    qnCryptoContext ctx;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_ENCRYPT, key24().data(), 24, iv.data(), 8);
    for (auto _ : state) {
        int n = 0;
        qnCryptoCbc(&ctx, in.data(), 4096, out.data(), &n);
        benchmark::DoNotOptimize(out.data());
    }
    qnCryptoFree(&ctx);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4096);
}

void BM_Des3Cbc_OpenSSL(benchmark::State& state) {
    const Bytes in = randomBytes(4096), iv = randomBytes(8);
    Bytes out(4096 + 8);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, key24().data(), iv.data());
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    for (auto _ : state) {
        int n = 0;
        EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), 4096);
        benchmark::DoNotOptimize(out.data());
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4096);
}

// ---- PIN key: PKCS #12, SHA-1, 999 iterations, 24 bytes ----

const Bytes kPin = {'1', '2', '3', '4', '5', '6'};

void BM_PinKey_krFS(benchmark::State& state) {
    const Bytes salt = randomBytes(20);
    Bytes out(24);
    for (auto _ : state) {
        libapdu::crypto_qntoken_java_sha1(1, kPin.data(), kPin.size(), salt.data(), 20, out.data(),
                                          24);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_PinKey_OpenSSL(benchmark::State& state) {
    const Bytes salt = randomBytes(20);
    Bytes bmp;
    for (unsigned char c : kPin) bmp.insert(bmp.end(), {0, c});
    bmp.insert(bmp.end(), {0, 0});
    Bytes out(24);
    for (auto _ : state) {
        PKCS12_key_gen_uni(bmp.data(), static_cast<int>(bmp.size()),
                           const_cast<unsigned char*>(salt.data()), 20, 1, 999, 24, out.data(),
                           EVP_sha1());
        benchmark::DoNotOptimize(out.data());
    }
}

// ---- modexp, 2048-bit modulus, 160-bit exponent ----

struct ModexpInputs {
    BIGNUM *m = BN_new(), *x = BN_new(), *e = BN_new();
    Bytes mb, xb, eb;
    ModexpInputs() {
        BN_rand(m, 2048, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
        BN_rand_range(x, m);
        BN_rand(e, 160, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY);
        mb = bytes(m);
        xb = bytes(x);
        eb = bytes(e);
    }
    static Bytes bytes(const BIGNUM* b) {
        Bytes out(static_cast<size_t>(BN_num_bytes(b)));
        BN_bn2bin(b, out.data());
        return out;
    }
};

const ModexpInputs& modexpInputs() {
    static const ModexpInputs in;
    return in;
}

void BM_Modexp_krFS(benchmark::State& state) {
    const ModexpInputs& in = modexpInputs();
    const vlong m(in.mb.data(), static_cast<unsigned>(in.mb.size()));
    const vlong x(in.xb.data(), static_cast<unsigned>(in.xb.size()));
    const vlong e(in.eb.data(), static_cast<unsigned>(in.eb.size()));
    for (auto _ : state) {
        vlong r = modexp(x, e, m);
        benchmark::DoNotOptimize(r.value);
    }
}

void BM_Modexp_OpenSSL(benchmark::State& state) {
    const ModexpInputs& in = modexpInputs();
    BN_CTX* ctx = BN_CTX_new();
    BIGNUM* r = BN_new();
    for (auto _ : state) {
        BN_mod_exp(r, in.x, in.e, in.m, ctx);
        benchmark::DoNotOptimize(r);
    }
    BN_free(r);
    BN_CTX_free(ctx);
}

BENCHMARK(BM_Des3Cbc_krFS);
BENCHMARK(BM_Des3Cbc_OpenSSL);
BENCHMARK(BM_PinKey_krFS)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PinKey_OpenSSL)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Modexp_krFS)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Modexp_OpenSSL)->Unit(benchmark::kMicrosecond);

// Prints as usual and keeps the time per iteration of each run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && r.iterations > 0)
                g_times[r.benchmark_name()] =
                    r.cpu_accumulated_time / static_cast<double>(r.iterations);
        ConsoleReporter::ReportRuns(runs);
    }
};

void printRatio(const char* label, const char* ours, const char* theirs, double target) {
    const auto a = g_times.find(ours), b = g_times.find(theirs);
    if (a == g_times.end() || b == g_times.end() || b->second <= 0) return;
    const double ratio = a->second / b->second;
    std::printf("ratio %-28s krFS/OpenSSL time = %.2f (target <= %.1f) %s\n", label, ratio, target,
                ratio <= target ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::printf("\n");
    printRatio("des3-cbc-4KiB", "BM_Des3Cbc_krFS", "BM_Des3Cbc_OpenSSL", 2.0);
    printRatio("pin-key-pkcs12-999", "BM_PinKey_krFS", "BM_PinKey_OpenSSL", 1.5);
    printRatio("modexp-2048-e160", "BM_Modexp_krFS", "BM_Modexp_OpenSSL", 4.0);
    return 0;
}
