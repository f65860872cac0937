// machine_files.cpp: what a person would do with the machine's own file manager: attributes and shell links. It runs on
// the machine, so that both backends' ways of keeping them are used.
#include "platform/files.h"
#include "platform/tool_seam.h"
#include "tools/record_text.h"
#include <cstdio>
#include <cstring>
#include <string>

using namespace platform;

static int Usage()
{
    std::fprintf(
        stderr,
        "usage: machine-files attributes PATH [+rhs|-rhs]   shows them, or sets and clears read-only, hidden, system\n"
        "       machine-files make-link LINK TARGET [FOLDER]  a shell link and its working folder\n"
        "       machine-files show-link LINK\n");
    return 2;
}

static int Attributes(const std::u16string &sPath, const char *pszChange)
{
    uint32_t dwAttributes = GetFileAttributesW(sPath.c_str());
    if (dwAttributes == INVALID_FILE_ATTRIBUTES) return 1;
    if (pszChange != nullptr) {
        if (pszChange[0] != '+' && pszChange[0] != '-') return Usage();
        for (const char *psz = pszChange + 1; *psz != '\0'; psz++) {
            const uint32_t dwBit = *psz == 'r'   ? FILE_ATTRIBUTE_READONLY
                                   : *psz == 'h' ? FILE_ATTRIBUTE_HIDDEN
                                   : *psz == 's' ? FILE_ATTRIBUTE_SYSTEM
                                                 : 0;
            if (dwBit == 0) return Usage();
            dwAttributes = pszChange[0] == '+' ? dwAttributes | dwBit : dwAttributes & ~dwBit;
        }
        if (!SetFileAttributesW(sPath.c_str(), dwAttributes)) return 1;
    }
    std::printf("%c%c%c%c\n", dwAttributes & FILE_ATTRIBUTE_DIRECTORY ? 'd' : '-',
                dwAttributes & FILE_ATTRIBUTE_READONLY ? 'r' : '-', dwAttributes & FILE_ATTRIBUTE_HIDDEN ? 'h' : '-',
                dwAttributes & FILE_ATTRIBUTE_SYSTEM ? 's' : '-');
    return 0;
}

static int MakeLink(const std::u16string &sLink, const std::u16string &sTarget, const std::u16string &sFolder)
{
    ShellLink *pLink = NewShellLink();
    const bool bDone = pLink != nullptr && SetShellLinkPath(pLink, sTarget.c_str()) &&
                       (sFolder.empty() || SetShellLinkWorkingDirectory(pLink, sFolder.c_str())) &&
                       SaveShellLink(pLink, sLink.c_str());
    if (pLink != nullptr) ReleaseShellLink(pLink);
    return bDone ? 0 : 1;
}

static int ShowLink(const std::u16string &sLink)
{
    ShellLink *pLink = LoadShellLink(sLink.c_str());
    if (pLink == nullptr) return 1;
    char16_t szTarget[MAX_PATH] = u"", szFolder[MAX_PATH] = u"";
    GetShellLinkPath(pLink, szTarget, MAX_PATH);
    GetShellLinkWorkingDirectory(pLink, szFolder, MAX_PATH);
    std::printf("%s\n%s\n", ToUtf8(szTarget, MAX_PATH).c_str(), ToUtf8(szFolder, MAX_PATH).c_str());
    ReleaseShellLink(pLink);
    return 0;
}

int main(int argc, char **argv)
{
    const std::string sVerb = argc > 2 ? argv[1] : "";
    if (sVerb == "attributes" && argc <= 4) return Attributes(ToWide(argv[2]), argc == 4 ? argv[3] : nullptr);
    const bool bMake = sVerb == "make-link" && (argc == 4 || argc == 5), bShow = sVerb == "show-link" && argc == 3;
    if (!bMake && !bShow) return Usage();
    if (!InitializeShellLinks()) return 1;
    const int nResult = bMake ? MakeLink(ToWide(argv[2]), ToWide(argv[3]), argc == 5 ? ToWide(argv[4]) : u"")
                              : ShowLink(ToWide(argv[2]));
    UninitializeShellLinks();
    return nResult;
}
