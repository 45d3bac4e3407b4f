// Shared value types of the library and of namespace libapdu.
#pragma once

#include <cstdint>
#include <vector>

#ifndef KRFS_WINDOWS_TYPES
#define KRFS_WINDOWS_TYPES
typedef unsigned long DWORD;
typedef unsigned short WORD;
#endif

typedef std::vector<unsigned char> TBytes;
typedef std::vector<unsigned short> TPath;
