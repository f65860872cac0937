// modules_hosted_test.cpp: functions without behaviour, and trees with a file in use.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "platform/user_interface.h"
#include "tests/support/test_machine.h"

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
