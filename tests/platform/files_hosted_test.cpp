// files_hosted_test.cpp: what only a hosted machine can be made to show: planted names, a full drive, names longer than
// the host's, other processes, and what Wine does not hold either (the limit of 260, read-only files against an
// administrator).
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/support/child_process_hosted.h"
#include "tests/support/test_machine.h"
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace platform;

namespace {

class HostedFiles : public MachineTest {};

std::string HostOf(const std::u16string &sPath)
{
    char sz[4096];
    EXPECT_TRUE(hosted::HostPath(sPath.c_str(), sz, sizeof(sz)));
    return sz;
}

void Plant(const std::string &sHost, const std::string &sContent)
{
    std::ofstream(sHost, std::ios::binary) << sContent;
}

uint32_t ErrorOf(bool bFailed)
{
    return bFailed ? GetLastError() : 0;
}

constexpr int NAMES = 200;

// Makes the files chFirst0, chFirst1, ... or opens them. 0 when all could be.
int MakeNumbered(char chFirst)
{
    for (int i = 0; i < NAMES; i++) {
        const std::string    sNarrow = chFirst + std::to_string(i);
        const std::u16string sName   = TestFolder() + u'\\' + std::u16string(sNarrow.begin(), sNarrow.end());
        PathExists(sName);
        const HANDLE hFile =
            CreateFileW(sName.c_str(), GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (hFile == INVALID_HANDLE_VALUE) return 1;
        CloseHandle(hFile);
    }
    return 0;
}

const ChildRole g_MakeRole("make numbered files", [](const std::string &sFirst) { return MakeNumbered(sFirst[0]); });

const ChildRole g_HoldFileRole("hold a file", [](const std::string &) {
    CreateFileW(u"C:\\vorn-test\\shared", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    SetEvent(OpenEventW(EVENT_MODIFY_STATE, FALSE, u"VORN ready"));
    Sleep(INFINITE);
    return 0;
});

} // namespace

TEST_F(HostedFiles, APlantedNameIsFoundInAnyCaseAlsoAfterAMiss)
{
    const std::u16string sFolder = TestFolder();
    const std::string    sHost   = HostOf(sFolder);
    for (int i = 0; i < 50; i++) {
        const std::u16string sName =
            sFolder + u"\\file" + static_cast<char16_t>(u'A' + i % 26) + static_cast<char16_t>(u'0' + i / 26);
        EXPECT_FALSE(PathExists(sName)); // makes the folder's index
        const std::string sPlanted = HostOf(sName);
        Plant(sHost + "/FILE" + sPlanted.substr(sPlanted.size() - 2), "planted");
        EXPECT_EQ("planted", ReadTestFile(sName)) << i;
    }
    for (const bool bRemove : {false, true}) { // a change of our own does not hide the one from outside before it
        const std::u16string sOwn = sFolder + u"\\own", sWanted = sFolder + (bRemove ? u"\\PLANTED2" : u"\\PLANTED1");
        EXPECT_FALSE(PathExists(sWanted));
        Plant(sHost + (bRemove ? "/planted2" : "/planted1"), "planted");
        if (bRemove) EXPECT_TRUE(DeleteFileW(sOwn.c_str()));
        else WriteTestFile(sOwn, "");
        EXPECT_EQ("planted", ReadTestFile(sWanted)) << bRemove;
    }
    mkdir((sHost + "/Sub").c_str(), 0777);
    Plant(sHost + "/Sub/X", "1");
    EXPECT_EQ("1", ReadTestFile(sFolder + u"\\SUB\\x"));
    ASSERT_EQ(0, rename((sHost + "/Sub").c_str(), (sHost + "/sUB").c_str()));
    EXPECT_EQ("1", ReadTestFile(sFolder + u"\\SUB\\x")) << "the remembered folder has another case now";
    EXPECT_EQ(sHost + "/sUB/none/Deep", HostOf(sFolder + u"\\sub\\none\\Deep"));
    Plant(sHost + "/both", "lower");
    Plant(sHost + "/Both", "upper");
    EXPECT_EQ("lower", ReadTestFile(sFolder + u"\\both")) << "the exact name comes first";
    EXPECT_EQ("upper", ReadTestFile(sFolder + u"\\Both"));
    EXPECT_EQ("upper", ReadTestFile(sFolder + u"\\BOTH")) << "then the first in order";
}

TEST_F(HostedFiles, FoldersThatOthersPutInEachOthersPlaceAreNotMistaken)
{
    const std::u16string sTop = TestFolder(), sIn = sTop + u"\\up\\in";
    const std::string    sHost = HostOf(sTop);
    const auto           make  = [&](const char *pszUp, const char *pszFile) {
        mkdir((sHost + pszUp).c_str(), 0777);
        mkdir((sHost + pszUp + "/in").c_str(), 0777);
        Plant(sHost + pszUp + "/in/" + pszFile, pszFile);
    };
    const auto missing = [&](const char16_t *pszName) { return ErrorOf(!PathExists(sIn + pszName)); };
    for (int i = 0; i < 20; i++) { // within a tick of the kernel's clock, as often as not
        make("/up", "First");
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, missing(u"\\second")); // makes the folder's index
        EXPECT_EQ("First", ReadTestFile(sIn + u"\\FIRST"));
        make("/other", "Second");
        ASSERT_EQ(0, rename((sHost + "/up").c_str(), (sHost + "/gone").c_str()));
        EXPECT_EQ(ERROR_PATH_NOT_FOUND, missing(u"\\second"));
        ASSERT_EQ(0, rename((sHost + "/other").c_str(), (sHost + "/up").c_str()));
        EXPECT_EQ("Second", ReadTestFile(sIn + u"\\second"));
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, missing(u"\\first"));
        const int nFd = open((sHost + "/up/in").c_str(), O_RDONLY | O_DIRECTORY); // somebody stands in it
        ASSERT_EQ(0, unlink((sHost + "/up/in/Second").c_str()));
        ASSERT_EQ(0, rmdir((sHost + "/up/in").c_str()));
        EXPECT_EQ(ERROR_PATH_NOT_FOUND, missing(u"\\third"));
        make("/up", "Third");
        EXPECT_EQ("Third", ReadTestFile(sIn + u"\\third"));
        close(nFd);
        for (const char *psz : {"/gone/in/First", "/up/in/Third"}) unlink((sHost + psz).c_str());
        for (const char *psz : {"/gone/in", "/gone", "/up/in", "/up"})
            ASSERT_EQ(0, rmdir((sHost + psz).c_str())) << psz;
        EXPECT_EQ(ERROR_PATH_NOT_FOUND, missing(u"\\third"));
    }
    make("/real", "Here");
    ASSERT_EQ(0, symlink("real", (sHost + "/up").c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, missing(u"\\there"));
    make("/new", "There");
    ASSERT_EQ(0, unlink((sHost + "/up").c_str()));
    ASSERT_EQ(0, symlink("new", (sHost + "/up").c_str()));
    EXPECT_EQ("There", ReadTestFile(sIn + u"\\there")) << "behind a link that names another folder now";
}

TEST_F(HostedFiles, TwoProcessesNeverMakeTwoNamesThatDifferInCaseOnly)
{
    const std::u16string sFolder = TestFolder();
    EXPECT_FALSE(PathExists(sFolder + u"\\x0")); // makes this process's index of the folder
    EXPECT_EQ(0, ChildProcess("make numbered files", "x").Wait());
    EXPECT_EQ(0, MakeNumbered('X'));
    EXPECT_EQ(NAMES + 2u, NamesOf(sFolder + u"\\*").size());
}

TEST_F(HostedFiles, SharingHoldsAcrossProcessesAndEndsWithThem)
{
    const std::u16string sFile  = TestFolder() + u"\\shared";
    const HANDLE         hReady = CreateEventW(nullptr, FALSE, FALSE, u"VORN ready");
    WriteTestFile(sFile, "x");
    ChildProcess child("hold a file");
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hReady, 60000));
    EXPECT_EQ("<missing>", ReadTestFile(sFile));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, GetLastError());
    EXPECT_EQ(ERROR_SHARING_VIOLATION, ErrorOf(!DeleteFileW(sFile.c_str())));
    child.Kill();
    EXPECT_EQ("x", ReadTestFile(sFile));
    CloseHandle(hReady);
}

