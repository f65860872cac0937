// file_names.cpp: what is done with a file or folder by its name: attributes, delete, move, make, remove.
// Replacing a file by MoveFileExW keeps the replaced name's letter case, so that the exchange is one step of the host.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "platform/tool_seam.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace platform;
using hosted::DiskPath;
using hosted::Located;

constexpr uint32_t ERROR_BAD_PATHNAME    = 161;
constexpr uint32_t ERROR_NOT_SAME_DEVICE = 17;

BOOL Fail(uint32_t dwError)
{
    hosted::SetError(dwError);
    return FALSE;
}

BOOL FailFromErrno()
{
    return Fail(hosted::ErrorFromErrno(errno));
}

// Parses and finds a name that must exist. 0 or an error.
uint32_t Find(const char16_t *pszPath, DiskPath *pPath, Located *pFound)
{
    if (const uint32_t dwError = hosted::ParsePath(pszPath, pPath)) return dwError;
    if (const uint32_t dwError = hosted::Locate(*pPath, pFound)) return dwError;
    if (!pFound->bExists) return ERROR_FILE_NOT_FOUND;
    if (pPath->bEndsInBackslash && !pFound->IsFolder()) return ERROR_INVALID_NAME;
    return 0;
}

bool IsLongName(const Located &found)
{
    return found.sHost.compare(found.sFolder.size() + 1, hosted::LONG_NAME_PREFIX.size(), hosted::LONG_NAME_PREFIX) ==
           0;
}

std::string LeafText(const DiskPath &path)
{
    return hosted::ToUtf8(std::u16string_view(path.sFull).substr(path.LeafAt()));
}

// What a replaced or deleted file must allow: it is no folder, not read-only, and nobody holds it without sharing
// deletion.
uint32_t CheckRemovable(const Located &found)
{
    if (found.IsFolder() && !found.bLink) return ERROR_ACCESS_DENIED;
    if ((hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink) & FILE_ATTRIBUTE_READONLY) != 0)
        return ERROR_ACCESS_DENIED;
    if (!S_ISREG(found.st.st_mode)) return 0;
    return hosted::TestSharing(found.sHost.c_str(), -1, found.st, hosted::SHARE_DELETE, 7);
}

BOOL DeleteOne(const char16_t *pszFileName)
{
    DiskPath path;
    Located  found;
    uint32_t dwError = Find(pszFileName, &path, &found);
    if (dwError == 0) dwError = CheckRemovable(found);
    if (dwError != 0) return Fail(dwError);
    if (unlink(found.sHost.c_str()) != 0) return FailFromErrno();
    hosted::Generation(hosted::Generations::Files, hosted::HashFolded(path.sFull))++;
    return TRUE;
}

// Makes one folder. 0 or an error.
uint32_t MakeFolder(const DiskPath &path, SECURITY_ATTRIBUTES *pSecurity)
{
    Located found;
    if (const uint32_t dwError = hosted::Locate(path, &found)) return dwError;
    if (found.bExists) return ERROR_ALREADY_EXISTS;
    if (mkdir(found.sHost.c_str(), 0777) != 0)
        return errno == EEXIST ? ERROR_ALREADY_EXISTS : hosted::ErrorFromErrno(errno);
    const hosted::MarkedFile file = {found.sHost.c_str()};
    if ((pSecurity != nullptr && !WriteHexMark(file, hosted::MARK_EVERYONE, pSecurity->dwEveryoneAccess)) ||
        (IsLongName(found) && !WriteMark(file, hosted::MARK_NAME, LeafText(path)))) {
        const uint32_t dwError = hosted::ErrorFromErrno(errno);
        rmdir(found.sHost.c_str());
        return dwError;
    }
    return 0;
}

