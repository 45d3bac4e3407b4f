// krfs-vtoken: virtual tokens for krFS. Makes a token's state file, shows it,
// and attaches a token to a vpcd reader slot.
#include "core/faults.h"
#include "core/script_card.h"
#include "core/vpcd.h"
#include "idprotect/idprotect_applet.h"
#include "idprotect/idprotect_ticket.h"
#include "persist/java_dialects.h"
#include "persist/token_file.h"
#include "pro/pro_keys.h"
#include "pro/pro_state.h"
#include "r2/r2_card.h"

#include <openssl/rand.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: krfs-vtoken <command> [options]\n"
    "\n"
    "commands:\n"
    "  init     make a token and write its state file\n"
    "  serve    attach a card to a vpcd reader slot and answer it until stopped\n"
    "  show     print a token's state: identity, file tree, access, PIN objects\n"
    "           (R2: private flags, PIN tries, label; Pro: keys and certificates)\n"
    "  add-key  make an RSA key and its self-signed certificate and store them\n"
    "           on a Pro token or in the key-keeping applet of a Java-card token\n"
    "  ticket   print an authentication ticket for an IDProtect token, as a\n"
    "           fingerprint front end issues it after a match\n"
    "  help     show this text\n"
    "\n"
    "init options:\n"
    "  --state FILE      where the token is kept (required); an existing file\n"
    "                    is replaced only with --force\n"
    "  --dialect D       pro (default), r2, or a Java-card dialect: gost,\n"
    "                    datastore, idprotect, java, joker\n"
    "  --model M         pro16, pro32, pro42 (default) or pro42b\n"
    "  --fips            FIPS layout: home 3F00 6666 5000, no administrator PIN\n"
    "  --label TEXT      token label, UTF-8, at most 32 bytes (R2: no zero\n"
    "                    byte; kept in file 3F00 8000 AAAA, public, exactly as\n"
    "                    long as the label)\n"
    "  --user-pin PIN    default 1234567890 (R2: 4 to 16 bytes)\n"
    "  --admin-pin PIN   default: the user PIN (not with --fips)\n"
    "  --id HEX          4-byte identifier; default random\n"
    "  --colour N        colour code 0 to 255 (default 0)\n"
    "  --life-cycle HEX  the life cycle byte (default 10)\n"
    "  --memory-total N  R2: memory in bytes, up to 65535 (default 32768). Free\n"
    "                    memory is derived, not given: the total less an eighth\n"
    "                    kept by the card's system, less 16 bytes per node and\n"
    "                    each file's size; creating and deleting keep it so\n"
    "  --pin-tries N     R2: wrong PINs before the PIN blocks, 1 to 255\n"
    "                    (default 10); a right PIN restores them\n"
    "  --force           replace an existing state file\n"
    "  --key BITS        then add-key with BITS and the defaults; repeatable\n"
    "                    (every dialect that keeps keys)\n"
    "  An R2 token takes no --model, --fips, --admin-pin, --life-cycle or --key.\n"
    "\n"
    "init options of the Java-card dialects (one card, applets chosen by AID):\n"
    "  --atr HEX         the card's answer to reset (default: the Java 1.0\n"
    "                    token, 3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4)\n"
    "  --applets LIST    more applets beside the dialect's own, comma-separated:\n"
    "                    manager (A0 00 00 01 51 00 00: model name, identifier,\n"
    "                    CPLC data), cryptopro (A0 00 00 04 48 01 02 01 02 02:\n"
    "                    a selection only)\n"
    "  --model-name TEXT with manager: the model text, at most 64 bytes\n"
    "                    (default \"krFS Virtual Token\")\n"
    "  --manager-id HEX  with manager: its identifier, 1 to 32 bytes; default\n"
    "                    8 random bytes\n"
    "  gost (applet A0 00 00 04 48 01 01 01 06 02):\n"
    "  --user-pin PIN    1 to 32 bytes (default 12345678)\n"
    "  --admin-pin PIN   1 to 32 bytes (default 87654321)\n"
    "  --pin-tries N     wrong attempts before a PIN blocks, 1 to 255\n"
    "                    (default 10); a right PIN clears them\n"
    "  --label TEXT      at most 32 bytes\n"
    "  --id HEX          8-byte identifier; default random\n"
    "  --memory N        object memory in bytes (default 61440); each object\n"
    "                    takes 32, each attribute 8 and its value's length\n"
    "  --file PATH=HEX   a public file, e.g. 3F00/1000/0001=48656C6C6F, made as\n"
    "                    the host makes one; repeatable\n"
    "  --private-file PATH=HEX\n"
    "                    the same, readable only after the user PIN\n"
    "  datastore (applet A0 00 00 04 48 00 03 01):\n"
    "  --user-pin PIN    PIN 1 (default 12345678)\n"
    "  --admin-pin PIN   PIN 2 (default 87654321)\n"
    "  --global-pin PIN  PIN 3 (default 11111111)\n"
    "  --pin-tries N     wrong PINs before each PIN blocks, 1 to 15 (default 10)\n"
    "  --pin-min N       shortest PIN, all three (default 4)\n"
    "  --pin-max N       longest PIN, all three, at most 64 (default 16)\n"
    "  --label TEXT      at most 32 bytes (default empty)\n"
    "  --id HEX          8-byte identifier; default random\n"
    "  --memory N        record memory in bytes (default 32768); each record\n"
    "                    takes 16 bytes and its content\n"
    "  Its state keeps the fault knobs refuse_begin N (the next N begin-updates\n"
    "  answer 6F00) and cut_power_after_finish N (after the Nth next finish the\n"
    "  card leaves the reader at the next command); both count down.\n"
    "  idprotect (applet A0 00 00 01 64 4C 41 53 45 52 00 01; ATR\n"
    "  3B D5 18 FF 80 91 FE 1F C3 80 73 C8 21 10 0A):\n"
    "  --user-pin PIN    PIN object 0020, 4 to 16 bytes (default 12345678)\n"
    "  --admin-pin PIN   PIN object 0010, unblocks the user PIN, 4 to 16 bytes\n"
    "                    (default 87654321)\n"
    "  --pin-tries N     wrong PINs before a PIN blocks, 1 to 15 (default 10)\n"
    "  --login-type N    0x20 PIN (default), 0x23 fingerprint, 0x24 PIN or\n"
    "                    fingerprint, 0x25 PIN and fingerprint; the user logs\n"
    "                    in at the object of that number: 0023 the fingerprint\n"
    "                    object, 0024 and 0025 stand for the user PIN and the\n"
    "                    fingerprint proof\n"
    "  --finger N=FILE   enrol finger N (1 to 10) with the template in FILE;\n"
    "                    a match on the card needs exactly these bytes, and the\n"
    "                    finger gets a random ticket key; repeatable\n"
    "  --label TEXT      at most 32 seven-bit bytes, in 3F00 3000 C000\n"
    "  --id HEX          8-byte identifier; default random\n"
    "  --memory N        file memory in bytes (default 65536); each node takes\n"
    "                    32 and each file its size\n"
    "  --info-version N  byte 97 of 3F00 3000 C000 (default 4; 3 or less makes\n"
    "                    a token the host refuses)\n"
    "  java (applet A0 00 00 03 12 02 02) and joker (A0 00 00 04 48 00 04 01):\n"
    "  --user-pin PIN    PIN object 11 (default 12345678)\n"
    "  --admin-pin PIN   PIN object 21 (default 87654321)\n"
    "  --pin-tries N     wrong PINs before a PIN blocks, 1 to 15 (default 10)\n"
    "  --fips            FIPS token: file 000A holds 00 01, shadow PIN 1A, PIN\n"
    "                    changes only through secure messaging\n"
    "  --label TEXT      at most 32 bytes UTF-8, file 0002 (default krFS Java)\n"
    "  --id HEX          identifier, 1 to 32 bytes; default 8 random bytes\n"
    "  --memory N        bytes (default 32768); each node takes 32 and each\n"
    "                    file its size\n"
    "  --colour N        0 to 255 (default 1)\n"
    "  --version HEX     1 to 32 bytes (default 01 00)\n"
    "  --date HEX        manufacturing date, 1 to 32 bytes (default today,\n"
    "                    YY YY MM DD in BCD)\n"
    "\n"
    "serve options:\n"
    "  --port N       vpcd port of the slot (default 35963, the first slot;\n"
    "                 the second slot of a reader is the next port)\n"
    "  --host H       where vpcd listens (default 127.0.0.1)\n"
    "  --state FILE   serve the token kept in FILE; every change the card\n"
    "                 makes is written back at once\n"
    "  --atr HEX      instead of --state: a scripted card with this answer to\n"
    "                 reset\n"
    "  --script FILE  with --atr: command/response transcript; without one\n"
    "                 every command gets 6D 00\n"
    "  --mute         start mute: present in the reader, but never powers up\n"
    "  --verbose      log contact events and APDUs to stderr\n"
    "\n"
    "fault knobs of serve (added to those of the state file):\n"
    "  --refuse PREFIX=SW      commands beginning with the hex PREFIX (at least\n"
    "                          CLA INS) get the status word SW and no action,\n"
    "                          e.g. --refuse 00B0=6A82; repeatable\n"
    "  --truncate PREFIX=N     answers to those commands keep their first N\n"
    "                          bytes, status word included; repeatable\n"
    "  --mute-after N          answer N commands after each power-up, then none\n"
    "  --vanish-at N           leave the reader at the Nth command, unanswered\n"
    "                          (SIGUSR2 brings the card back)\n"
    "  --assume-verified ID    Pro: treat PIN ID (hex) as verified in every\n"
    "                          session, without saving it; repeatable\n"
    "\n"
    "add-key options:\n"
    "  --state FILE      the token (Pro, java, joker or idprotect)\n"
    "  --bits N          1024 or 2048 (a FIPS Pro token stores both, but the\n"
    "                    host's secure messaging carries only 1024-bit work)\n"
    "  --cn NAME         the certificate's common name (default \"krFS key N\" on\n"
    "                    a Pro token, N counting its containers; \"krFS key ID\"\n"
    "                    elsewhere)\n"
    "  --id TEXT         the container's name, which pairs key and certificate\n"
    "                    (default 16 random hex digits)\n"
    "  --cert-only       store only the certificate: a container without a key\n"
    "  The private key stays in the state file; no card command reads it.\n"
    "\n"
    "show options:\n"
    "  --state FILE   the token to show\n"
    "\n"
    "ticket options (the 208-character Base64 text goes to KRTokenLogin in\n"
    "place of the PIN):\n"
    "  --state FILE   the IDProtect token\n"
    "  --type T       0x20 PIN, 0x23 fingerprint, 0x24 either, 0x25 both\n"
    "  --pin PIN      the PIN the ticket carries (0x20, 0x25; 0x24 either)\n"
    "  --finger N     the enrolled finger whose reference and key it carries\n"
    "                 (0x23, 0x25; 0x24 either)\n"
    "\n"
    "script file, one item a line, '#' starts a comment:\n"
    "  order keyed | order ordered   keyed (default): any listed command, any\n"
    "                                time; ordered: each once, in turn\n"
    "  00 A4 04 00 02 3F 00 -> 90 00\n"
    "  An unlisted or out-of-turn command gets 6D 00.\n"
    "\n"
    "state file: JSON, one object; \"dialect\" is pro or r2. A Pro token keeps\n"
    "its model, FIPS layout, identifier, life cycle byte, the PINs assumed\n"
    "verified, its fault knobs (\"faults\": refuse, truncate, mute_after,\n"
    "vanish_at) and the tree under \"mf\": each node with id, type (dir or\n"
    "file), access bytes (00 free, FF never, else the PIN to verify; files:\n"
    "read, update, delete, ...; directories: create, delete, ...), a file's\n"
    "data and a directory's children and PIN objects. A PIN object keeps\n"
    "the 24-byte key derived from its PIN, never the PIN (\"key\"; outside\n"
    "FIPS the MD5 key, in FIPS the PKCS#12 key salted by the counter file),\n"
    "and its retry counter (\"tries\", \"max_tries\"; 0 tries is blocked).\n"
    "An object given as \"pin\" (older files) gets its key when loaded.\n"
    "An R2 token keeps its identifier, version, memory_total, memory_free\n"
    "(the card's counter), colour, faults, \"user_pin\" (the PIN's bytes in\n"
    "hex, tries, max_tries) and the tree under \"root\" (3F00): each node with\n"
    "id, type, a file's private flag and data, a directory's children. A file\n"
    "without a tree or PIN gets an empty root and PIN 1234567890.\n"
    "\n"
    "runtime control (signals):\n"
    "  SIGUSR1          vanish: drop the vpcd connection, as a card removal\n"
    "  SIGUSR2          come back: dial vpcd again\n"
    "  SIGTERM, SIGINT  leave the reader and exit 0\n"
    "\n"
    "The card dials vpcd until the port is up, and again whenever vpcd drops\n"
    "the connection, unless it has vanished.\n"
    "exit status: 0 done (serve: stopped by signal), 1 runtime failure,\n"
    "2 usage error\n";

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

