// named_objects.cpp: see named_objects.h. Opening, making and removing happen under the machine's lock; the state
// itself is changed without it, by atomic operations.
#include "platform/hosted/kernel/named_objects.h"
#include "platform/errors.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/utf.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr uint32_t MAGIC        = 0x4A424F56; // "VOBJ"
constexpr size_t   LONGEST_NAME = 180;        // a host's file name has at most 255 bytes

constexpr std::u16string_view GLOBAL_PREFIX = u"Global\\", LOCAL_PREFIX = u"Local\\";

// "Local\X" is what "X" means to begin with: the session's own object. "Global\X" is another one, as in every session
// but the services' on Windows. A machine here has one session, so that its number need not stand in the name.
std::u16string_view WithoutLocal(std::u16string_view sName)
{
    return sName.starts_with(LOCAL_PREFIX) ? sName.substr(LOCAL_PREFIX.size()) : sName;
}

bool IsHeldByNobody(int nFd)
{
    return flock(nFd, LOCK_EX | LOCK_NB) == 0;
}

} // namespace

std::string EscapedName(const std::string &sName)
{
    std::string sOut;
    uint64_t    ullHash = 14695981039346656037u;
    for (const char ch : sName) {
        const auto by     = static_cast<unsigned char>(ch);
        ullHash           = (ullHash ^ by) * 1099511628211u;
        const bool bPlain = (by >= '0' && by <= '9') || (by >= 'A' && by <= 'Z') || (by >= 'a' && by <= 'z') ||
                            std::strchr("-_ {}()", ch) != nullptr || by >= 0x80;
        char szEscaped[4];
        if (!bPlain || by == 0) std::snprintf(szEscaped, sizeof(szEscaped), "%%%02X", by);
        sOut += bPlain && by != 0 ? std::string(1, ch) : szEscaped;
    }
    if (sOut.size() > LONGEST_NAME) {
        char szHash[20];
        std::snprintf(szHash, sizeof(szHash), "~%016llx", static_cast<unsigned long long>(ullHash));
        sOut = sOut.substr(0, LONGEST_NAME) + szHash;
    }
    return sOut;
}

std::unique_ptr<NamedObject> NamedObject::Open(const char16_t *pszName, HandleKind eKind, bool bCreate,
                                               const NamedState *pState, bool *pbExisted)
{
    const std::u16string_view sFull(pszName);
    const std::u16string_view sName = WithoutLocal(sFull);
    const size_t              nOwn  = sName.starts_with(GLOBAL_PREFIX) ? GLOBAL_PREFIX.size() : 0;
    if (sFull.size() >= platform::MAX_PATH || sName.find(u'\\', nOwn) != sName.npos) {
        SetError(sFull.size() >= platform::MAX_PATH ? platform::ERROR_FILENAME_EXCED_RANGE
                                                    : platform::ERROR_PATH_NOT_FOUND);
        return nullptr;
    }
    const std::string sFolder = RunFolder("objects");
    if (sFolder.empty()) return nullptr;
    const std::string sFile = sFolder + "/" + EscapedName(ToUtf8(sName));
    const MachineLock lock;
    if (!lock.IsHeld()) return nullptr;
    const int nFd = open(sFile.c_str(), O_RDWR | O_CLOEXEC | (bCreate ? O_CREAT : 0), 0666);
    if (nFd < 0) {
        SetErrorFromErrno();
        return nullptr;
    }
    uint32_t    dwError = 0;
    void       *pMem    = MAP_FAILED;
    NamedState *pMapped = nullptr;
    const bool  bUnheld = IsHeldByNobody(nFd);
    if (bUnheld && (!bCreate || ftruncate(nFd, 0) != 0 || ftruncate(nFd, sizeof(NamedState)) != 0)) {
        dwError = bCreate ? ErrorFromErrno(errno) : platform::ERROR_FILE_NOT_FOUND;
        unlink(sFile.c_str());
        goto Fail;
    }
    pMem = mmap(nullptr, sizeof(NamedState), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    if (pMem == MAP_FAILED || flock(nFd, LOCK_SH) != 0) {
        dwError = ErrorFromErrno(errno);
        goto Fail;
    }
    pMapped = static_cast<NamedState *>(pMem);
    if (bUnheld) {
        pMapped->dwKind           = static_cast<uint32_t>(eKind);
        pMapped->bManualReset     = pState->bManualReset;
        pMapped->bSecured         = pState->bSecured;
        pMapped->dwEveryoneAccess = pState->dwEveryoneAccess;
        pMapped->bSignalled.store(pState->bSignalled.load());
        std::snprintf(pMapped->szName, sizeof(pMapped->szName), "%s", ToUtf8(sFull).c_str());
        pMapped->dwMagic = MAGIC;
    } else if (pMapped->dwMagic != MAGIC || pMapped->dwKind != static_cast<uint32_t>(eKind)) {
        dwError = platform::ERROR_INVALID_HANDLE; // Windows' answer for a name that an object of another kind has
        goto Fail;
    }
    if (pbExisted != nullptr) *pbExisted = !bUnheld;
    return std::unique_ptr<NamedObject>(new NamedObject(sFile, nFd, pMapped));
Fail:
    if (pMem != MAP_FAILED) munmap(pMem, sizeof(NamedState));
    close(nFd);
    SetError(dwError);
    return nullptr;
}

NamedObject::~NamedObject()
{
    const uint32_t dwLastError = platform::GetLastError(); // closing a handle succeeds and leaves it alone
    munmap(m_pState, sizeof(NamedState));
    {
        const MachineLock lock;
        if (lock.IsHeld() && IsHeldByNobody(m_nFd)) unlink(m_sFile.c_str()); // ours is given up for the test
        close(m_nFd);
    }
    SetError(dwLastError);
}

} // namespace hosted
