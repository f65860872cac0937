// machine_text.cpp: texts, small files and folders of this machine.
#include "tools/migrate/machine_text.h"
#include "migration/machine_info.h"
#include "migration/state_files.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/profile.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tools/record_text.h"
#include <algorithm>

using namespace platform;

constexpr char EXCHANGE_FOLDER[] = "\\migrate\\";

std::u16string OpenForm(const std::string &sPath)
{
    char16_t szLong[LONG_PATH_UNITS];
    return LongPathForm(ToWide(sPath).c_str(), MAX_PATH - 12, szLong);
}

std::string FoldName(const std::string &sText)
{
    std::u16string sWide = ToWide(sText);
    for (char16_t &ch : sWide) ch = FoldCaseW(ch);
    return ToUtf8(sWide.c_str(), sWide.size());
}

bool SameName(const std::string &sLeft, const std::string &sRight)
{
    return CompareTextNoCaseW(ToWide(sLeft).c_str(), ToWide(sRight).c_str()) == 0;
}

std::string JoinPath(const std::string &sFolder, const std::string &sName)
{
    return sFolder.empty() || sFolder.back() == '\\' ? sFolder + sName : sFolder + "\\" + sName;
}

std::string ParentOf(const std::string &sPath)
{
    const size_t n = sPath.rfind('\\');
    return n == std::string::npos ? "" : sPath.substr(0, n);
}

std::string BaseName(const std::string &sPath)
{
    return sPath.substr(sPath.rfind('\\') + 1); // npos + 1 is 0
}

std::string WithoutBackslash(std::string sPath)
{
    while (!sPath.empty() && sPath.back() == '\\') sPath.pop_back();
    return sPath;
}

bool IsPlainPath(const std::string &sPath)
{
    if (sPath.size() < 3 || sPath.size() > 3000 || sPath[1] != ':' || sPath[2] != '\\') return false;
    const char chDrive = static_cast<char>(sPath[0] | 0x20);
    if (chDrive < 'a' || chDrive > 'z') return false;
    for (size_t nStart = 3; nStart < sPath.size();) {
        const size_t      nEnd  = std::min(sPath.find('\\', nStart), sPath.size());
        const std::string sPart = sPath.substr(nStart, nEnd - nStart);
        if (sPart.empty() || sPart == "." || sPart == "..") return false;
        for (const char ch : sPart)
            if (static_cast<unsigned char>(ch) < 32 || std::string("<>:\"/|?*").find(ch) != std::string::npos)
                return false;
        nStart = nEnd + 1;
    }
    return true;
}

bool ReadSmallFile(const std::string &sPath, uint64_t cbMost, std::string *psContent)
{
    const HANDLE hFile = CreateFileW(OpenForm(sPath).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return false;
    int64_t  cb     = 0;
    uint32_t cbRead = 0;
    bool     bDone  = GetFileSizeEx(hFile, &cb) && static_cast<uint64_t>(cb) <= cbMost;
    if (bDone) {
        psContent->resize(static_cast<size_t>(cb));
        bDone = cb == 0 || (ReadFile(hFile, psContent->data(), static_cast<uint32_t>(cb), &cbRead, nullptr) &&
                            cbRead == static_cast<uint32_t>(cb));
    }
    CloseHandle(hFile);
    return bDone;
}

bool WriteSmallFile(const std::string &sPath, const std::string &sContent)
{
    CreateDirectoryWithParents(ToWide(ParentOf(sPath)).c_str());
    const HANDLE hFile =
        CreateFileW(OpenForm(sPath).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return false;
    uint32_t   cbWritten = 0;
    const auto cb        = static_cast<uint32_t>(sContent.size());
    const bool bDone     = cb == 0 || (WriteFile(hFile, sContent.data(), cb, &cbWritten, nullptr) && cbWritten == cb);
    CloseHandle(hFile);
    return bDone;
}

void DeleteSmallFile(const std::string &sPath)
{
    DeleteFileW(OpenForm(sPath).c_str());
}

bool WriteLines(const std::string &sPath, const std::vector<std::string> &lines)
{
    std::u16string sText = u"\xFEFF";
    for (const std::string &sLine : lines) sText += ToWide(sLine) + u"\r\n";
    std::string sBytes;
    for (const char16_t ch : sText) {
        sBytes += static_cast<char>(ch & 0xFF);
        sBytes += static_cast<char>(ch >> 8);
    }
    return WriteSmallFile(sPath, sBytes);
}

bool PathExists(const std::string &sPath, bool *pbFolder)
{
    const uint32_t dwAttributes = GetFileAttributesW(OpenForm(sPath).c_str());
    if (pbFolder != nullptr)
        *pbFolder = dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return dwAttributes != INVALID_FILE_ATTRIBUTES;
}

std::string ProgressFolder()
{
    return GetProgressFolder() ? ToUtf8(g_szProgressFolder, STATE_PATH_UNITS) : "";
}

std::string MappingFolder()
{
    char16_t szFolder[STATE_PATH_UNITS];
    return GetMappingFolder(szFolder) ? ToUtf8(szFolder, STATE_PATH_UNITS) : "";
}

std::string ExchangeFile(const std::string &sName)
{
    return MappingFolder() + EXCHANGE_FOLDER + sName;
}

std::string ApplicationDataRoot()
{
    char16_t *pszProfile = nullptr;
    if (SHGetKnownFolderPath(FOLDERID_Profile, 0, nullptr, &pszProfile) < 0) pszProfile = nullptr;
    const std::string sProfile = pszProfile != nullptr ? ToUtf8(pszProfile, MAX_PATH) : "";
    CoTaskMemFree(pszProfile);
    return JoinPath(sProfile, "AppData\\Roaming"); // no backslash at its end: the mapping folder has none either
}

std::string PeerName()
{
    char16_t szFile[STATE_PATH_UNITS], szName[MACHINE_TEXT_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szFile);
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, u"", szName, MACHINE_TEXT_UNITS, szFile);
    return ToUtf8(szName, MACHINE_TEXT_UNITS);
}
