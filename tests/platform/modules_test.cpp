// modules_test.cpp: libraries bound at run time, and what their shell functions do.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/modules.h"
#include "platform/user_interface.h"
#include "tests/support/test_machine.h"

using namespace platform;

class Modules : public MachineTest {};

TEST_F(Modules, LibrariesAreFoundInTheSystemFolder)
{
    char16_t       szFolder[MAX_PATH];
    const uint32_t cch = GetSystemDirectoryW(szFolder, MAX_PATH);
    ASSERT_EQ(std::u16string(szFolder).size(), cch);
    const HMODULE hModule = LoadLibraryW((std::u16string(szFolder) + u"\\Wtsapi32.dll").c_str());
    EXPECT_NE(nullptr, GetProcAddress(hModule, "WTSRegisterSessionNotification"));
    EXPECT_EQ(nullptr, GetProcAddress(hModule, "NoSuchFunction"));
    EXPECT_EQ(ERROR_PROC_NOT_FOUND, GetLastError());
    EXPECT_TRUE(FreeLibrary(hModule));
    EXPECT_EQ(nullptr, LoadLibraryW((std::u16string(szFolder) + u"\\nosuch.dll").c_str()));
    EXPECT_EQ(ERROR_MOD_NOT_FOUND, GetLastError());
    EXPECT_EQ(nullptr, LoadLibraryW(u"C:\\nosuchfolder\\user32.dll"));
}

TEST_F(Modules, TheShellDeletesAWholeTreeSilently)
{
    const HMODULE hShell    = LoadLibraryW(u"shell32.dll");
    const auto    pFunction = reinterpret_cast<SHFileOperationWProc>(GetProcAddress(hShell, "SHFileOperationW"));
    ASSERT_NE(nullptr, pFunction);
    const std::u16string sTree = TestFolder() + u"\\tree", sKept = TestFolder() + u"\\tree2";
    ASSERT_TRUE(CreateDirectoryW(sTree.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((sTree + u"\\sub").c_str(), nullptr));
    WriteTestFile(sTree + u"\\sub\\plain.txt", "x");
    WriteTestFile(sTree + u"\\read-only.txt", "x");
    WriteTestFile(sKept, "stays");
    ASSERT_TRUE(
        SetFileAttributesW((sTree + u"\\read-only.txt").c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));

    SHFILEOPSTRUCTW      operation = {};
    const std::u16string sFrom     = sTree + u'\0'; // and the terminator of the list
    operation.wFunc                = FO_DELETE;
    operation.pFrom                = sFrom.c_str();
    operation.fFlags               = 0x0414;
    EXPECT_EQ(0, pFunction(&operation));
    EXPECT_FALSE(operation.fAnyOperationsAborted);
    EXPECT_FALSE(PathExists(sTree));
    EXPECT_TRUE(PathExists(sKept));
    EXPECT_NE(0, pFunction(&operation)) << "it is gone";
    ASSERT_TRUE(CreateDirectoryW((TestFolder() + u"\\TREE").c_str(), nullptr)) << "its name is free again";
    EXPECT_FALSE(PathExists(sTree + u"\\sub\\plain.txt"));
    FreeLibrary(hShell);
}
