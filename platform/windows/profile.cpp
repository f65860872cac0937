// profile.cpp: private-profile files, forwarded one at a time.
// The agent and the discovery program keep their settings in one file. A write reads the whole file and writes it anew,
// and the documentation does not say that another process is kept out meanwhile: Windows 10 and 11 have been seen to
// lock the file, while Wine loses either write and lets a reader find a file without the value it asks for.
#include "platform/profile.h"
#include "platform/windows/sdk.h"

namespace platform {

namespace {

// The session's own, so that no other user can hold it. A holder that does not come back is not waited for: the lock
// is there so that two writes do not undo each other, not to make either impossible.
class ProfileLock {
  public:
    ProfileLock()
    {
        const DWORD           dwError = ::GetLastError();
        static const ::HANDLE hMutex  = ::CreateMutexW(nullptr, FALSE, L"Local\\VORN Migration Profile Files");
        const DWORD           dwWait  = hMutex != nullptr ? ::WaitForSingleObject(hMutex, WAIT_MS) : WAIT_FAILED;
        if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED) m_hHeld = hMutex;
        ::SetLastError(dwError);
    }
    ~ProfileLock()
    {
        const DWORD dwError = ::GetLastError();
        if (m_hHeld != nullptr) ::ReleaseMutex(m_hHeld);
        ::SetLastError(dwError);
    }
    ProfileLock(const ProfileLock &)            = delete;
    ProfileLock &operator=(const ProfileLock &) = delete;

  private:
    static constexpr DWORD WAIT_MS = 2000;
    ::HANDLE               m_hHeld = nullptr;
};

} // namespace

uint32_t GetPrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszDefault, char *pszBuffer,
                                  uint32_t cch, const char *pszFile)
{
    const ProfileLock lock;
    return ::GetPrivateProfileStringA(pszSection, pszKey, pszDefault, pszBuffer, cch, pszFile);
}

uint32_t GetPrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszDefault,
                                  char16_t *pszBuffer, uint32_t cch, const char16_t *pszFile)
{
    const ProfileLock lock;
    return ::GetPrivateProfileStringW(AsWide(pszSection), AsWide(pszKey), AsWide(pszDefault), AsWide(pszBuffer), cch,
                                      AsWide(pszFile));
}

uint32_t GetPrivateProfileIntA(const char *pszSection, const char *pszKey, int32_t nDefault, const char *pszFile)
{
    const ProfileLock lock;
    return ::GetPrivateProfileIntA(pszSection, pszKey, nDefault, pszFile);
}

uint32_t GetPrivateProfileIntW(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault,
                               const char16_t *pszFile)
{
    const ProfileLock lock;
    return ::GetPrivateProfileIntW(AsWide(pszSection), AsWide(pszKey), nDefault, AsWide(pszFile));
}

BOOL WritePrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszValue, const char *pszFile)
{
    const ProfileLock lock;
    return ::WritePrivateProfileStringA(pszSection, pszKey, pszValue, pszFile);
}

BOOL WritePrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue,
                                const char16_t *pszFile)
{
    const ProfileLock lock;
    return ::WritePrivateProfileStringW(AsWide(pszSection), AsWide(pszKey), AsWide(pszValue), AsWide(pszFile));
}

} // namespace platform
