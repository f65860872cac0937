// file_find.cpp: enumerating a folder.
// All names are read at the start and sorted as NTFS keeps them; what is told of each is looked up when it is handed
// out, so that a file that went in between is left out and one that grew has its new size. Names that Windows could not
// have (made by a program outside the machine) are listed too: a caller then fails on them and says so, instead of
// losing them silently. Patterns other than "*", "*.*" and a plain name fail with ERROR_NOT_SUPPORTED.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <vector>

namespace hosted {
namespace {

using namespace platform;

struct FindObject : KernelObject {
    FindObject() : KernelObject(HandleKind::Find) {}
    std::string           sFolder;
    std::string           sNames; // host names, each terminated: one block, as a folder may hold very many
    std::vector<uint32_t> aAt;    // where each starts, in order
    size_t                nNext = 0;
};

// False when the entry is gone, or its name does not fit the structure.
bool FillEntry(const std::string &sFolder, const char *pszHostName, WIN32_FIND_DATAW *pData)
{
    Located found;
    *pData      = {};
    found.sHost = sFolder + '/' + pszHostName;
    if (!Look(&found)) return false;
    const uint64_t cb       = found.IsFolder() ? 0 : static_cast<uint64_t>(found.st.st_size);
    pData->dwFileAttributes = AttributesOf({found.sHost.c_str()}, found.st, found.bLink);
    pData->ftCreationTime   = FileTime(found.tCreated);
    pData->ftLastAccessTime = FileTime(found.st.st_atim);
    pData->ftLastWriteTime  = FileTime(found.st.st_mtim);
    pData->nFileSizeHigh    = static_cast<uint32_t>(cb >> 32);
    pData->nFileSizeLow     = static_cast<uint32_t>(cb);
    if (found.bLink) pData->dwReserved0 = IO_REPARSE_TAG_SYMLINK;
    return CopyTextW(pData->cFileName, MAX_PATH, WindowsName(sFolder, pszHostName).c_str());
}

// A unit for ordering: NTFS compares 16-bit units of folded names, which for most names is the order of these values.
bool ComesBefore(const char *pszLeft, const char *pszRight)
{
    const auto *pLeft  = reinterpret_cast<const unsigned char *>(pszLeft),
               *pRight = reinterpret_cast<const unsigned char *>(pszRight);
    for (;; pLeft++, pRight++) {
        const unsigned chLeft = *pLeft, chRight = *pRight;
        if (chLeft >= 0x80 || chRight >= 0x80) break;
        const unsigned nLeft  = FoldCaseW(static_cast<char16_t>(chLeft)),
                       nRight = FoldCaseW(static_cast<char16_t>(chRight));
        if (nLeft != nRight) return nLeft < nRight;
        if (chLeft == 0)
            return std::strcmp(pszLeft, pszRight) < 0; // two that differ in case only: planted from outside
    }
    const std::u16string sLeft  = ToUtf16(reinterpret_cast<const char *>(pLeft));
    const std::u16string sRight = ToUtf16(reinterpret_cast<const char *>(pRight));
    const int32_t        n      = CompareTextNoCaseW(sLeft.c_str(), sRight.c_str());
    return n != 0 ? n < 0 : std::strcmp(pszLeft, pszRight) < 0;
}

// 0, or an error. Long names sort by their stored form; with them the order is made of the names themselves.
uint32_t ReadNames(FindObject *pFind, bool bDots)
{
    DIR *pDir = opendir(pFind->sFolder.c_str());
    if (pDir == nullptr)
        return errno == ENOTDIR ? ERROR_DIRECTORY : errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
    bool bLongNames = false;
    errno           = 0;
    while (const dirent *pEntry = readdir(pDir)) {
        const std::string_view sName = pEntry->d_name;
        if (sName == "." || sName == "..") continue;
        bLongNames = bLongNames || sName.substr(0, LONG_NAME_PREFIX.size()) == LONG_NAME_PREFIX;
        pFind->aAt.push_back(static_cast<uint32_t>(pFind->sNames.size()));
        pFind->sNames.append(pEntry->d_name, sName.size() + 1);
        errno = 0;
    }
    const int nErrno = errno;
    closedir(pDir);
    if (nErrno != 0) return ErrorFromErrno(nErrno);
    const char *pszNames = pFind->sNames.data();
    if (!bLongNames) {
        std::sort(pFind->aAt.begin(), pFind->aAt.end(),
                  [&](uint32_t n, uint32_t m) { return ComesBefore(pszNames + n, pszNames + m); });
    } else {
        std::vector<std::pair<std::u16string, uint32_t>> aNames;
        for (const uint32_t n : pFind->aAt) aNames.emplace_back(WindowsName(pFind->sFolder, pszNames + n), n);
        std::sort(aNames.begin(), aNames.end(), [](const auto &a, const auto &b) {
            const int32_t n = CompareTextNoCaseW(a.first.c_str(), b.first.c_str());
            return n != 0 ? n < 0 : a.first < b.first;
        });
        for (size_t i = 0; i < aNames.size(); i++) pFind->aAt[i] = aNames[i].second;
    }
    if (bDots) {
        const uint32_t nDot = static_cast<uint32_t>(pFind->sNames.size());
        pFind->sNames.append(".\0..\0", 5);
        pFind->aAt.insert(pFind->aAt.begin(), {nDot, nDot + 2});
    }
    return 0;
}

bool NextEntry(FindObject *pFind, WIN32_FIND_DATAW *pData)
{
    while (pFind->nNext < pFind->aAt.size())
        if (FillEntry(pFind->sFolder, pFind->sNames.c_str() + pFind->aAt[pFind->nNext++], pData)) return true;
    return false;
}

uint32_t FindAll(const DiskPath &folder, FindObject *pFind, WIN32_FIND_DATAW *pData)
{
    Located found;
    if (const uint32_t dwError = Locate(folder, &found)) return dwError;
    if (!found.bExists) return ERROR_PATH_NOT_FOUND;
    if (!found.IsFolder()) return ERROR_DIRECTORY;
    pFind->sFolder = found.sHost;
    if (const uint32_t dwError = ReadNames(pFind, !folder.IsRoot())) return dwError;
    return NextEntry(pFind, pData) ? 0 : ERROR_FILE_NOT_FOUND; // an empty drive
}

uint32_t FindOne(const DiskPath &path, WIN32_FIND_DATAW *pData)
{
    Located found;
    if (const uint32_t dwError = Locate(path, &found)) return dwError;
    if (path.IsRoot() || path.bEndsInBackslash || !found.bExists) return ERROR_FILE_NOT_FOUND;
    return FillEntry(found.sFolder, found.sHost.c_str() + found.sFolder.size() + 1, pData) ? 0 : ERROR_FILE_NOT_FOUND;
}

uint32_t StartFind(const char16_t *pszFileName, FindObject *pFind, WIN32_FIND_DATAW *pData)
{
    if (pszFileName == nullptr) return ERROR_PATH_NOT_FOUND;
    std::u16string sPath = pszFileName;
    const size_t   nLast = sPath.find_last_of(u"\\/:");
    const size_t   nLeaf = nLast == std::u16string::npos ? 0 : nLast + 1;
    const auto     sLeaf = std::u16string_view(sPath).substr(nLeaf);
    const bool     bAll  = sLeaf == u"*" || sLeaf == u"*.*";
    DiskPath       path;
    if (!bAll && sLeaf.find_first_of(u"*?") != std::u16string::npos) return ERROR_NOT_SUPPORTED;
    if (bAll && sPath.size() >= PATH_LIMIT && sPath.compare(0, 4, u"\\\\?\\") != 0) return ERROR_PATH_NOT_FOUND;
    if (bAll) {
        sPath.resize(nLeaf);
        if (sPath.empty()) sPath = u".";
    }
    if (const uint32_t dwError = ParsePath(sPath.c_str(), &path)) return dwError;
    return bAll ? FindAll(path, pFind, pData) : FindOne(path, pData);
}

} // namespace

} // namespace hosted

