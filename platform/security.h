// security.h: access lists for Everyone, and the current user's identity.
#pragma once
#include "platform/kernel.h"

namespace platform {

constexpr uint32_t PIPE_EVERYONE_ACCESS = 0x001201BF; // FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE
constexpr uint32_t FILE_EVERYONE_ACCESS = 0xFFFFFFFF;

// Security attributes, not inheritable, whose access list has one entry: access allowed for the group Everyone
// (S-1-1-0) with the given rights. Null on failure (GetLastError). The caller frees them with FreeSecurity, also when
// null.
SECURITY_ATTRIBUTES *CreateEveryoneSecurity(uint32_t dwAccessMask);
void                 FreeSecurity(SECURITY_ATTRIBUTES *pSecurity);

enum SID_NAME_USE : int32_t {
    SidTypeUser     = 1,
    SidTypeGroup    = 2,
    SidTypeDomain   = 3,
    SidTypeUnknown  = 8,
    SidTypeComputer = 9
};

// *pcchBuffer: in the capacity, out the length, both in UTF-16 units with the terminator.
BOOL GetUserNameW(char16_t *pszBuffer, uint32_t *pcchBuffer);
// Sizes in and out in bytes (SID) and UTF-16 units (domain). pSid is opaque, at least 68 bytes here.
BOOL LookupAccountNameW(const char16_t *pszSystemName, const char16_t *pszAccountName, void *pSid, uint32_t *pcbSid,
                        char16_t *pszDomain, uint32_t *pcchDomain, SID_NAME_USE *peUse);
// *ppszSid is freed with LocalFree (errors.h).
BOOL ConvertSidToStringSidW(void *pSid, char16_t **ppszSid);

} // namespace platform