uint32_t MoveOne(const char16_t *pszFrom, const char16_t *pszTo, bool bReplace)
{
    DiskPath from, to;
    Located  source, target;
    if (const uint32_t dwError = Find(pszFrom, &from, &source)) return dwError;
    if (const uint32_t dwError = hosted::ParsePath(pszTo, &to)) return dwError;
    if (const uint32_t dwError = hosted::Locate(to, &target)) return dwError;
    if (from.IsRoot() || to.IsRoot()) return ERROR_ACCESS_DENIED;
    if (from.Drive() != to.Drive()) return ERROR_NOT_SAME_DEVICE;
    if (S_ISREG(source.st.st_mode))
        if (const uint32_t dwError = hosted::TestSharing(source.sHost.c_str(), -1, source.st, hosted::SHARE_DELETE, 7))
            return dwError;
    const bool bSame = target.bExists && target.sHost == source.sHost; // the letter case alone changes
    if (bSame) {
        const std::string sNew = hosted::HostName(std::u16string_view(to.sFull).substr(to.LeafAt()));
        target.sHost           = target.sFolder + '/' + sNew;
    } else if (target.bExists) {
        if (!bReplace) return ERROR_ALREADY_EXISTS;
        if (source.IsFolder() || CheckRemovable(target) != 0) return ERROR_ACCESS_DENIED;
    }
    const bool bReplaces = target.bExists && !bSame;
    if (IsLongName(target) && !hosted::WriteMark({source.sHost.c_str()}, hosted::MARK_NAME, LeafText(to)))
        return hosted::ErrorFromErrno(errno);
    int nResult =
        renameat2(AT_FDCWD, source.sHost.c_str(), AT_FDCWD, target.sHost.c_str(), bReplaces ? 0 : RENAME_NOREPLACE);
    if (nResult != 0 && errno == EINVAL && !bReplaces && !source.IsFolder()) // a file system without that option
        nResult = rename(source.sHost.c_str(), target.sHost.c_str());
    if (nResult != 0) return errno == EEXIST && !bSame ? ERROR_ALREADY_EXISTS : hosted::ErrorFromErrno(errno);
    if (IsLongName(source) && !IsLongName(target)) hosted::RemoveMark({target.sHost.c_str()}, hosted::MARK_NAME);
    if (source.IsFolder()) hosted::ForgetFolders();
    else hosted::IndexGains(target.sFolder, std::u16string_view(to.sFull).substr(to.LeafAt()));
    hosted::Generation(hosted::Generations::Files, hosted::HashFolded(from.sFull))++;
    hosted::Generation(hosted::Generations::Files, hosted::HashFolded(to.sFull))++;
    return 0;
}

} // namespace

uint32_t platform::GetFileAttributesW(const char16_t *pszFileName)
{
    if (hosted::FailsNow("GetFileAttributesW")) return INVALID_FILE_ATTRIBUTES;
    DiskPath path;
    Located  found;
    if (const uint32_t dwError = Find(pszFileName, &path, &found)) {
        hosted::SetError(dwError);
        return INVALID_FILE_ATTRIBUTES;
    }
    return hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink);
}

platform::BOOL platform::SetFileAttributesW(const char16_t *pszFileName, uint32_t dwFileAttributes)
{
    if (hosted::FailsNow("SetFileAttributesW")) return FALSE;
    DiskPath path;
    Located  found;
    if (const uint32_t dwError = Find(pszFileName, &path, &found)) return Fail(dwError);
    if (!hosted::SetAttributesOf({found.sHost.c_str()}, found.st, dwFileAttributes)) return FailFromErrno();
    hosted::Generation(hosted::Generations::Files,
                       hosted::HashFolded(path.sFull))++; // the INI store remembers read-only
    return TRUE;
}

platform::BOOL platform::GetFileAttributesExW(const char16_t *pszFileName, GET_FILEEX_INFO_LEVELS eLevel,
                                              void *pInformation)
{
    if (hosted::FailsNow("GetFileAttributesExW")) return FALSE;
    if (eLevel != GetFileExInfoStandard) return Fail(ERROR_INVALID_PARAMETER);
    DiskPath path;
    Located  found;
    if (const uint32_t dwError = Find(pszFileName, &path, &found)) return Fail(dwError);
    WIN32_FILE_ATTRIBUTE_DATA *pData = static_cast<WIN32_FILE_ATTRIBUTE_DATA *>(pInformation);
    const int64_t              cb    = found.IsFolder() ? 0 : found.st.st_size;
    *pData                           = {};
    pData->dwFileAttributes          = hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink);
    pData->ftLastAccessTime          = hosted::FileTime(found.st.st_atim);
    pData->ftLastWriteTime           = hosted::FileTime(found.st.st_mtim);
    pData->ftCreationTime            = hosted::FileTime(found.tCreated);
    pData->nFileSizeHigh             = static_cast<uint32_t>(cb >> 32);
    pData->nFileSizeLow              = static_cast<uint32_t>(cb);
    return TRUE;
}

