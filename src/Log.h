// The APDU log: one line per APDU, appended to the file named by KREnableLogging.
#pragma once

#include "libapdu/types.h"

// Empty: no logging. Otherwise the path of the log file; process-wide and unguarded.
extern "C" char g_krFSLogging[4096];

// Appends `line` and a newline; the file is opened and closed for each line.
// A file that can't be opened is silently skipped.
void WriteLog(const char* line);
// Writes "TAG: XX XX ... " with a trailing blank.
void LogAPDU(const char* tag, const TBytes& bytes);

inline bool LoggingEnabled() { return g_krFSLogging[0] != '\0'; }