TEST_F(HostedFiles, AFullDriveTakesWhatFitsAndNoMore)
{
    const std::u16string sFile = TestFolder() + u"\\f";
    hosted::SetDriveLimit('C', 100);
    const HANDLE      hFile = CreateFileW(sFile.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    const std::string sData(60, 'x');
    uint32_t          cb = 0;
    int64_t           n  = 0;
    EXPECT_TRUE(WriteFile(hFile, sData.data(), 60, &cb, nullptr));
    EXPECT_EQ(ERROR_DISK_FULL, ErrorOf(!WriteFile(hFile, sData.data(), 60, &cb, nullptr)));
    EXPECT_EQ(0u, cb);
    EXPECT_TRUE(SetFilePointerEx(hFile, 0, &n, FILE_BEGIN));
    EXPECT_TRUE(WriteFile(hFile, sData.data(), 60, &cb, nullptr)) << "written over: no room is needed";
    EXPECT_TRUE(WriteFile(hFile, sData.data(), 40, &cb, nullptr));
    EXPECT_EQ(ERROR_DISK_FULL, ErrorOf(!WriteFile(hFile, "x", 1, &cb, nullptr)));
    CloseHandle(hFile);
    EXPECT_EQ(100u, ReadTestFile(sFile).size());
}

TEST_F(HostedFiles, ReadOnlyHiddenAndSystemFilesRefuse)
{
    const std::u16string sFile = TestFolder() + u"\\f";
    const auto           open  = [&](uint32_t dwAccess, uint32_t dwDisposition, uint32_t dwFlags) {
        const HANDLE   hFile = CreateFileW(sFile.c_str(), dwAccess, 7, nullptr, dwDisposition, dwFlags, nullptr);
        const uint32_t dwError = ErrorOf(hFile == INVALID_HANDLE_VALUE);
        if (dwError == 0) CloseHandle(hFile);
        return dwError;
    };
    WriteTestFile(sFile, "abc");
    SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(ERROR_ACCESS_DENIED, open(GENERIC_WRITE, OPEN_EXISTING, 0));
    EXPECT_EQ(ERROR_ACCESS_DENIED, open(GENERIC_WRITE, CREATE_ALWAYS, 0));
    EXPECT_EQ(0u, open(GENERIC_READ, OPEN_EXISTING, 0));
    for (const uint32_t dwKept : {FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
        SetFileAttributesW(sFile.c_str(), dwKept);
        EXPECT_EQ(ERROR_ACCESS_DENIED, open(GENERIC_WRITE, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL)) << dwKept;
        EXPECT_EQ("abc", ReadTestFile(sFile)) << "a refusal cuts nothing";
        EXPECT_EQ(0u, open(GENERIC_WRITE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL)) << dwKept;
    }
    EXPECT_EQ(0u, open(GENERIC_WRITE, CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE,
              GetFileAttributesW(sFile.c_str()));
}

TEST_F(HostedFiles, PathsWithoutPrefixEndAt260)
{
    const std::u16string sFolder = TestFolder(); // 12 units
    const std::u16string sFits = sFolder + u'\\' + std::u16string(246, u'x'), sLong = sFits + u'x';
    WriteTestFile(sFits, "1");
    EXPECT_EQ("1", ReadTestFile(sFits));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, ErrorOf(ReadTestFile(sLong) == "<missing>"));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, ErrorOf(!PathExists(sLong)));
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE,
              ErrorOf(!CreateDirectoryW((sFolder + u'\\' + std::u16string(235, u'd')).c_str(), nullptr)));
    EXPECT_TRUE(CreateDirectoryW((sFolder + u'\\' + std::u16string(234, u'd')).c_str(), nullptr));
    EXPECT_EQ(ERROR_INVALID_NAME, ErrorOf(!PathExists(u"\\\\?\\" + sFolder + u'\\' + std::u16string(256, u'x'))));
    WriteTestFile(u"\\\\?\\" + sFolder + u"\\dot.", "dot");
    EXPECT_EQ("dot", ReadTestFile(u"\\\\?\\" + sFolder + u"\\dot."));
    EXPECT_EQ("<missing>", ReadTestFile(sFolder + u"\\dot.")) << "the dot is not part of the name here";
    WriteTestFile(sFolder + u"\\blank .. ", "b");
    EXPECT_EQ("b", ReadTestFile(sFolder + u"\\.\\x\\..\\blank"));
}

