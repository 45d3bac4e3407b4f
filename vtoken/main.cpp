// krfs-vtoken: a virtual token attached to a vpcd reader slot.
#include "core/script_card.h"
#include "core/vpcd.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: krfs-vtoken <command> [options]\n"
    "\n"
    "commands:\n"
    "  serve    attach a card to a vpcd reader slot and answer it until stopped\n"
    "  help     show this text\n"
    "\n"
    "serve options:\n"
    "  --port N       vpcd port of the slot (default 35963, the first slot;\n"
    "                 the second slot of a reader is the next port)\n"
    "  --host H       where vpcd listens (default 127.0.0.1)\n"
    "  --atr HEX      the card's answer to reset (required)\n"
    "  --script FILE  command/response transcript; without one every\n"
    "                 command gets 6D 00\n"
    "  --mute         start mute: present in the reader, but never powers up\n"
    "  --verbose      log contact events and APDUs to stderr\n"
    "\n"
    "script file, one item a line, '#' starts a comment:\n"
    "  order keyed | order ordered   keyed (default): any listed command, any\n"
    "                                time; ordered: each once, in turn\n"
    "  00 A4 04 00 02 3F 00 -> 90 00\n"
    "  An unlisted or out-of-turn command gets 6D 00.\n"
    "\n"
    "runtime control (signals):\n"
    "  SIGUSR1          vanish: drop the vpcd connection, as a card removal\n"
    "  SIGUSR2          come back: dial vpcd again\n"
    "  SIGTERM, SIGINT  leave the reader and exit 0\n"
    "\n"
    "The card dials vpcd until the port is up, and again whenever vpcd drops\n"
    "the connection, unless it has vanished.\n"
    "exit status: 0 stopped by signal, 1 runtime failure, 2 usage error\n";

vtoken::VpcdLink* g_link = nullptr;

extern "C" void onSignal(int sig) {
    if (!g_link) return;
    switch (sig) {
        case SIGUSR1:
            g_link->vanish();
            break;
        case SIGUSR2:
            g_link->comeBack();
            break;
        default:
            g_link->stop();
            break;
    }
}

int usageError(const std::string& what) {
    std::fprintf(stderr, "krfs-vtoken: %s\n(see krfs-vtoken --help)\n", what.c_str());
    return 2;
}

struct ServeOptions {
    std::string host = "127.0.0.1";
    unsigned long port = vtoken::vpcd::kDefaultPort;
    std::string atr;
    std::string script;
    bool mute = false;
    bool verbose = false;
};

int serve(const std::vector<std::string>& args) {
    ServeOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> const std::string* {
            return i + 1 < args.size() ? &args[++i] : nullptr;
        };
        if (a == "--mute") {
            options.mute = true;
        } else if (a == "--verbose") {
            options.verbose = true;
        } else if (a == "--port" || a == "--host" || a == "--atr" || a == "--script") {
            const std::string* v = value();
            if (!v) return usageError(a + " needs a value");
            if (a == "--port") {
                char* end = nullptr;
                options.port = std::strtoul(v->c_str(), &end, 0);
                if (v->empty() || *end != '\0' || options.port == 0 || options.port > 0xFFFF)
                    return usageError("bad port: " + *v);
            } else if (a == "--host") {
                options.host = *v;
            } else if (a == "--atr") {
                options.atr = *v;
            } else {
                options.script = *v;
            }
        } else {
            return usageError("unknown option: " + a);
        }
    }
    if (options.atr.empty()) return usageError("serve needs --atr");

    vtoken::Bytes atr;
    vtoken::Script script;
    try {
        atr = vtoken::fromHex(options.atr);
        if (!options.script.empty()) script = vtoken::Script::load(options.script);
    } catch (const std::exception& e) {
        return usageError(e.what());
    }
    if (atr.size() < 2 || atr.size() > 33) return usageError("an ATR has 2 to 33 bytes");

    vtoken::ScriptCard card(std::move(atr), std::move(script));
    vtoken::VpcdLink link(card, options.host, static_cast<std::uint16_t>(options.port));
    link.setMute(options.mute);
    if (options.verbose) link.setLog(stderr);

    g_link = &link;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT}) sigaction(sig, &action, nullptr);

    int status = 0;
    try {
        link.run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "krfs-vtoken: %s\n", e.what());
        status = 1;
    }
    // Signals that come after the link is gone must not touch it.
    action.sa_handler = SIG_IGN;
    for (int sig : {SIGUSR1, SIGUSR2}) sigaction(sig, &action, nullptr);
    action.sa_handler = SIG_DFL;
    for (int sig : {SIGTERM, SIGINT}) sigaction(sig, &action, nullptr);
    g_link = nullptr;
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usageError("no command");
    const std::string command = args.front();
    args.erase(args.begin());
    if (command == "help" || command == "--help" || command == "-h") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "serve") {
        for (const auto& a : args)
            if (a == "--help" || a == "-h") {
                std::fputs(kUsage, stdout);
                return 0;
            }
        return serve(args);
    }
    return usageError("unknown command: " + command);
}
