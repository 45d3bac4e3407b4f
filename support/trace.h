// The frame of a trace facility. The trace entry does nothing, so scopes cost
// two calls and no output.
#pragma once

#include <string>

namespace libapdu {

class CTraceScope {
public:
    explicit CTraceScope(const wchar_t* name);
    ~CTraceScope();

    static const std::wstring enter_msg;
    static const std::wstring exit_msg;

private:
    std::wstring name;
};

}  // namespace libapdu
