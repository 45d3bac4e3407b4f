// Status word translation. A dialect first rewrites its own words, then the
// common folding maps every word onto the few canonical values that drivers
// and callers test for.
#include "libapdu/error.h"

#include <algorithm>
#include <iterator>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

// Canonical values; ISO 7816-4 readings in the comments.
constexpr unsigned short kSuccess = 0x9000;
constexpr unsigned short kWarning = 0x6200;       // memory unchanged
constexpr unsigned short kCorrupted = 0x6281;     // data may be corrupted
constexpr unsigned short kEndOfFile = 0x6282;     // end of file reached
constexpr unsigned short kInvalidated = 0x6283;   // selected file invalidated
constexpr unsigned short kNoSensorData = 0x6286;  // no input from a sensor
constexpr unsigned short kStateChanged = 0x6300;  // also the wrong PIN (0x63Cx)
constexpr unsigned short kExecError = 0x6400;     // execution error, no room
constexpr unsigned short kNotAllowed = 0x6900;    // command not allowed
constexpr unsigned short kBlocked = 0x6983;       // authentication method blocked
constexpr unsigned short kNotFound = 0x6A82;      // file not found
constexpr unsigned short kExists = 0x6A89;        // file already exists
constexpr unsigned short kWrongParams = 0x6B00;   // wrong parameters
constexpr unsigned short kNoDiagnosis = 0x6F00;   // no precise diagnosis
constexpr unsigned short kUnknown = 0xFFFF;

constexpr unsigned short kCanonical[] = {
    kSuccess,   kWarning,    kCorrupted, kEndOfFile, kInvalidated, kNoSensorData, kStateChanged,
    kExecError, kNotAllowed, kBlocked,   kNotFound,  kExists,      kWrongParams,  kNoDiagnosis,
};

// ISO 7816-4 words that the table below turns into canonical values.
constexpr unsigned short kSwFileFilled = 0x6381;  // file filled up by the last write
constexpr unsigned short kSwNoMemory = 0x6A84;    // not enough memory space

// One link of a rewrite chain: a word in [first, last] becomes `to`.
struct Rewrite {
    unsigned short first;
    unsigned short last;
    unsigned short to;
};

// Applies every link, in order, to the same word, so that one link can feed a
// later one.
template <size_t N>
unsigned short rewrite(const Rewrite (&chain)[N], unsigned short sw) {
    for (const Rewrite& link : chain)
        if (sw >= link.first && sw <= link.last) sw = link.to;
    return sw;
}

// Single words whose meaning is close to a canonical value. 0x6381 becomes
// 0x6A84 and then, by the later link, an execution error.
constexpr Rewrite kIsoWords[] = {
    {0x6284, 0x6284, kCorrupted},    // file control information not formatted
    {0x6285, 0x6285, kInvalidated},  // selected file in termination state
    {kSwFileFilled, kSwFileFilled, kSwNoMemory},
    {0x6981, 0x6981, kInvalidated},  // command incompatible with file structure
    {0x6986, 0x6986, kNotFound},     // no current EF
    {0x6A83, 0x6A83, kNotFound},     // record not found
    {kSwNoMemory, kSwNoMemory, kExecError},
    {0x6A88, 0x6A88, kNotFound},  // referenced data not found
    {0x6A8A, 0x6A8A, kExists},    // DF name already exists
};

// Any other word takes the class of its high byte; a word in no class is
// unknown. 0x6Bxx has no class: only 0x6B00 itself is known.
constexpr Rewrite kClasses[] = {
    {0x6100, 0x61FF, kSuccess},       // more data: a driver that wants it looks first
    {0x6200, 0x62FF, kWarning},       // warning, memory unchanged
    {0x6300, 0x63FF, kStateChanged},  // warning, memory changed; 0x63Cx wrong PIN
    {0x6400, 0x65FF, kExecError},     // execution errors
    {0x6600, 0x66FF, kNotAllowed},    // security related
    {0x6700, 0x68FF, kWrongParams},   // wrong length, CLA functions not supported
    {0x6900, 0x69FF, kNotAllowed},    // command not allowed
    {0x6A00, 0x6AFF, kWrongParams},   // wrong parameters P1-P2
    {0x6C00, 0x6EFF, kWrongParams},   // wrong le, INS or CLA
    {0x6F00, 0x6FFF, kNoDiagnosis},   // no precise diagnosis
    {0x9000, 0x90FF, kSuccess},       // normal processing
};

// ---- Dialect rewrites, applied before the common folding ----

constexpr Rewrite kProR2Words[] = {
    {0x6F86, 0x6F86, kNotFound},
    {0x9850, 0x9850, kNoDiagnosis},
};