platform::BOOL platform::DeleteFileW(const char16_t *pszFileName)
{
    if (hosted::FailsNow("DeleteFileW")) return FALSE;
    return DeleteOne(pszFileName);
}

platform::BOOL platform::DeleteFileA(const char *pszFileName)
{
    if (hosted::FailsNow("DeleteFileA")) return FALSE;
    if (pszFileName == nullptr) return Fail(ERROR_PATH_NOT_FOUND);
    return DeleteOne(hosted::ToUtf16(pszFileName).c_str());
}

platform::BOOL platform::CreateDirectoryW(const char16_t *pszPathName, SECURITY_ATTRIBUTES *pSecurity)
{
    if (hosted::FailsNow("CreateDirectoryW")) return FALSE;
    DiskPath path;
    uint32_t dwError = hosted::ParsePath(pszPathName, &path, 0);
    if (dwError == 0 && !path.bVerbatim && path.sFull.size() >= hosted::DIRECTORY_LIMIT)
        dwError = ERROR_FILENAME_EXCED_RANGE;
    if (dwError == 0) dwError = MakeFolder(path, pSecurity);
    return dwError == 0 ? TRUE : Fail(dwError);
}

platform::BOOL platform::RemoveDirectoryW(const char16_t *pszPathName)
{
    if (hosted::FailsNow("RemoveDirectoryW")) return FALSE;
    DiskPath path;
    Located  found;
    if (const uint32_t dwError = Find(pszPathName, &path, &found)) return Fail(dwError);
    if (!found.IsFolder()) return Fail(ERROR_DIRECTORY);
    if (path.IsRoot()) return Fail(ERROR_ACCESS_DENIED);
    if ((hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink) & FILE_ATTRIBUTE_READONLY) != 0)
        return Fail(ERROR_ACCESS_DENIED);
    if ((found.bLink ? unlink(found.sHost.c_str()) : rmdir(found.sHost.c_str())) != 0) return FailFromErrno();
    hosted::ForgetFolders();
    return TRUE;
}

platform::BOOL platform::MoveFileExW(const char16_t *pszExistingFileName, const char16_t *pszNewFileName,
                                     uint32_t dwFlags)
{
    if (hosted::FailsNow("MoveFileExW")) return FALSE;
    if ((dwFlags & ~MOVEFILE_REPLACE_EXISTING) != 0) return Fail(ERROR_NOT_SUPPORTED);
    const uint32_t dwError = MoveOne(pszExistingFileName, pszNewFileName, dwFlags != 0);
    return dwError == 0 ? TRUE : Fail(dwError);
}

int32_t platform::CreateDirectoryWithParents(const char16_t *pszPath)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("CreateDirectoryWithParents", &dwError)) return static_cast<int32_t>(dwError);
    if (pszPath == nullptr || (pszPath[0] != u'\\' && (pszPath[0] == 0 || pszPath[1] != u':' || pszPath[2] != u'\\')))
        return ERROR_BAD_PATHNAME;
    DiskPath path;
    dwError = hosted::ParsePath(pszPath, &path, 0);
    if (dwError != 0) return static_cast<int32_t>(dwError);
    if (TextLengthW(pszPath) >= hosted::DIRECTORY_LIMIT) return ERROR_FILENAME_EXCED_RANGE;
    for (size_t nEnd = 3;; nEnd++) {
        nEnd            = std::min(path.sFull.find(u'\\', nEnd), path.sFull.size());
        DiskPath part   = path;
        part.sFull      = path.sFull.substr(0, nEnd);
        const bool bAll = nEnd == path.sFull.size();
        dwError         = MakeFolder(part, nullptr);
        if (dwError != 0 && (bAll || dwError != ERROR_ALREADY_EXISTS)) break;
        if (bAll) return ERROR_SUCCESS;
    }
    if (dwError == ERROR_ALREADY_EXISTS) {
        Located found;
        if (hosted::Locate(path, &found) == 0 && found.bExists && !found.IsFolder()) dwError = ERROR_FILE_EXISTS;
    }
    return static_cast<int32_t>(dwError);
}
