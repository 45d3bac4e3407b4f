// Failures of the library. Inside the library a failure is a thrown object;
// only the code crosses the exported barrier.
#pragma once

#include <string>

// The failure of the public layer.
class CAException {
public:
    CAException(long code, const char* file, const char* date, unsigned long line);
    CAException(const CAException& other) = default;
    virtual ~CAException();

    long Code() const { return code; }

    [[noreturn]] static void RaiseAnError(long code, const char* file, const char* date,
                                          unsigned long line);

protected:
    long code;
    std::string file;
    std::string date;
    unsigned long line;
};

namespace libapdu {

// The abstract failure of the libapdu layer.
class IException {
public:
    virtual ~IException();
    virtual long code() const = 0;
};

// The one failure entry of libapdu: throws CAPDUException with 0x86E00000 | code.
[[noreturn]] void ExternalRaise(unsigned short code, std::wstring file, unsigned long line);

// The trace entry. Tracing is compiled in but does nothing.
void ExternalTrace(std::wstring text, unsigned long a, unsigned long b);

}  // namespace libapdu

class CAPDUException : public libapdu::IException, public CAException {
public:
    CAPDUException(long code, const char* file, const char* date, unsigned long line);
    CAPDUException(const CAPDUException& other) = default;
    ~CAPDUException() override;
    long code() const override { return CAException::Code(); }
};

#define KRFS_WIDEN2(x) L##x
#define KRFS_WIDEN(x) KRFS_WIDEN2(x)
// Raises a libapdu failure with this source file and line.
#define APDU_RAISE(sw) ::libapdu::ExternalRaise((sw), KRFS_WIDEN(__FILE__), __LINE__)
// Raises a public-layer failure with this source file, date and line.
#define KR_RAISE(c) ::CAException::RaiseAnError((c), __FILE__, __DATE__, __LINE__)
