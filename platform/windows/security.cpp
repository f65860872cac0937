// security.cpp: access lists for Everyone and the current user's identity.
#include "platform/security.h"
#include "platform/tool_seam.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(SidTypeUser) X(SidTypeGroup) X(SidTypeDomain) X(SidTypeUnknown) X(SidTypeComputer)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
constexpr auto captured_PIPE_EVERYONE_ACCESS = platform::PIPE_EVERYONE_ACCESS;
} // namespace mirror

#include "platform/windows/sdk.h"
#include <aclapi.h>
#include <sddl.h>

#include <new>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
static_assert(captured_PIPE_EVERYONE_ACCESS == (FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE));
static_assert(SECURITY_MAX_SID_SIZE == 68, "the size that callers of LookupAccountNameW offer");
} // namespace mirror

namespace platform {

constexpr DWORD CB_ACCESS_LIST = 1024;

// The attributes, and the descriptor and the list that they point to, in one block.
struct EveryoneSecurity {
    ::SECURITY_ATTRIBUTES attributes;
    ::SECURITY_DESCRIPTOR descriptor;
    alignas(::ACL) uint8_t aAccessList[CB_ACCESS_LIST];
};
static_assert(offsetof(EveryoneSecurity, attributes) == 0, "callers hold the block by its attributes");

SECURITY_ATTRIBUTES *CreateEveryoneSecurity(uint32_t dwAccessMask)
{
    alignas(::SID) uint8_t aEveryone[SECURITY_MAX_SID_SIZE];
    DWORD                  cbEveryone = sizeof(aEveryone);
    auto                  *pSecurity  = new (std::nothrow) EveryoneSecurity();
    if (pSecurity == nullptr) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto *pAccessList = reinterpret_cast<::ACL *>(pSecurity->aAccessList);
    if (!::CreateWellKnownSid(WinWorldSid, nullptr, aEveryone, &cbEveryone) ||
        !::InitializeAcl(pAccessList, CB_ACCESS_LIST, ACL_REVISION) ||
        !::AddAccessAllowedAce(pAccessList, ACL_REVISION, dwAccessMask, aEveryone) ||
        !::InitializeSecurityDescriptor(&pSecurity->descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(&pSecurity->descriptor, TRUE, pAccessList, FALSE) ||
        !::IsValidSecurityDescriptor(&pSecurity->descriptor)) {
        const DWORD dwErr = ::GetLastError();
        delete pSecurity;
        ::SetLastError(dwErr);
        return nullptr;
    }
    pSecurity->attributes = {sizeof(pSecurity->attributes), &pSecurity->descriptor, FALSE};
    return reinterpret_cast<SECURITY_ATTRIBUTES *>(pSecurity);
}

void FreeSecurity(SECURITY_ATTRIBUTES *pSecurity)
{
    delete reinterpret_cast<EveryoneSecurity *>(pSecurity);
}

bool ReadEveryoneAccess(HANDLE hObject, SecuredObject eKind, uint32_t *pdwAccessMask, uint32_t *pnEntries)
{
    alignas(::SID) uint8_t aEveryone[SECURITY_MAX_SID_SIZE];
    DWORD                  cbEveryone  = sizeof(aEveryone);
    ::ACL                 *pAccessList = nullptr;
    PSECURITY_DESCRIPTOR   pDescriptor = nullptr;
    bool                   bFound      = false;
    if (!::CreateWellKnownSid(WinWorldSid, nullptr, aEveryone, &cbEveryone)) return false;
    const DWORD dwErr =
        ::GetSecurityInfo(hObject, eKind == SecuredObject::File ? SE_FILE_OBJECT : SE_KERNEL_OBJECT,
                          DACL_SECURITY_INFORMATION, nullptr, nullptr, &pAccessList, nullptr, &pDescriptor);
    if (dwErr != ERROR_SUCCESS) {
        ::SetLastError(dwErr);
        return false;
    }
    if (pAccessList != nullptr) {
        *pdwAccessMask = 0;
        *pnEntries     = pAccessList->AceCount;
        for (DWORD i = 0; i < pAccessList->AceCount && !bFound; ++i) {
            void *pEntry = nullptr;
            if (!::GetAce(pAccessList, i, &pEntry)) break;
            auto *pAllowed = static_cast<ACCESS_ALLOWED_ACE *>(pEntry);
            if (pAllowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && ::EqualSid(&pAllowed->SidStart, aEveryone)) {
                *pdwAccessMask = pAllowed->Mask;
                bFound         = true;
            }
        }
    }
    ::LocalFree(pDescriptor);
    return bFound;
}

BOOL GetUserNameW(char16_t *pszBuffer, uint32_t *pcchBuffer)
{
    return ::GetUserNameW(AsWide(pszBuffer), AsSdk(pcchBuffer));
}

BOOL LookupAccountNameW(const char16_t *pszSystemName, const char16_t *pszAccountName, void *pSid, uint32_t *pcbSid,
                        char16_t *pszDomain, uint32_t *pcchDomain, SID_NAME_USE *peUse)
{
    return ::LookupAccountNameW(AsWide(pszSystemName), AsWide(pszAccountName), pSid, AsSdk(pcbSid), AsWide(pszDomain),
                                AsSdk(pcchDomain), reinterpret_cast<::SID_NAME_USE *>(peUse));
}

BOOL ConvertSidToStringSidW(void *pSid, char16_t **ppszSid)
{
    return ::ConvertSidToStringSidW(pSid, reinterpret_cast<wchar_t **>(ppszSid));
}

} // namespace platform