platform::HANDLE platform::FindFirstFileW(const char16_t *pszFileName, WIN32_FIND_DATAW *pFindData)
{
    if (hosted::FailsNow("FindFirstFileW")) return INVALID_HANDLE_VALUE;
    auto pFind = std::make_shared<hosted::FindObject>();
    if (const uint32_t dwError = hosted::StartFind(pszFileName, pFind.get(), pFindData)) {
        hosted::SetError(dwError);
        return INVALID_HANDLE_VALUE;
    }
    return hosted::AddHandle(std::move(pFind));
}

platform::BOOL platform::FindNextFileW(HANDLE hFindFile, WIN32_FIND_DATAW *pFindData)
{
    if (hosted::FailsNow("FindNextFileW")) return FALSE;
    const std::shared_ptr<hosted::FindObject> pFind =
        hosted::ObjectOfKind<hosted::FindObject>(hFindFile, hosted::HandleKind::Find);
    if (pFind == nullptr) return FALSE;
    if (hosted::NextEntry(pFind.get(), pFindData)) return TRUE;
    hosted::SetError(ERROR_NO_MORE_FILES);
    return FALSE;
}

platform::BOOL platform::FindClose(HANDLE hFindFile)
{
    if (hosted::FailsNow("FindClose")) return FALSE;
    if (hosted::ObjectOfKind<hosted::FindObject>(hFindFile, hosted::HandleKind::Find) == nullptr) return FALSE;
    return hosted::RemoveHandle(hFindFile) != nullptr;
}