int failure(const std::string& what) {
    std::fprintf(stderr, "krfs-vtoken: %s\n", what.c_str());
    return 1;
}

// Walks the options of one command. Each option either is a flag or takes
// the next argument as its value.
class Options {
public:
    explicit Options(const std::vector<std::string>& args) : args_(args) {}

    bool next() { return ++i_ < args_.size(); }
    const std::string& name() const { return args_[i_]; }
    // The option's value; throws std::invalid_argument if there is none.
    const std::string& value() {
        if (i_ + 1 >= args_.size()) throw std::invalid_argument(name() + " needs a value");
        return args_[++i_];
    }

private:
    const std::vector<std::string>& args_;
    std::size_t i_ = static_cast<std::size_t>(-1);
};

// Reads a command's options: --state FILE into `state`, each other one
// through `take`, which answers false for one it does not know. Throws
// std::invalid_argument for an unknown option or a missing value.
template <class Take>
void readOptions(const std::vector<std::string>& args, std::string& state, const Take& take) {
    Options o(args);
    while (o.next()) {
        if (o.name() == "--state")
            state = o.value();
        else if (!take(o.name(), o))
            throw std::invalid_argument("unknown option: " + o.name());
    }
}

int writeState(const std::string& path, const std::string& text, bool force) {
    try {
        vtoken::writeNewState(path, text, force);
    } catch (const std::exception& e) {
        return failure(e.what());
    }
    return 0;
}

