// modules_hosted_test.cpp: missing libraries and functions, the version text, and programs that the shell starts.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "platform/user_interface.h"
#include "tests/support/test_machine.h"
#include <filesystem>
#include <fstream>
#include <sys/wait.h>

using namespace platform;

class HostedModules : public MachineTest {};

TEST_F(HostedModules, AFunctionWithoutBehaviourHereSaysSo)
{
    const HMODULE hUser        = LoadLibraryW(u"USER32");
    const FARPROC pUnsupported = GetProcAddress(hUser, "SetDisplayConfig");
    ASSERT_NE(nullptr, pUnsupported) << "bound by the program all the same";
    EXPECT_EQ(0, reinterpret_cast<int64_t (*)()>(pUnsupported)());
    EXPECT_EQ(ERROR_NOT_SUPPORTED, GetLastError());
    EXPECT_TRUE(FreeLibrary(hUser));
}

TEST_F(HostedModules, AFileInUseKeepsItsTree)
{
    const HMODULE        hShell    = LoadLibraryW(u"shell32.dll");
    const auto           pFunction = reinterpret_cast<SHFileOperationWProc>(GetProcAddress(hShell, "SHFileOperationW"));
    const std::u16string sTree = TestFolder() + u"\\tree", sFile = sTree + u"\\used.txt", sFrom = sTree + u'\0';
    SHFILEOPSTRUCTW      operation = {};
    operation.wFunc                = FO_DELETE;
    operation.pFrom                = sFrom.c_str();
    operation.fFlags               = 0x0414;
    ASSERT_NE(nullptr, pFunction);
    ASSERT_TRUE(CreateDirectoryW(sTree.c_str(), nullptr));
    WriteTestFile(sFile, "x");
    const HANDLE hFile = CreateFileW(sFile.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hFile);
    EXPECT_EQ(static_cast<int32_t>(ERROR_SHARING_VIOLATION), pFunction(&operation));
    EXPECT_EQ("x", ReadTestFile(sFile));
    EXPECT_TRUE(CloseHandle(hFile));
    EXPECT_EQ(0, pFunction(&operation));
    EXPECT_FALSE(PathExists(sTree));
    operation.fFlags = 0;
    EXPECT_EQ(static_cast<int32_t>(ERROR_NOT_SUPPORTED), pFunction(&operation));
    FreeLibrary(hShell);
}

TEST_F(HostedModules, TheShellStartsProgramsOnThisMachine)
{
    const HMODULE hShell   = LoadLibraryW(u"shell32.dll");
    const auto    pExecute = reinterpret_cast<ShellExecuteAProc>(GetProcAddress(hShell, "ShellExecuteA"));
    const std::u16string sFolder = TestFolder();
    char                 szHost[4096];
    ASSERT_NE(nullptr, pExecute);
    ASSERT_TRUE(hosted::HostPath((sFolder + u"\\prog.exe").c_str(), szHost, sizeof szHost));
    std::ofstream(szHost) << "#!/bin/sh\nprintf '[%s]\\n' \"$@\" > out.new\necho $VORN_MACHINE >> out.new\n"
                             "mv out.new out.txt\n";
    std::filesystem::permissions(szHost, std::filesystem::perms::owner_all);
    const std::string sProgram = std::string(sFolder.begin(), sFolder.end()) + "\\PROG.exe"; // names have no case
    const std::string sWhere(sFolder.begin(), sFolder.end());

    const auto nResult = reinterpret_cast<uintptr_t>(
        pExecute(nullptr, "open", sProgram.c_str(), R"(server "C:\A b\c.dat" a\\"b c" "d\"e" "")", sWhere.c_str(), 0));
    EXPECT_GT(nResult, 32u);
    for (int i = 0; i < 1000 && !PathExists(sFolder + u"\\out.txt"); i++) Sleep(10);
    EXPECT_EQ("[server]\n[C:\\A b\\c.dat]\n[a\\b c]\n[d\"e]\n[]\n" + std::string(hosted::MachineFolder()) + "\n",
              ReadTestFile(sFolder + u"\\out.txt"));

    EXPECT_EQ(2u, reinterpret_cast<uintptr_t>(pExecute(nullptr, "open", "C:\\no such.exe", "", nullptr, 0)));
    hosted::FailCall("ShellExecuteA", 1, 5);
    EXPECT_EQ(5u, reinterpret_cast<uintptr_t>(pExecute(nullptr, "open", sProgram.c_str(), "", nullptr, 0)));
    FreeLibrary(hShell);

    // Programs that have ended leave no dead entry behind.
    siginfo_t  info;
    const auto fnHasChild = [&] { return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0; };
    for (int i = 0; i < 1000 && fnHasChild(); i++) Sleep(10);
    EXPECT_FALSE(fnHasChild());
}