// The Java-family cards report their own error numbers in 0x67xx.
constexpr Rewrite kJavaWords[] = {
    {0x6701, 0x6701, kInvalidated}, {0x6702, 0x6702, kNoDiagnosis},  {0x6703, 0x6703, kExists},
    {0x6704, 0x6704, kWrongParams}, {0x6705, 0x6705, kStateChanged}, {0x6706, 0x6706, kWrongParams},
    {0x6707, 0x6707, kNotFound},    {0x6708, 0x6709, kWrongParams},  {0x6710, 0x6720, kNoDiagnosis},
    {0x6721, 0x6721, kWrongParams}, {0x6722, 0x6722, kNoDiagnosis},  {0x6723, 0x6723, kWrongParams},
    {0x6724, 0x6724, kNoDiagnosis}, {0x6725, 0x6725, kWrongParams},  {0x6726, 0x6730, kNoDiagnosis},
    {0x6731, 0x6731, kWrongParams}, {0x6732, 0x6733, kNoDiagnosis},  {0x6734, 0x6734, kNotFound},
    {0x6735, 0x6735, kExecError},   {0x6736, 0x6736, kNotAllowed},   {0x6737, 0x67FF, kNoDiagnosis},
};

// Idprotect's 0x6B00 means no room; the common folding takes 0x6A84 there.
constexpr Rewrite kIdprotectWords[] = {
    {kWrongParams, kWrongParams, kSwNoMemory},
};

constexpr Rewrite kDataStoreWords[] = {
    {0x6701, 0x6701, kNotFound},
    {0x6702, 0x6702, kExecError},
    {0x6703, 0x6703, kStateChanged},
    {0x6704, 0x6704, kBlocked},
    {0x6705, 0x6705, kStateChanged},
    {0x6706, 0x6706, kBlocked},
    {0x6707, 0x6707, kStateChanged},
    {0x6708, 0x6708, kExists},
    {0x6709, 0x6709, kNotAllowed},
    {0x670A, 0x670B, kWrongParams},
    {kNoDiagnosis, kNoDiagnosis, kExecError},
};

// Gost error numbers, after the 0x6D / 0x6E prefix is cleared. Unlisted
// numbers stay 0x00xx and so fold to unknown.
constexpr Rewrite kGostNumbers[] = {
    {0x0005, 0x0005, kNoDiagnosis},  {0x0006, 0x0006, kExecError},
    {0x0010, 0x0010, kNotAllowed},   {0x0012, 0x0012, kNotFound},
    {0x0013, 0x0013, kWrongParams},  {0x0030, 0x0030, kNoDiagnosis},
    {0x0031, 0x0031, kExecError},    {0x00A0, 0x00A0, kStateChanged},
    {0x00A2, 0x00A2, kStateChanged}, {0x00A4, 0x00A4, kBlocked},
    {0x0060, 0x0060, kNotFound},     {0x0062, 0x0063, kWrongParams},
    {0x0082, 0x0082, kNotFound},     {0x0121, 0x0121, kNoDiagnosis},
    {0x0170, 0x0170, kNotAllowed},   {0x0101, 0x0102, kNotAllowed},
    {0x0103, 0x0103, kWrongParams},  {0x0104, 0x0104, kNotAllowed},
};
constexpr unsigned char kGostPrefixes[] = {0x6D, 0x6E};

}  // namespace

// ---- IAppError ----

IAppError::~IAppError() = default;

unsigned short IAppError::extractSW(const TBytes& response) {
    if (response.size() < 2) return 0;
    const size_t n = response.size();
    return static_cast<unsigned short>(response[n - 2] << 8 | response[n - 1]);
}

unsigned short IAppError::fold(unsigned short sw) {
    sw = rewrite(kIsoWords, sw);
    if (std::find(std::begin(kCanonical), std::end(kCanonical), sw) != std::end(kCanonical))
        return sw;
    for (const Rewrite& c : kClasses)
        if (sw >= c.first && sw <= c.last) return c.to;
    return kUnknown;
}

void IAppError::raiseSW(unsigned short sw) {
    const unsigned short canonical = fold(sw);
    if (canonical != kSuccess) APDU_RAISE(canonical);
}

// ---- Dialects ----

unsigned short CErrorR2::extractSW(const TBytes& response) {
    if (response.size() < 2) return 0;
    // Low byte first on the wire.
    const size_t n = response.size();
    return static_cast<unsigned short>(response[n - 1] << 8 | response[n - 2]);
}

void CErrorR2::raiseSW(unsigned short sw) { IAppError::raiseSW(rewrite(kProR2Words, sw)); }

void CErrorPro::raiseSW(unsigned short sw) { IAppError::raiseSW(rewrite(kProR2Words, sw)); }

void CErrorJava::raiseSW(unsigned short sw) { IAppError::raiseSW(rewrite(kJavaWords, sw)); }

void CErrorJoker::raiseSW(unsigned short sw) { IAppError::raiseSW(rewrite(kJavaWords, sw)); }

void CErrorIdprotect::raiseSW(unsigned short sw) {
    IAppError::raiseSW(rewrite(kIdprotectWords, sw));
}

void CErrorGost::raiseSW(unsigned short sw) {
    const unsigned char high = static_cast<unsigned char>(sw >> 8);
    if (std::find(std::begin(kGostPrefixes), std::end(kGostPrefixes), high) !=
        std::end(kGostPrefixes))
        sw &= 0x00FF;
    IAppError::raiseSW(rewrite(kGostNumbers, sw));
}

void CErrorDataStore::raiseSW(unsigned short sw) {
    IAppError::raiseSW(rewrite(kDataStoreWords, sw));
}

}  // namespace libapdu
