// test_machine.cpp: what both backends do alike, through the platform interfaces.
#include "tests/support/test_machine.h"
#include "platform/errors.h"
#include "platform/files.h"

using namespace platform;

std::u16string TestFolder()
{
    static const char16_t *const s_pszFolder = u"C:\\vorn-test"; // emptied by FreshMachine
    EXPECT_TRUE(CreateDirectoryW(s_pszFolder, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) << GetLastError();
    SetLastError(0);
    return s_pszFolder;
}

void WriteTestFile(const std::u16string &sPath, const std::string &sContent)
{
    const HANDLE hFile =
        CreateFileW(sPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hFile) << GetLastError();
    uint32_t cbWritten = 0;
    EXPECT_TRUE(WriteFile(hFile, sContent.data(), static_cast<uint32_t>(sContent.size()), &cbWritten, nullptr));
    EXPECT_EQ(sContent.size(), cbWritten);
    EXPECT_TRUE(CloseHandle(hFile));
}

std::string ReadTestFile(const std::u16string &sPath)
{
    const HANDLE hFile =
        CreateFileW(sPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return "<missing>";
    std::string sContent;
    char        aPiece[65536];
    uint32_t    cbRead = 0;
    while (ReadFile(hFile, aPiece, sizeof(aPiece), &cbRead, nullptr) && cbRead > 0) sContent.append(aPiece, cbRead);
    EXPECT_TRUE(CloseHandle(hFile));
    return sContent;
}

bool PathExists(const std::u16string &sPath)
{
    return GetFileAttributesW(sPath.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::u16string> NamesOf(const std::u16string &sPattern)
{
    std::vector<std::u16string> aNames;
    WIN32_FIND_DATAW            data;
    const HANDLE                hFind = FindFirstFileW(sPattern.c_str(), &data);
    if (hFind == INVALID_HANDLE_VALUE) return aNames;
    do aNames.push_back(data.cFileName);
    while (FindNextFileW(hFind, &data));
    EXPECT_EQ(ERROR_NO_MORE_FILES, GetLastError());
    EXPECT_TRUE(FindClose(hFind));
    return aNames;
}
