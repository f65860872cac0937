// test_machine_windows.cpp: the one machine there is, with the product's data folder and the tests' folder emptied.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/modules.h"
#include "platform/tool_seam.h"
#include "tests/support/test_machine.h"
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace platform;

namespace {

// Removes what is in a folder, hidden, read-only and long names included; links are removed, not followed.
void EmptyFolder(const std::u16string &sFolder)
{
    WIN32_FIND_DATAW found{};
    const HANDLE     hFind = FindFirstFileW((sFolder + u"\\*").c_str(), &found);
    if (hFind == INVALID_HANDLE_VALUE) return;
    do {
        const std::u16string sName = found.cFileName;
        const std::u16string sPath = sFolder + u"\\" + sName;
        if (sName == u"." || sName == u"..") continue;
        SetFileAttributesW(sPath.c_str(), FILE_ATTRIBUTE_NORMAL);
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            EXPECT_TRUE(DeleteFileW(sPath.c_str())) << GetLastError();
            continue;
        }
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) EmptyFolder(sPath);
        EXPECT_TRUE(RemoveDirectoryW(sPath.c_str())) << GetLastError();
    } while (FindNextFileW(hFind, &found));
    FindClose(hFind);
}

} // namespace

bool UnderWine()
{
    return GetProcAddress(LoadLibraryW(u"ntdll.dll"), "wine_get_version") != nullptr;
}

// On a machine that somebody uses the product's data folder is not a test's to empty.
static void RefuseRealMachines()
{
    const char *pszAllowed = std::getenv("VORN_TESTS_MAY_EMPTY_PROGRAMDATA");
    if (UnderWine() || (pszAllowed != nullptr && std::strcmp(pszAllowed, "yes") == 0)) return;
    std::fputs("These tests empty %ProgramData%\\VORN and C:\\vorn-test. On a machine where that does no harm, set\n"
               "VORN_TESTS_MAY_EMPTY_PROGRAMDATA=yes.\n",
               stderr);
    fflush(stderr);
    _exit(2);
}

void FreshMachine()
{
    RefuseRealMachines();
    char16_t *pszProgramData = nullptr;
    ASSERT_EQ(S_OK, SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &pszProgramData));
    EmptyFolder(u"\\\\?\\" + std::u16string(pszProgramData) + u"\\VORN");
    CoTaskMemFree(pszProgramData);
    EmptyFolder(u"\\\\?\\C:\\vorn-test");
    SetLastError(0);
}
