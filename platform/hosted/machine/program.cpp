// program.cpp: the program's file and command line, read from the kernel so that tests and tools have them without
// entry.cpp.
#include "platform/hosted/machine/program.h"
#include "platform/hosted/machine/utf.h"
#include <climits>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <vector>

namespace hosted {
namespace {

// One argument, quoted as CommandLineToArgvW undoes it: backslashes count double before a quote and at the end.
std::string Quoted(const std::string &sArgument)
{
    if (!sArgument.empty() && sArgument.find_first_of(" \t\n\v\"") == std::string::npos) return sArgument;
    std::string sOut         = "\"";
    size_t      nBackslashes = 0;
    for (const char ch : sArgument) {
        if (ch == '"') sOut.append(nBackslashes + 1, '\\');
        nBackslashes = ch == '\\' ? nBackslashes + 1 : 0;
        sOut += ch;
    }
    return sOut.append(nBackslashes, '\\') + '"';
}

} // namespace

const std::string &ProgramFile()
{
    static const std::string &s_sFile = *[] {
        char          szPath[PATH_MAX];
        const ssize_t cb = readlink("/proc/self/exe", szPath, sizeof(szPath));
        return new std::string(szPath, cb > 0 ? static_cast<size_t>(cb) : 0);
    }();
    return s_sFile;
}

const std::u16string &ProgramCommandLine()
{
    static const std::u16string &s_sLine = *[] {
        std::ifstream     file("/proc/self/cmdline", std::ios::binary);
        const std::string sAll{std::istreambuf_iterator<char>(file), {}};
        std::string       sLine;
        for (size_t nAt = 0; nAt < sAll.size();) {
            const std::string sArgument = sAll.c_str() + nAt; // each one is terminated
            // The program itself is always quoted, since there backslashes and quotes mean nothing.
            sLine += nAt == 0 ? '"' + sArgument + '"' : ' ' + Quoted(sArgument);
            nAt += sArgument.size() + 1;
        }
        return new std::u16string(ToUtf16(sLine));
    }();
    return s_sLine;
}

} // namespace hosted