TEST_F(HostedFiles, NamesLongerThanTheHostsAreKeptWhole)
{
    const std::u16string sFolder = TestFolder(), sVerbatim = u"\\\\?\\" + sFolder + u'\\';
    const std::u16string sName = std::u16string(200, u'日') + u".txt", sOther(200, u'Ж'), sLower(200, u'ж');
    WriteTestFile(sVerbatim + sName, "long");
    WriteTestFile(sVerbatim + sOther, "cyrillic");
    WriteTestFile(sFolder + u"\\short", "s");
    EXPECT_EQ("long", ReadTestFile(sVerbatim + sName));
    EXPECT_EQ("cyrillic", ReadTestFile(sVerbatim + sLower)) << "without regard to case";
    EXPECT_EQ((std::vector<std::u16string>{u".", u"..", u"short", sOther, sName}), NamesOf(sFolder + u"\\*"));
    EXPECT_TRUE(MoveFileExW((sVerbatim + sOther).c_str(), (sVerbatim + sName).c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ("cyrillic", ReadTestFile(sVerbatim + sName));
    EXPECT_TRUE(MoveFileExW((sVerbatim + sName).c_str(), (sFolder + u"\\short2").c_str(), 0));
    EXPECT_EQ("cyrillic", ReadTestFile(sFolder + u"\\short2"));
    ASSERT_TRUE(CreateDirectoryW((sVerbatim + sLower).c_str(), nullptr));
    WriteTestFile(sVerbatim + sLower + u"\\in", "in");
    EXPECT_EQ("in", ReadTestFile(sVerbatim + sOther + u"\\in"));
}