using vtoken::javacard::parseNumber;

unsigned char hexByte(const std::string& text, const std::string& what) {
    vtoken::Bytes b = vtoken::fromHex(text);
    if (b.size() != 1) throw std::invalid_argument(what + " is one hex byte: " + text);
    return b[0];
}

// init for a dialect that lives on the Java card: the platform takes
// --state, --force and --atr, the dialect's applets every other option,
// each with a value but the flag --fips.
int initJavaCard(const vtoken::JavaDialect& dialect, const std::vector<std::string>& args) {
    std::string path;
    bool force = false;
    std::optional<vtoken::Bytes> atr;
    vtoken::javacard::InitOptions options;
    std::string text;
    try {
        readOptions(args, path, [&](const std::string& a, Options& o) {
            if (a == "--dialect") {
                o.value();
            } else if (a == "--force") {
                force = true;
            } else if (a == "--atr") {
                atr = vtoken::fromHex(o.value());
            } else if (a == "--fips") {
                // The one flag among the applets' options.
                options.add("--fips", "1");
            } else if (a.rfind("--", 0) == 0) {
                options.add(a, o.value());
            } else {
                return false;
            }
            return true;
        });
        if (path.empty()) throw std::invalid_argument("init needs --state");
        vtoken::JavaInstallation installation = dialect.install(options);
        vtoken::addApplets(installation, options);
        options.requireAllUsed(dialect.name);
        if (atr) installation.atr = *atr;
        vtoken::javacard::JavaCard card(std::move(installation.atr),
                                        std::move(installation.applets));
        text = vtoken::javacard::toJsonText(card, dialect.name);
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    return writeState(path, text, force);
}

struct KeyRequest {
    int bits = 0;
    std::string cn;
    std::string id;
    bool certOnly = false;
};

int keyBits(const std::string& text) {
    if (text == "1024" || text == "2048") return std::stoi(text);
    throw std::invalid_argument("key bits: 1024 or 2048, not " + text);
}

// Makes the key and stores it on the token, which is then saved. Throws
// std::invalid_argument for what the token cannot take.
void addKey(vtoken::StoredToken& token, KeyRequest r) {
    if (!token.pro() && !token.java()) throw std::invalid_argument("an R2 token keeps no keys");
    if (r.id.empty()) {
        unsigned char random[8];
        if (RAND_bytes(random, sizeof random) != 1) throw std::runtime_error("no random bytes");
        char hex[2 * sizeof random + 1];
        for (std::size_t i = 0; i < sizeof random; ++i)
            std::snprintf(hex + 2 * i, 3, "%02x", random[i]);
        r.id = hex;
    }
    if (r.cn.empty())
        r.cn = "krFS key " +
               (token.pro() ? std::to_string(vtoken::pro::countContainers(token.pro()->state()) + 1)
                            : r.id);
    vtoken::RsaKey key = vtoken::makeRsaKey(r.bits, r.cn);
    if (r.certOnly) key.privateKey.clear();
    if (token.pro()) {
        token.pro()->addKey(key, r.id);
    } else {
        bool stored = false;
        for (const auto& applet : token.java()->applets()) {
            try {
                applet->addKey(key, r.id);
                stored = true;
                break;
            } catch (const std::invalid_argument& e) {
                if (std::string(e.what()).find("keeps no keys") == std::string::npos) throw;
            }
        }
        if (!stored) throw std::invalid_argument("no applet of this token keeps keys");
    }
    token.save();
    std::printf("container %s: %s%d bits, CN \"%s\"\n", r.id.c_str(),
                r.certOnly ? "certificate only, " : "", r.bits, r.cn.c_str());
}

int addKeyCommand(const std::vector<std::string>& args) {
    std::string path;
    KeyRequest request;
    try {
        readOptions(args, path, [&](const std::string& a, Options& o) {
            if (a == "--bits") {
                request.bits = keyBits(o.value());
            } else if (a == "--cn") {
                request.cn = o.value();
                if (request.cn.empty()) throw std::invalid_argument("--cn is not empty");
            } else if (a == "--id") {
                request.id = o.value();
                if (request.id.empty()) throw std::invalid_argument("--id is not empty");
            } else if (a == "--cert-only") {
                request.certOnly = true;
            } else {
                return false;
            }
            return true;
        });
        if (path.empty() || request.bits == 0)
            throw std::invalid_argument("add-key needs --state and --bits");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    try {
        vtoken::StoredToken token(path);
        addKey(token, request);
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    } catch (const std::exception& e) {
        return failure(e.what());
    }
    return 0;
}

int initToken(const std::vector<std::string>& args);

// init, then add-key for each --key.
int init(const std::vector<std::string>& args) {
    std::vector<std::string> rest;
    std::vector<int> keys;
    std::string path, dialect;
    try {
        for (std::size_t i = 0; i < args.size(); ++i) {
            const bool valued = i + 1 < args.size();
            if (args[i] == "--key" && valued) {
                keys.push_back(keyBits(args[++i]));
                continue;
            }
            if (args[i] == "--state" && valued) path = args[i + 1];
            if (args[i] == "--dialect" && valued) dialect = args[i + 1];
            rest.push_back(args[i]);
        }
        if (!keys.empty() && dialect == "r2")
            throw std::invalid_argument("an R2 token keeps no keys");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    const int status = initToken(rest);
    if (status != 0 || keys.empty()) return status;
    try {
        vtoken::StoredToken token(path);
        for (int bits : keys) addKey(token, {bits, {}, {}, false});
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    } catch (const std::exception& e) {
        return failure(e.what());
    }
    return 0;
}

int initToken(const std::vector<std::string>& args) {
    for (std::size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == "--dialect")
            if (const vtoken::JavaDialect* d = vtoken::javaDialect(args[i + 1]))
                return initJavaCard(*d, args);
    std::string path, dialect = "pro";
    bool force = false;
    vtoken::pro::Personalisation p;
    vtoken::r2::Personalisation r2;
    std::optional<unsigned char> lifeCycle;
    // Options one dialect takes and the other refuses.
    std::string proOnly, r2Only;
    try {
        readOptions(args, path, [&](const std::string& a, Options& o) {
            if (a == "--dialect") {
                dialect = o.value();
            } else if (a == "--model") {
                auto m = vtoken::pro::modelByName(o.value());
                if (!m) throw std::invalid_argument("model: pro16, pro32, pro42 or pro42b");
                p.model = *m;
                proOnly = a;
            } else if (a == "--fips") {
                p.fips = true;
                proOnly = a;
            } else if (a == "--label") {
                p.label = o.value();
                r2.label = p.label;
            } else if (a == "--user-pin") {
                p.userPin = r2.userPin = o.value();
            } else if (a == "--admin-pin") {
                p.adminPin = o.value();
                proOnly = a;
            } else if (a == "--id") {
                p.id = vtoken::fromHex(o.value());
                if (p.id->size() != 4) throw std::invalid_argument("--id takes 4 bytes");
                r2.id = p.id;
            } else if (a == "--colour") {
                p.colour = r2.colour =
                    static_cast<unsigned char>(parseNumber(o.value(), 255, "colour"));
            } else if (a == "--life-cycle") {
                lifeCycle = hexByte(o.value(), "--life-cycle");
                proOnly = a;
            } else if (a == "--memory-total") {
                r2.memoryTotal = static_cast<std::uint16_t>(parseNumber(o.value(), 0xFFFF, a));
                r2Only = a;
            } else if (a == "--pin-tries") {
                r2.maxTries = static_cast<unsigned char>(parseNumber(o.value(), 255, a));
                if (r2.maxTries == 0) throw std::invalid_argument("--pin-tries counts from 1");
                r2Only = a;
            } else if (a == "--force") {
                force = true;
            } else {
                return false;
            }
            return true;
        });
        if (path.empty()) throw std::invalid_argument("init needs --state");
        if (dialect != "pro" && dialect != "r2")
            throw std::invalid_argument("dialect: pro, r2 or a Java-card dialect (" +
                                        vtoken::javaDialectNames() + ")");
        if (dialect == "r2" && !proOnly.empty())
            throw std::invalid_argument("an R2 token takes no " + proOnly);
        if (dialect == "pro" && !r2Only.empty())
            throw std::invalid_argument(r2Only + " is for R2 tokens");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }

    std::string text;
    try {
        if (dialect == "pro") {
            vtoken::pro::ProState state = vtoken::pro::personalise(p);
            if (lifeCycle) state.lifeCycle = *lifeCycle;
            text = vtoken::pro::toJsonText(state);
        } else {
            text = vtoken::r2::toJsonText(vtoken::r2::personalise(r2));
        }
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    return writeState(path, text, force);
}

int show(const std::vector<std::string>& args) {
    std::string path;
    try {
        readOptions(args, path, [](const std::string&, Options&) { return false; });
        if (path.empty()) throw std::invalid_argument("show needs --state");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    try {
        vtoken::StoredToken token(path);
        std::fputs(token.describe().c_str(), stdout);
    } catch (const std::exception& e) {
        return failure(e.what());
    }
    return 0;
}

int ticket(const std::vector<std::string>& args) {
    std::string path;
    vtoken::idprotect::TicketRequest request;
    bool typed = false;
    try {
        readOptions(args, path, [&](const std::string& a, Options& o) {
            if (a == "--type") {
                request.type = static_cast<unsigned>(parseNumber(o.value(), 0xFF, a));
                typed = true;
            } else if (a == "--pin") {
                request.pin = o.value();
            } else if (a == "--finger") {
                request.finger = static_cast<unsigned>(parseNumber(o.value(), 0xFF, a));
            } else {
                return false;
            }
            return true;
        });
        if (path.empty() || !typed) throw std::invalid_argument("ticket needs --state and --type");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }
    try {
        vtoken::StoredToken token(path);
        const auto* applet =
            token.java() ? token.java()->find<vtoken::idprotect::IdprotectApplet>() : nullptr;
        if (!applet) return failure(path + " holds no IDProtect token");
        const std::string text = vtoken::idprotect::issueTicket(applet->state(), request);
        std::printf("%s\n", text.c_str());
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    } catch (const std::exception& e) {
        return failure(e.what());
    }
    return 0;
}

struct ServeOptions {
    std::string host = "127.0.0.1";
    unsigned long port = vtoken::vpcd::kDefaultPort;
    std::string atr;
    std::string script;
    std::string state;
    bool mute = false;
    bool verbose = false;
    vtoken::Faults faults;
    std::vector<unsigned char> assumed;
};

int serve(const std::vector<std::string>& args) {
    ServeOptions options;
    try {
        readOptions(args, options.state, [&](const std::string& a, Options& o) {
            if (a == "--mute") {
                options.mute = true;
            } else if (a == "--verbose") {
                options.verbose = true;
            } else if (a == "--port") {
                const std::string& v = o.value();
                options.port = parseNumber(v, 0xFFFF, "port");
                if (options.port == 0) throw std::invalid_argument("bad port: " + v);
            } else if (a == "--host") {
                options.host = o.value();
            } else if (a == "--atr") {
                options.atr = o.value();
            } else if (a == "--script") {
                options.script = o.value();
            } else if (a == "--refuse") {
                options.faults.refuse.push_back(vtoken::Faults::parseRefusal(o.value()));
            } else if (a == "--truncate") {
                options.faults.truncate.push_back(vtoken::Faults::parseTruncation(o.value()));
            } else if (a == "--mute-after") {
                options.faults.muteAfter = parseNumber(o.value(), 1ul << 30, "--mute-after");
            } else if (a == "--vanish-at") {
                options.faults.vanishAt = parseNumber(o.value(), 1ul << 30, "--vanish-at");
                if (*options.faults.vanishAt == 0)
                    throw std::invalid_argument("--vanish-at counts from 1");
            } else if (a == "--assume-verified") {
                options.assumed.push_back(hexByte(o.value(), "--assume-verified"));
            } else {
                return false;
            }
            return true;
        });
        if (options.state.empty() == options.atr.empty())
            throw std::invalid_argument("serve needs --state or --atr, not both");
        if (!options.state.empty() && !options.script.empty())
            throw std::invalid_argument("--script goes with --atr");
    } catch (const std::invalid_argument& e) {
        return usageError(e.what());
    }

    std::unique_ptr<vtoken::StoredToken> stored;
    std::unique_ptr<vtoken::ScriptCard> scripted;
    vtoken::ICard* model = nullptr;
    vtoken::Faults faults;
    if (!options.state.empty()) {
        try {
            stored = std::make_unique<vtoken::StoredToken>(options.state);
        } catch (const std::exception& e) {
            return failure(e.what());
        }
        if (!options.assumed.empty()) {
            if (!stored->pro()) return usageError("--assume-verified is for Pro tokens");
            stored->pro()->setAssumedVerified(options.assumed);
        }
        model = &stored->card();
        faults = stored->faults();
    } else {
        if (!options.assumed.empty()) return usageError("--assume-verified needs --state");
        vtoken::Bytes atr;
        vtoken::Script script;
        try {
            atr = vtoken::fromHex(options.atr);
            if (!options.script.empty()) script = vtoken::Script::load(options.script);
        } catch (const std::exception& e) {
            return usageError(e.what());
        }
        if (atr.size() < 2 || atr.size() > 33) return usageError("an ATR has 2 to 33 bytes");
        scripted = std::make_unique<vtoken::ScriptCard>(std::move(atr), std::move(script));
        model = scripted.get();
    }
    const auto& extra = options.faults;
    faults.refuse.insert(faults.refuse.end(), extra.refuse.begin(), extra.refuse.end());
    faults.truncate.insert(faults.truncate.end(), extra.truncate.begin(), extra.truncate.end());
    if (extra.muteAfter) faults.muteAfter = extra.muteAfter;
    if (extra.vanishAt) faults.vanishAt = extra.vanishAt;

    vtoken::FaultyCard card(*model, faults);
    vtoken::VpcdLink link(card, options.host, static_cast<std::uint16_t>(options.port));
    card.setOnVanish([&link] { link.vanish(); });
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
        status = failure(e.what());
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
    for (const auto& a : args)
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (command == "serve") return serve(args);
    if (command == "init") return init(args);
    if (command == "show") return show(args);
    if (command == "add-key") return addKeyCommand(args);
    if (command == "ticket") return ticket(args);
    return usageError("unknown command: " + command);
}
