#include "trace.h"

#include "libapdu/exception.h"

namespace libapdu {

const std::wstring CTraceScope::enter_msg = L"Scope enter: ";
const std::wstring CTraceScope::exit_msg = L"Scope exit: ";

CTraceScope::CTraceScope(const wchar_t* n) : name(n) { ExternalTrace(enter_msg + name, 0, 0); }

CTraceScope::~CTraceScope() { ExternalTrace(exit_msg + name, 0, 0); }

}  // namespace libapdu
