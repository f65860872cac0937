// runtime_library.cpp: the functions of the C run-time library that the interfaces name.
// _access takes mode 0 (exists), 2 (may be written), 4 and 6, as the run-time library does; any other mode is EINVAL.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include <cerrno>
#include <cstring>

namespace {

int32_t Access(const char16_t *pszPath, int32_t nMode)
{
    using namespace platform;
    if (pszPath == nullptr || (nMode & ~6) != 0) {
        errno = EINVAL;
        return -1;
    }
    hosted::DiskPath path;
    hosted::Located  found;
    uint32_t         dwError = hosted::ParsePath(pszPath, &path);
    if (dwError == 0) dwError = hosted::Locate(path, &found);
    if (dwError == 0 && (!found.bExists || (path.bEndsInBackslash && !found.IsFolder())))
        dwError = ERROR_FILE_NOT_FOUND;
    if (dwError == 0 && (nMode & 2) != 0 && !found.IsFolder() &&
        (hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink) & FILE_ATTRIBUTE_READONLY) != 0)
        dwError = ERROR_ACCESS_DENIED;
    if (dwError == 0) return 0;
    hosted::SetError(dwError);
    errno = dwError == ERROR_ACCESS_DENIED ? EACCES : ENOENT;
    return -1;
}

} // namespace

int32_t platform::_access(const char *pszPath, int32_t nMode)
{
    if (hosted::FailsNow("_access")) return -1;
    return pszPath == nullptr ? Access(nullptr, nMode) : Access(hosted::ToUtf16(pszPath).c_str(), nMode);
}

int32_t platform::_waccess(const char16_t *pszPath, int32_t nMode)
{
    if (hosted::FailsNow("_waccess")) return -1;
    return Access(pszPath, nMode);
}

int32_t platform::strcpy_s(char *pszDest, size_t cbDest, const char *pszSource)
{
    if (pszDest == nullptr || cbDest == 0) return errno = EINVAL;
    if (pszSource == nullptr) {
        pszDest[0]   = '\0';
        return errno = EINVAL;
    }
    const size_t cb = strnlen(pszSource, cbDest);
    if (cb == cbDest) {
        pszDest[0]   = '\0';
        return errno = ERANGE;
    }
    std::memcpy(pszDest, pszSource, cb + 1);
    return 0;
}
