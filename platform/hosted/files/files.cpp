// files.cpp: reading, writing and measuring open files.
// The position belongs to the handle and not to the host's descriptor, so that moving it costs no call.
#include "platform/hosted/files/files.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/pipes/pipe_client.h"
#include "platform/hosted/pipes/pipes.h"
#include <cerrno>
#include <sys/stat.h>

namespace {

using namespace platform;
using hosted::FileObject;
using hosted::HandleKind;
using hosted::KernelObject;

constexpr uint32_t ERROR_NEGATIVE_SEEK = 131;

BOOL Fail(uint32_t dwError)
{
    hosted::SetError(dwError);
    return FALSE;
}

BOOL FailFromErrno()
{
    hosted::SetErrorFromErrno();
    return FALSE;
}

// The file behind a handle that allows so much; null with the last error set.
std::shared_ptr<FileObject> FileOf(HANDLE hFile, unsigned nAccess)
{
    std::shared_ptr<FileObject> pFile = hosted::ObjectOfKind<FileObject>(hFile, HandleKind::File);
    if (pFile != nullptr && (pFile->nAccess & nAccess) != nAccess) {
        hosted::SetError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return pFile;
}

BOOL ReadDisk(FileObject &file, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead)
{
    if (file.bFolder) return Fail(ERROR_INVALID_PARAMETER);
    uint32_t cbDone = 0;
    while (cbDone < cbToRead) {
        const ssize_t cb = pread(file.nFd, static_cast<char *>(pBuffer) + cbDone, cbToRead - cbDone, file.nPosition);
        if (cb < 0) {
            if (errno == EINTR) continue;
            return FailFromErrno();
        }
        if (cb == 0) break;
        cbDone += static_cast<uint32_t>(cb);
        file.nPosition += cb;
        *pcbRead = cbDone;
        if (file.nPosition >= file.cbKnown) break; // at the end as known: one more call would only say so
    }
    return TRUE;
}

BOOL WriteDisk(FileObject &file, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten)
{
    if (file.bAppend) {
        struct stat st;
        if (fstat(file.nFd, &st) != 0) return FailFromErrno();
        file.nPosition = file.cbKnown = st.st_size;
    }
    const int64_t cbGrowth =
        file.nPosition + cbToWrite - (file.nPosition < file.cbKnown ? file.cbKnown : file.nPosition);
    if (cbToWrite != 0 && !hosted::TakeRoom(file.chDrive, cbGrowth)) return FALSE;
    uint32_t cbDone = 0;
    while (cbDone < cbToWrite) {
        const ssize_t cb =
            pwrite(file.nFd, static_cast<const char *>(pBuffer) + cbDone, cbToWrite - cbDone, file.nPosition);
        if (cb < 0 && errno == EINTR) continue;
        if (cb < 0) {
            FailFromErrno();
            break;
        }
        cbDone += static_cast<uint32_t>(cb);
        file.nPosition += cb;
        if (file.nPosition > file.cbKnown) file.cbKnown = file.nPosition;
    }
    hosted::Generation(hosted::Generations::Files, file.nFileKey)++;
    *pcbWritten = cbDone;
    return cbDone == cbToWrite;
}

} // namespace

platform::BOOL platform::ReadFile(HANDLE hFile, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead,
                                  OVERLAPPED *pOverlapped)
{
    if (hosted::FailsNow("ReadFile")) return FALSE;
    if (pcbRead == nullptr) return Fail(ERROR_NOT_SUPPORTED);
    *pcbRead                                    = 0;
    const std::shared_ptr<KernelObject> pObject = hosted::ObjectOf(hFile);
    if (pObject == nullptr) return FALSE;
    if (pObject->eKind != HandleKind::File) return hosted::ReadPipe(pObject, pBuffer, cbToRead, pcbRead, pOverlapped);
    if (pOverlapped != nullptr) return Fail(ERROR_NOT_SUPPORTED);
    FileObject &file = static_cast<FileObject &>(*pObject);
    if ((file.nAccess & hosted::SHARE_READ) == 0) return Fail(ERROR_ACCESS_DENIED);
    return ReadDisk(file, pBuffer, cbToRead, pcbRead);
}

platform::BOOL platform::WriteFile(HANDLE hFile, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten,
                                   OVERLAPPED *pOverlapped)
{
    if (hosted::FailsNow("WriteFile")) return FALSE;
    if (pOverlapped != nullptr || pcbWritten == nullptr) return Fail(ERROR_NOT_SUPPORTED);
    *pcbWritten                                 = 0;
    const std::shared_ptr<KernelObject> pObject = hosted::ObjectOf(hFile);
    if (pObject == nullptr) return FALSE;
    if (pObject->eKind != HandleKind::File) return hosted::WritePipe(*pObject, pBuffer, cbToWrite, pcbWritten);
    FileObject &file = static_cast<FileObject &>(*pObject);
    if ((file.nAccess & hosted::SHARE_WRITE) == 0) return Fail(ERROR_ACCESS_DENIED);
    return WriteDisk(file, pBuffer, cbToWrite, pcbWritten);
}

platform::BOOL platform::FlushFileBuffers(HANDLE hFile)
{
    if (hosted::FailsNow("FlushFileBuffers")) return FALSE;
    const std::shared_ptr<KernelObject> pObject = hosted::ObjectOf(hFile);
    if (pObject == nullptr) return FALSE;
    if (pObject->eKind == HandleKind::PipeClient || pObject->eKind == HandleKind::PipeServer)
        return Fail(ERROR_NOT_SUPPORTED);
    const std::shared_ptr<FileObject> pFile = FileOf(hFile, hosted::SHARE_WRITE);
    if (pFile == nullptr) return FALSE;
    return fsync(pFile->nFd) == 0 ? TRUE : FailFromErrno();
}

platform::BOOL platform::GetFileSizeEx(HANDLE hFile, int64_t *pcbSize)
{
    if (hosted::FailsNow("GetFileSizeEx")) return FALSE;
    const std::shared_ptr<FileObject> pFile = FileOf(hFile, 0);
    if (pFile == nullptr) return FALSE;
    struct stat st;
    if (fstat(pFile->nFd, &st) != 0) return FailFromErrno();
    pFile->cbKnown = st.st_size;
    *pcbSize       = pFile->bFolder ? 0 : st.st_size;
    return TRUE;
}

platform::BOOL platform::SetFilePointerEx(HANDLE hFile, int64_t cbDistance, int64_t *pcbNewPosition,
                                          uint32_t dwMoveMethod)
{
    if (hosted::FailsNow("SetFilePointerEx")) return FALSE;
    const std::shared_ptr<FileObject> pFile = FileOf(hFile, 0);
    if (pFile == nullptr) return FALSE;
    if (dwMoveMethod != FILE_BEGIN) return Fail(ERROR_NOT_SUPPORTED);
    if (cbDistance < 0) return Fail(ERROR_NEGATIVE_SEEK);
    pFile->nPosition = cbDistance;
    if (pcbNewPosition != nullptr) *pcbNewPosition = cbDistance;
    return TRUE;
}
