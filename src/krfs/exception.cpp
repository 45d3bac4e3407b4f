#include "libapdu/exception.h"

CAException::CAException(long c, const char* f, const char* d, unsigned long l)
    : code(c), file(f ? f : ""), date(d ? d : ""), line(l) {}

CAException::~CAException() = default;

void CAException::RaiseAnError(long code, const char* file, const char* date, unsigned long line) {
    throw CAException(code, file, date, line);
}

CAPDUException::CAPDUException(long c, const char* f, const char* d, unsigned long l)
    : CAException(c, f, d, l) {}

CAPDUException::~CAPDUException() = default;

namespace libapdu {

IException::~IException() = default;

void ExternalRaise(unsigned short code, std::wstring file, unsigned long line) {
    // Narrowed char by char: source names are plain ASCII.
    std::string narrow;
    narrow.reserve(file.size());
    for (wchar_t c : file) narrow.push_back(static_cast<char>(c));
    throw CAPDUException(0x86E00000L | code, narrow.c_str(), __DATE__, line);
}

void ExternalTrace(std::wstring, unsigned long, unsigned long) {}

}  // namespace libapdu
