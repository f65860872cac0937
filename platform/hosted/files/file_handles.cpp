// file_handles.cpp: CreateFileW: opening and making files and folders.
// A file that is made gets the attributes asked for and the archive attribute, as on Windows; one that is truncated
// keeps its access list. Opening a name that is a device in every folder of Windows ("nul", "com1.txt") fails, since a
// hosted machine has no devices. FILE_FLAG_SEQUENTIAL_SCAN only advises and needs nothing here.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/files.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/hosted/pipes/pipe_client.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include <atomic>
#include <cerrno>
#include <fcntl.h>

namespace hosted {
namespace {

using namespace platform;

constexpr uint32_t READ_ATTRIBUTES = 0x00000080;
constexpr uint32_t KNOWN_ACCESS =
    GENERIC_READ | GENERIC_WRITE | FILE_APPEND_DATA | READ_CONTROL | SYNCHRONIZE | READ_ATTRIBUTES;
constexpr uint32_t KNOWN_FLAGS    = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN;
constexpr uint32_t ATTRIBUTE_BITS = 0x0000FFFF;

struct Request {
    uint32_t             dwAccess, dwShare, dwDisposition, dwFlags;
    SECURITY_ATTRIBUTES *pSecurity;
};

unsigned SharingAccess(uint32_t dwAccess)
{
    return ((dwAccess & GENERIC_READ) != 0 ? SHARE_READ : 0) |
           ((dwAccess & (GENERIC_WRITE | FILE_APPEND_DATA)) != 0 ? SHARE_WRITE : 0);
}

uint32_t OpenFolder(const Located &found, FileObject *pFile)
{
    pFile->nFd = open(found.sHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (pFile->nFd < 0) return ErrorFromErrno(errno);
    pFile->bFolder = true;
    return 0;
}

// The marks of a new file. A long name cannot do without its mark.
uint32_t MarkNewFile(const DiskPath &path, const Located &found, const Request &request, int nFd)
{
    const MarkedFile    file         = {found.sHost.c_str(), nFd};
    const uint32_t      dwAttributes = (request.dwFlags & ATTRIBUTE_BITS) | FILE_ATTRIBUTE_ARCHIVE;
    std::u16string_view sName        = std::u16string_view(path.sFull).substr(path.LeafAt());
    bool                bOk          = dwAttributes == FILE_ATTRIBUTE_ARCHIVE ||
               dwAttributes == (FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL) ||
               WriteHexMark(file, MARK_ATTRIBUTES, dwAttributes);
    bOk =
        bOk && (request.pSecurity == nullptr || WriteHexMark(file, MARK_EVERYONE, request.pSecurity->dwEveryoneAccess));
    if (bOk && found.sHost.compare(found.sFolder.size() + 1, LONG_NAME_PREFIX.size(), LONG_NAME_PREFIX) == 0)
        bOk = WriteMark(file, MARK_NAME, ToUtf8(sName));
    return bOk ? 0 : ErrorFromErrno(errno);
}

// A handle without access neither hinders others nor is hindered.
uint32_t Join(FileObject *pFile, const struct stat &st, unsigned nAccess, unsigned nShare, bool bNew)
{
    if (nAccess == 0) return 0;
    std::atomic<uint32_t> &nOpen   = OpenCount(st);
    const uint32_t         dwError = JoinSharing(pFile->nFd, nOpen, nAccess, nShare, bNew);
    if (dwError == 0) pFile->pnOpen = &nOpen;
    return dwError;
}

uint32_t MakeNew(const DiskPath &path, const Located &found, const Request &request, FileObject *pFile)
{
    pFile->nFd = open(found.sHost.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (pFile->nFd < 0) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
    struct stat st;
    uint32_t    dwError = MarkNewFile(path, found, request, pFile->nFd);
    if (dwError == 0 && fstat(pFile->nFd, &st) != 0) dwError = ErrorFromErrno(errno);
    if (dwError == 0) dwError = Join(pFile, st, SharingAccess(request.dwAccess), request.dwShare, true);
    if (dwError != 0) unlink(found.sHost.c_str());
    else IndexGains(found.sFolder, std::u16string_view(path.sFull).substr(path.LeafAt()));
    return dwError;
}

uint32_t OpenOld(const Located &found, const Request &request, FileObject *pFile)
{
    if (!S_ISREG(found.st.st_mode)) return ERROR_ACCESS_DENIED; // a pipe or device of the host: opening it might block
    const bool     bTruncate = request.dwDisposition == CREATE_ALWAYS;
    const unsigned nAccess   = SharingAccess(request.dwAccess);
    const bool     bWrite    = (nAccess & SHARE_WRITE) != 0 || bTruncate;
    uint32_t       dwOld     = 0;
    if (bWrite) {
        dwOld = AttributesOf({found.sHost.c_str()}, found.st, found.bLink);
        if ((dwOld & FILE_ATTRIBUTE_READONLY) != 0) return ERROR_ACCESS_DENIED;
        const uint32_t dwKept = dwOld & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        if (bTruncate && (dwKept & ~request.dwFlags) != 0) return ERROR_ACCESS_DENIED;
    }
    if (pFile->nFd < 0) pFile->nFd = open(found.sHost.c_str(), (bWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC);
    if (pFile->nFd < 0) return ErrorFromErrno(errno);
    if (const uint32_t dwError = Join(pFile, found.st, nAccess | (bTruncate ? SHARE_WRITE : 0), request.dwShare, false))
        return dwError;
    pFile->cbKnown = found.st.st_size;
    if (!bTruncate) return 0;
    if (ftruncate(pFile->nFd, 0) != 0) return ErrorFromErrno(errno);
    pFile->cbKnown = 0;
    Generation(Generations::Files, pFile->nFileKey)++;
    const uint32_t dwNew = dwOld | (request.dwFlags & ATTRIBUTE_BITS) | FILE_ATTRIBUTE_ARCHIVE;
    if ((dwNew & ~FILE_ATTRIBUTE_NORMAL) == dwOld) return 0;
    return SetAttributesOf({found.sHost.c_str(), pFile->nFd}, found.st, dwNew) ? 0 : ErrorFromErrno(errno);
}

// Opens for reading what this thread has just seen to be a plain file, without one more look before: that would be for
// pipes and devices of the host, which opening alone disturbs. False: nothing is open.
bool OpenSeenFile(const DiskPath &path, Located *pFound, FileObject *pFile)
{
    if (!LocateSeenFile(path, pFound)) return false;
    pFile->nFd = open(pFound->sHost.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (pFile->nFd < 0) return false;
    pFound->bExists = fstat(pFile->nFd, &pFound->st) == 0 && S_ISREG(pFound->st.st_mode);
    if (pFound->bExists) return true;
    close(pFile->nFd);
    pFile->nFd = -1;
    return false;
}

uint32_t CheckRequest(const Request &request)
{
    if (request.dwDisposition < CREATE_NEW || request.dwDisposition > OPEN_EXISTING) return ERROR_INVALID_PARAMETER;
    if ((request.dwAccess & ~KNOWN_ACCESS) != 0 || (request.dwFlags & ~(KNOWN_FLAGS | ATTRIBUTE_BITS)) != 0 ||
        (request.dwShare & ~7u) != 0)
        return ERROR_NOT_SUPPORTED;
    return 0;
}

// *pbExisted: there was a file, which is opened. bAgain: the first look was overtaken.
uint32_t OpenOrMake(const char16_t *pszFileName, const Request &request, bool bAgain, FileObject *pFile,
                    bool *pbExisted)
{
    DiskPath path;
    Located  found;
    uint32_t dwError = CheckRequest(request);
    if (dwError == 0) dwError = ParsePath(pszFileName, &path);
    if (dwError != 0) return dwError;
    if (!path.bVerbatim && IsDeviceName(std::u16string_view(path.sFull).substr(path.LeafAt())))
        return ERROR_FILE_NOT_FOUND;
    const bool bReads = request.dwDisposition == OPEN_EXISTING && SharingAccess(request.dwAccess) == SHARE_READ;
    if (!bReads || bAgain || !OpenSeenFile(path, &found, pFile)) dwError = Locate(path, &found);
    if (dwError != 0) return dwError;
    pFile->chDrive  = path.Drive();
    pFile->nFileKey = HashFolded(path.sFull);
    pFile->nAccess  = SharingAccess(request.dwAccess);
    pFile->bAppend  = (request.dwAccess & (GENERIC_WRITE | FILE_APPEND_DATA)) == FILE_APPEND_DATA;
    *pbExisted      = found.bExists;
    if (found.IsFolder()) {
        if (request.dwDisposition == CREATE_NEW) return ERROR_FILE_EXISTS;
        if (request.dwDisposition != OPEN_EXISTING || (request.dwFlags & FILE_FLAG_BACKUP_SEMANTICS) == 0)
            return ERROR_ACCESS_DENIED;
        return OpenFolder(found, pFile);
    }
    if (path.bEndsInBackslash) return ERROR_INVALID_NAME;
    if (found.bExists) {
        if (request.dwDisposition == CREATE_NEW) return ERROR_FILE_EXISTS;
        return OpenOld(found, request, pFile);
    }
    if (request.dwDisposition == OPEN_EXISTING) return ERROR_FILE_NOT_FOUND;
    return MakeNew(path, found, request, pFile);
}

} // namespace
} // namespace hosted

platform::HANDLE platform::CreateFileW(const char16_t *pszFileName, uint32_t dwDesiredAccess, uint32_t dwShareMode,
                                       SECURITY_ATTRIBUTES *pSecurity, uint32_t dwCreationDisposition,
                                       uint32_t dwFlagsAndAttributes, HANDLE hTemplateFile)
{
    if (hosted::FailsNow("CreateFileW")) return INVALID_HANDLE_VALUE;
    if (hosted::IsPipeName(pszFileName))
        return hosted::OpenPipeClient(pszFileName, dwDesiredAccess, dwCreationDisposition);
    if (hTemplateFile != nullptr) {
        hosted::SetError(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    const hosted::Request request  = {dwDesiredAccess, dwShareMode, dwCreationDisposition, dwFlagsAndAttributes,
                                      pSecurity};
    auto                  pFile    = std::make_shared<hosted::FileObject>();
    bool                  bExisted = false;
    uint32_t              dwError  = 0;
    for (int i = 0; i < 3; i++) { // a name that another process makes or removes meanwhile is looked at anew
        dwError = hosted::OpenOrMake(pszFileName, request, i > 0, pFile.get(), &bExisted);
        const bool bRaced =
            (dwError == ERROR_FILE_EXISTS && !bExisted) || (dwError == ERROR_FILE_NOT_FOUND && bExisted);
        if (!bRaced) break;
    }
    if (dwError != 0) {
        hosted::SetError(dwError);
        return INVALID_HANDLE_VALUE;
    }
    hosted::SetError(dwCreationDisposition == CREATE_ALWAYS && bExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return hosted::AddHandle(std::move(pFile));
}
