// trace_lines.h: how the lines of the trace folder begin and how text is put into one line. Backend's own.
#pragma once
#include <string>
#include <string_view>

namespace hosted {

// "2026-01-31 12:00:00.123456 4711.4712 "
std::string LineStart();
// Appends text with control characters written as \n, \r, \t or \xNN, and at most cbMax bytes of the source.
void AppendOneLine(std::string &sLine, std::string_view sText, size_t cbMax);
// Adds the line break and writes all in one call; false with errno set.
bool WriteLine(int fd, std::string sLine);
// The trace folder of a machine.
std::string    TraceFolder(const char *pszMachine);
constexpr char SESSION_SUFFIX[] = ".session";
constexpr char LOG_SUFFIX[]     = ".log";

} // namespace hosted
