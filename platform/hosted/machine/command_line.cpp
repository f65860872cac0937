// command_line.cpp: the command line and its arguments.
// The program's name has rules of its own: a quote ends it, and backslashes mean nothing in it.
#include "platform/errors.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/program.h"
#include "platform/shell.h"
#include <cstring>
#include <vector>

namespace {

bool IsBlank(char16_t ch)
{
    return ch == u' ' || ch == u'\t';
}

// Reads the program's name and what parts it from the arguments.
const char16_t *ReadProgram(const char16_t *psz, std::u16string *psProgram)
{
    if (*psz == u'"') {
        for (psz++; *psz != 0 && *psz != u'"'; psz++) *psProgram += *psz;
        return *psz == 0 ? psz : psz + 1;
    }
    for (; *psz > u' '; psz++) *psProgram += *psz;
    return *psz == 0 ? psz : psz + 1;
}

// Reads one argument. Backslashes are literal except before a quote, where each two are one and an odd one makes the
// quote literal. Quotes open and close; three in a row, counting the one that opened, give one.
const char16_t *ReadArgument(const char16_t *psz, std::u16string *psArgument)
{
    int nQuotes = 0;
    while (*psz != 0 && (nQuotes != 0 || !IsBlank(*psz))) {
        size_t nBackslashes = 0;
        while (*psz == u'\\') {
            nBackslashes++;
            psz++;
        }
        if (*psz != u'"') {
            psArgument->append(nBackslashes, u'\\');
            if (*psz != 0 && (nQuotes != 0 || !IsBlank(*psz))) *psArgument += *psz++;
            continue;
        }
        psArgument->append(nBackslashes / 2, u'\\');
        psz++;
        if (nBackslashes % 2 != 0) {
            *psArgument += u'"';
            continue;
        }
        nQuotes++;
        for (; *psz == u'"'; psz++) {
            if (++nQuotes != 3) continue;
            *psArgument += u'"';
            nQuotes = 0;
        }
        if (nQuotes == 2) nQuotes = 0;
    }
    return psz;
}

} // namespace

std::vector<std::u16string> hosted::SplitArguments(const char16_t *psz)
{
    std::vector<std::u16string> aArguments;
    for (;;) {
        while (IsBlank(*psz)) psz++;
        if (*psz == 0) return aArguments;
        psz = ReadArgument(psz, &aArguments.emplace_back());
    }
}

const char16_t *platform::GetCommandLineW()
{
    return hosted::ProgramCommandLine().c_str();
}

char16_t **platform::CommandLineToArgvW(const char16_t *pszCommandLine, int32_t *pnArgs)
{
    if (hosted::FailsNow("CommandLineToArgvW")) return nullptr;
    if (pszCommandLine == nullptr || *pszCommandLine == 0 || pnArgs == nullptr) {
        hosted::SetError(ERROR_INVALID_PARAMETER); // an empty line would stand for the program's own path
        return nullptr;
    }
    std::u16string              sProgram;
    std::vector<std::u16string> aArguments = hosted::SplitArguments(ReadProgram(pszCommandLine, &sProgram));
    aArguments.insert(aArguments.begin(), sProgram);
    size_t cb = (aArguments.size() + 1) * sizeof(char16_t *);
    for (const std::u16string &sArgument : aArguments) cb += (sArgument.size() + 1) * sizeof(char16_t);
    char16_t **ppszArguments = static_cast<char16_t **>(hosted::AllocBlock(cb));
    if (ppszArguments == nullptr) return nullptr;
    char16_t *pText = reinterpret_cast<char16_t *>(ppszArguments + aArguments.size() + 1);
    for (size_t i = 0; i < aArguments.size(); i++) {
        ppszArguments[i] = pText;
        std::memcpy(pText, aArguments[i].c_str(), (aArguments[i].size() + 1) * sizeof(char16_t));
        pText += aArguments[i].size() + 1;
    }
    *pnArgs = static_cast<int32_t>(aArguments.size());
    return ppszArguments;
}
