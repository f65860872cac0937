// shell_folders.cpp: known folders, the computer's name, system folders.
// As with Windows' default flags, a known folder that does not exist on disk is not resolved; SHGetSpecialFolderPathA
// makes it when asked to.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/shell.h"
#include "platform/text.h"
#include <cerrno>
#include <cstring>

namespace {

using namespace platform;

constexpr HRESULT RESULT_INVALID_ARGUMENT = static_cast<HRESULT>(0x80070057);

struct NamedFolder {
    const GUID *pId;
    const char *pszName;
};
const NamedFolder g_aFolders[] = {
    {&FOLDERID_Windows, "Windows"},
    {&FOLDERID_ProgramFilesX86, "ProgramFilesX86"},
    {&FOLDERID_ProgramFilesX64, "ProgramFilesX64"},
    {&FOLDERID_ProgramData, "ProgramData"},
    {&FOLDERID_Public, "Public"},
    {&FOLDERID_Profile, "Profile"},
    {&FOLDERID_UserProfiles, "UserProfiles"},
    {&FOLDERID_Desktop, "Desktop"},
    {&FOLDERID_Documents, "Documents"},
    {&FOLDERID_Pictures, "Pictures"},
};

HRESULT ResultFromError(uint32_t dwError)
{
    return static_cast<HRESULT>((dwError & 0x80000000) != 0 ? dwError : 0x80070000 | (dwError & 0xFFFF));
}

// 0 and the path, or an error.
uint32_t Resolve(const char *pszName, std::u16string *psPath)
{
    const std::string sPath = hosted::KnownFolderSetting(pszName);
    hosted::DiskPath  path;
    hosted::Located   found;
    if (sPath.empty()) return ERROR_FILE_NOT_FOUND;
    *psPath = hosted::ToUtf16(sPath);
    if (const uint32_t dwError = hosted::ParsePath(psPath->c_str(), &path, 0)) return dwError;
    if (const uint32_t dwError = hosted::Locate(path, &found)) return dwError;
    return found.IsFolder() ? 0 : ERROR_FILE_NOT_FOUND;
}

} // namespace

platform::BOOL platform::SHGetSpecialFolderPathA(HWND, char *pszPath, int32_t nCsidl, BOOL bCreate)
{
    if (hosted::FailsNow("SHGetSpecialFolderPathA")) return FALSE;
    std::u16string sPath;
    pszPath[0]       = '\0';
    uint32_t dwError = ERROR_NOT_SUPPORTED;
    if (nCsidl == CSIDL_COMMON_APPDATA) dwError = Resolve("ProgramData", &sPath);
    if (bCreate && (dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND))
        dwError = static_cast<uint32_t>(CreateDirectoryWithParents(sPath.c_str()));
    if (dwError == 0 && CopyTextA(pszPath, MAX_PATH, hosted::ToUtf8(sPath).c_str())) return TRUE;
    hosted::SetError(dwError != 0 ? dwError : ERROR_INSUFFICIENT_BUFFER);
    pszPath[0] = '\0';
    return FALSE;
}

platform::HRESULT platform::SHGetKnownFolderPath(const GUID &rfid, uint32_t dwFlags, HANDLE hToken, char16_t **ppszPath)
{
    *ppszPath        = nullptr;
    uint32_t dwError = 0;
    if (hosted::FailsNow("SHGetKnownFolderPath", &dwError)) return ResultFromError(dwError);
    if (dwFlags != 0 || hToken != nullptr) return ResultFromError(ERROR_NOT_SUPPORTED);
    for (const NamedFolder &folder : g_aFolders) {
        if (std::memcmp(folder.pId, &rfid, sizeof(rfid)) != 0) continue;
        std::u16string sPath;
        if ((dwError = Resolve(folder.pszName, &sPath)) != 0) return ResultFromError(dwError);
        *ppszPath = static_cast<char16_t *>(hosted::AllocBlock((sPath.size() + 1) * sizeof(char16_t)));
        if (*ppszPath == nullptr) return ResultFromError(ERROR_NOT_ENOUGH_MEMORY);
        CopyTextW(*ppszPath, sPath.size() + 1, sPath.c_str());
        return S_OK;
    }
    return RESULT_INVALID_ARGUMENT;
}

void platform::CoTaskMemFree(void *pMem)
{
    hosted::FreeBlock(pMem);
}

platform::BOOL platform::PathMakeSystemFolderW(const char16_t *pszPath)
{
    if (hosted::FailsNow("PathMakeSystemFolderW")) return FALSE;
    hosted::DiskPath path;
    hosted::Located  found;
    uint32_t         dwError = hosted::ParsePath(pszPath, &path);
    if (dwError == 0) dwError = hosted::Locate(path, &found);
    if (dwError == 0 && !found.bExists) dwError = ERROR_FILE_NOT_FOUND;
    if (dwError == 0 && !found.IsFolder()) dwError = ERROR_DIRECTORY;
    if (dwError == 0) {
        const hosted::MarkedFile file         = {found.sHost.c_str()};
        const uint32_t           dwAttributes = hosted::AttributesOf(file, found.st, found.bLink);
        if (hosted::SetAttributesOf(file, found.st, dwAttributes | FILE_ATTRIBUTE_READONLY)) return TRUE;
        dwError = hosted::ErrorFromErrno(errno);
    }
    hosted::SetError(dwError);
    return FALSE;
}

platform::BOOL platform::GetComputerNameW(char16_t *pszBuffer, uint32_t *pcch)
{
    if (hosted::FailsNow("GetComputerNameW")) return FALSE;
    const std::u16string sName = hosted::ToUtf16(hosted::MachineSetting("machine", "computer", "HOSTED-PC"));
    if (pszBuffer == nullptr || *pcch <= sName.size()) {
        *pcch = static_cast<uint32_t>(sName.size() + 1);
        hosted::SetError(ERROR_BUFFER_OVERFLOW);
        return FALSE;
    }
    CopyTextW(pszBuffer, *pcch, sName.c_str());
    *pcch = static_cast<uint32_t>(sName.size());
    return TRUE;
}
