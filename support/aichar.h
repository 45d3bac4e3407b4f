// Character traits of the reader-name string type. Nothing depends on them
// beyond the type: a name keeps its spelling char for char.
#pragma once

#include <string>

struct _aichar_traits : std::char_traits<char> {};

typedef std::basic_string<char, _aichar_traits> aistring;

inline aistring to_aistring(const std::string& s) { return aistring(s.begin(), s.end()); }
inline std::string from_aistring(const aistring& s) { return std::string(s.begin(), s.end()); }
