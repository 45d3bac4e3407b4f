// A 2048-bit private-key decrypt through pcscd and a virtual token, the
// crypto driver's decrypt side by side with a raw SCardTransmit replay of
// the command it sent, so the host's share shows. --token=pro (default) or
// --token=java. The card keeps the key selection and the PIN across PC/SC
// connections, so the replay goes to the same token.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "replay.h"
#include "src/SCardSender.h"

namespace {

using namespace krfs::harness;

// Keeps the commands it passes on.
class RecordingSender : public libapdu::ISender {
public:
    explicit RecordingSender(const std::string& reader) : inner(reader, 3, 0) {}
    void send(const TBytes& command, TBytes& response) override {
        if (recording) sent.push_back(command);
        inner.send(command, response);
    }
    TBytes atr() override { return inner.atr(); }
    bool recording = false;
    std::vector<Bytes> sent;

private:
    CSCardSender inner;
};

struct Kind {
    const char* name;
    const char* dialect;
    WORD applet;
};
const Kind kKinds[] = {{"pro", "pro", 0x1002}, {"java", "java", 0x2001}};

struct Fixture {
    std::unique_ptr<Pcscd> pcscd;
    std::unique_ptr<TempDir> dir;
    std::unique_ptr<VToken> card;
    RecordingSender* sender = nullptr;
    std::unique_ptr<libapdu::IToken> token;
    std::unique_ptr<Connection> raw;
    TBytes block;
    std::vector<Bytes> replay;  // the C-APDUs of one decrypt
};
Fixture* g = nullptr;

bool setUp(const Kind& kind) {
    g = new Fixture;
    g->pcscd.reset(new Pcscd(1));
    g->dir.reset(new TempDir("krfs-bench"));
    const std::string state = g->dir->file("token.json");
    TokenInit init;
    init.dialect = kind.dialect;
    init.userPin = "12345678";
    initToken(state, init);
    vtokenCommand({"add-key", "--state", state, "--bits", "2048"});
    VTokenOptions o;
    o.stateFile = state;
    g->card.reset(new VToken(*g->pcscd, 0, o));
    try {
        std::unique_ptr<libapdu::ISender> s(g->sender = new RecordingSender(g->card->reader()));
        g->token = libapdu::IToken::create(s);
        g->token->selectApplet(kind.applet);
        const TBytes pin{'1', '2', '3', '4', '5', '6', '7', '8'};
        g->token->pin()->select(g->token->pin()->pathUser());
        g->token->pin()->login(pin);
        libapdu::IAppCrypto* crypto = g->token->crypto();
        crypto->select(crypto->list(0x1001).at(0));
        g->block.assign(256, 0x5A);
        g->block[0] = 0;  // below any 2048-bit modulus
        g->sender->recording = true;
        crypto->decrypt(g->block);
        g->sender->recording = false;
    } catch (const libapdu::IException& e) {
        std::fprintf(stderr, "decrypt_bench: 0x%08lX\n", static_cast<unsigned long>(e.code()));
        return false;
    }
    g->replay = g->sender->sent;
    std::printf("decrypt on %s: %zu commands\n", kind.name, g->replay.size());
    g->raw.reset(new Connection(g->card->reader()));
    return g->raw->connected();
}

void BM_Decrypt(benchmark::State& state) {
    for (auto _ : state) try {
            benchmark::DoNotOptimize(g->token->crypto()->decrypt(g->block));
        } catch (const libapdu::IException&) {
            state.SkipWithError("decrypt failed");
            break;
        }
}

void BM_RawReplay(benchmark::State& state) { krfs::bench::replayLoop(state, *g->raw, g->replay); }

}  // namespace

int main(int argc, char** argv) {
    const int status = krfs::bench::compare(argc, argv, "decrypt_bench", kKinds, setUp, "decrypt",
                                            BM_Decrypt, BM_RawReplay);
    if (g == nullptr) return status;
    g->raw.reset();
    g->token.reset();
    g->card.reset();
    g->pcscd.reset();
    return status;
}
