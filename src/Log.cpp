#include "Log.h"

#include <cstdio>
#include <cstring>
#include <vector>

char g_krFSLogging[4096] = {0};

void WriteLog(const char* line) {
    if (line == nullptr || line[0] == '\0') return;
    // Bounded: the path buffer may be unterminated after a 4096-char path.
    char path[sizeof(g_krFSLogging) + 1];
    std::memcpy(path, g_krFSLogging, sizeof(g_krFSLogging));
    path[sizeof(g_krFSLogging)] = '\0';
    FILE* f = std::fopen(path, "a+");
    if (f == nullptr) return;
    std::fprintf(f, "%s\n", line);
    std::fflush(f);
    std::fclose(f);
}

void LogAPDU(const char* tag, const TBytes& bytes) {
    // Sized from the data so that no APDU can overrun the line.
    std::vector<char> line(std::strlen(tag) + 2 + bytes.size() * 3 + 1, '\0');
    std::size_t at = 0;
    at += std::snprintf(&line[at], line.size() - at, "%s: ", tag);
    for (unsigned char b : bytes) at += std::snprintf(&line[at], line.size() - at, "%.02X ", b);
    WriteLog(line.data());
}
