// named_objects.h: what stands behind the name of an event or a mutex, in run/objects.
// One small file for each name, mapped by every holder. A holder keeps a shared lock (flock) on it, which the kernel
// gives back however the process dies; a file that nobody has locked names nothing and is made anew or removed.
#pragma once
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/security.h"
#include <atomic>
#include <string>

namespace hosted {

struct NamedState {
    uint32_t              dwMagic;
    uint32_t              dwKind; // HandleKind
    uint32_t              bManualReset;
    std::atomic<uint32_t> bSignalled;
    uint32_t              bSecured;
    uint32_t              dwEveryoneAccess;
    char                  szName[1024]; // UTF-8, for people who look into run/
};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared by processes");

class NamedObject {
  public:
    // Opens the object of that name; makes it when bCreate (pState says as what, *pbExisted whether it was there
    // before). Null: ERROR_FILE_NOT_FOUND, ERROR_INVALID_HANDLE for a name of another kind, ERROR_PATH_NOT_FOUND for a
    // name with a backslash, ERROR_FILENAME_EXCED_RANGE.
    static std::unique_ptr<NamedObject> Open(const char16_t *pszName, HandleKind eKind, bool bCreate,
                                             const NamedState *pState, bool *pbExisted);
    ~NamedObject();
    NamedObject(const NamedObject &)            = delete;
    NamedObject &operator=(const NamedObject &) = delete;
    NamedState  &State() { return *m_pState; }

  private:
    NamedObject(std::string sFile, int nFd, NamedState *pState)
        : m_sFile(std::move(sFile)), m_nFd(nFd), m_pState(pState)
    {
    }
    std::string m_sFile;
    int         m_nFd; // carries the shared lock
    NamedState *m_pState;
};

// A file name for any text: letters, digits and "-_ " stay, the rest is escaped; a long one ends in a hash.
std::string EscapedName(const std::string &sName);

} // namespace hosted
