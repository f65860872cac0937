// security.cpp: access lists for Everyone, and who the user of the machine is.
// A hosted machine keeps of an access list the one entry that this system makes: Everyone's rights. On a file it is a
// mark of the file, on a kernel object it is in the object's shared state. Nothing is refused because of it: all
// processes of a hosted machine run as one user of the host.
#include "platform/security.h"
#include "platform/errors.h"
#include "platform/hosted/files/files.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include "platform/tool_seam.h"
#include <cstdlib>
#include <cstring>

namespace {

using namespace platform;

constexpr uint32_t ERROR_INVALID_SID     = 1337;
constexpr auto     SidTypeWellKnownGroup = static_cast<SID_NAME_USE>(5);
constexpr size_t   CB_SID_MAX            = 68;

// What generic rights stand for on each kind of object, and the rights that an entry keeps: a file its own, any other
// object all specific and standard ones.
struct RightsMap {
    uint32_t dwRead, dwWrite, dwExecute, dwAll, dwKept;
};
constexpr RightsMap g_FileRights  = {0x120089, 0x120116, 0x1200A0, 0x1F01FF, 0x1F01FF};
constexpr RightsMap g_EventRights = {0x020001, 0x020002, 0x120000, 0x1F0003, 0x1FFFFF};
constexpr RightsMap g_MutexRights = {0x020001, 0x020000, 0x120000, 0x1F0001, 0x1FFFFF};

uint32_t AsStored(uint32_t dwMask, const RightsMap &rights)
{
    uint32_t dwStored = dwMask & rights.dwKept;
    if ((dwMask & 0x80000000) != 0) dwStored |= rights.dwRead;
    if ((dwMask & 0x40000000) != 0) dwStored |= rights.dwWrite;
    if ((dwMask & 0x20000000) != 0) dwStored |= rights.dwExecute;
    if ((dwMask & 0x10000000) != 0) dwStored |= rights.dwAll;
    return dwStored;
}

// ---- SIDs in their binary form: revision, count, six bytes of authority (big-endian), sub-authorities (little-endian)
// ----
bool SidFromText(const std::string &sText, std::string *psSid)
{
    unsigned long long aParts[17];
    int                nParts = 0;
    const char        *psz    = sText.c_str();
    if (psz[0] != 'S') return false;
    for (psz++; *psz == '-' && nParts < 17;) {
        char *pszEnd     = nullptr;
        aParts[nParts++] = std::strtoull(psz + 1, &pszEnd, 10);
        if (pszEnd == psz + 1) return false;
        psz = pszEnd;
    }
    if (*psz != '\0' || nParts < 2 || aParts[0] != 1) return false;
    psSid->assign({1, static_cast<char>(nParts - 2)});
    for (int i = 5; i >= 0; i--) *psSid += static_cast<char>(aParts[1] >> (8 * i));
    for (int n = 2; n < nParts; n++)
        for (int i = 0; i < 4; i++) *psSid += static_cast<char>(aParts[n] >> (8 * i));
    return true;
}

std::string TextFromSid(const uint8_t *pSid)
{
    uint64_t nAuthority = 0;
    for (int i = 0; i < 6; i++) nAuthority = nAuthority << 8 | pSid[2 + i];
    std::string sText = "S-1-" + std::to_string(nAuthority);
    for (int n = 0; n < pSid[1]; n++) {
        uint32_t dwPart;
        std::memcpy(&dwPart, pSid + 8 + 4 * n, sizeof(dwPart));
        sText += '-' + std::to_string(dwPart);
    }
    return sText;
}

struct Account {
    std::string    sSid; // binary
    std::u16string sDomain;
    SID_NAME_USE   eUse;
};

bool SameText(const std::u16string &sLeft, const std::u16string &sRight)
{
    return CompareTextNoCaseW(sLeft.c_str(), sRight.c_str()) == 0;
}

// 0 or an error. A bare name that is the computer's and a user's is the computer's: the user then needs the domain.
uint32_t FindAccount(const std::u16string &sAccount, Account *pAccount)
{
    const std::u16string sComputer = hosted::ToUtf16(hosted::MachineSetting("machine", "computer", "HOSTED-PC"));
    const std::u16string sUser     = hosted::ToUtf16(hosted::MachineSetting("machine", "user", "User"));
    const std::u16string sOwn      = hosted::ToUtf16(hosted::MachineSetting("machine", "domain", ""));
    const std::u16string sDomain   = sOwn.empty() ? sComputer : sOwn;
    const std::string    sSid      = hosted::MachineSetting("machine", "sid", "S-1-5-21-1-2-3-1001");
    const size_t         nAt       = sAccount.find(u'\\');
    if (nAt == std::u16string::npos && SameText(sAccount, u"Everyone")) {
        *pAccount = {"", u"", SidTypeWellKnownGroup};
        return SidFromText("S-1-1-0", &pAccount->sSid) ? 0 : ERROR_INVALID_SID;
    }
    if (nAt == std::u16string::npos && SameText(sAccount, sComputer)) {
        *pAccount = {"", sComputer, SidTypeDomain};
        return SidFromText(sSid.substr(0, sSid.rfind('-')), &pAccount->sSid) ? 0 : ERROR_INVALID_SID;
    }
    if (!SameText(nAt == std::u16string::npos ? sAccount : sAccount.substr(nAt + 1), sUser) ||
        (nAt != std::u16string::npos && !SameText(sAccount.substr(0, nAt), sDomain)))
        return ERROR_NONE_MAPPED;
    *pAccount = {"", sDomain, SidTypeUser};
    return SidFromText(sSid, &pAccount->sSid) ? 0 : ERROR_INVALID_SID;
}

} // namespace

platform::SECURITY_ATTRIBUTES *platform::CreateEveryoneSecurity(uint32_t dwAccessMask)
{
    if (hosted::FailsNow("CreateEveryoneSecurity")) return nullptr;
    auto *pSecurity = static_cast<SECURITY_ATTRIBUTES *>(hosted::AllocBlock(sizeof(SECURITY_ATTRIBUTES)));
    if (pSecurity != nullptr) pSecurity->dwEveryoneAccess = dwAccessMask;
    return pSecurity;
}

void platform::FreeSecurity(SECURITY_ATTRIBUTES *pSecurity)
{
    hosted::FreeBlock(pSecurity);
}

bool platform::ReadEveryoneAccess(HANDLE hObject, SecuredObject eKind, uint32_t *pdwAccessMask, uint32_t *pnEntries)
{
    *pdwAccessMask = 0;
    *pnEntries     = 0;
    if (hosted::FailsNow("ReadEveryoneAccess")) return false;
    const std::shared_ptr<hosted::KernelObject> pObject = hosted::ObjectOf(hObject);
    if (pObject == nullptr) return false;
    const bool bFile = pObject->eKind == hosted::HandleKind::File;
    if (bFile != (eKind == SecuredObject::File) && pObject->eKind != hosted::HandleKind::PipeClient &&
        pObject->eKind != hosted::HandleKind::PipeServer) {
        hosted::SetError(ERROR_INVALID_HANDLE);
        return false;
    }
    uint32_t dwMask = pObject->dwEveryoneAccess;
    if (bFile ? !hosted::ReadHexMark({"", static_cast<hosted::FileObject &>(*pObject).nFd}, hosted::MARK_EVERYONE,
                                     &dwMask)
              : !pObject->bSecured) {
        hosted::SetError(ERROR_NOT_FOUND);
        return false;
    }
    switch (pObject->eKind) {
    case hosted::HandleKind::Event: *pdwAccessMask = AsStored(dwMask, g_EventRights); break;
    case hosted::HandleKind::Mutex: *pdwAccessMask = AsStored(dwMask, g_MutexRights); break;
    default: *pdwAccessMask = AsStored(dwMask, g_FileRights); break;
    }
    *pnEntries = 1;
    return true;
}

platform::BOOL platform::GetUserNameW(char16_t *pszBuffer, uint32_t *pcchBuffer)
{
    if (hosted::FailsNow("GetUserNameW")) return FALSE;
    const std::u16string sUser   = hosted::ToUtf16(hosted::MachineSetting("machine", "user", "User"));
    const uint32_t       cchHave = *pcchBuffer;
    *pcchBuffer                  = static_cast<uint32_t>(sUser.size() + 1);
    if (pszBuffer != nullptr && CopyTextW(cchHave > sUser.size() ? pszBuffer : nullptr, cchHave, sUser.c_str()))
        return TRUE;
    hosted::SetError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
}

platform::BOOL platform::LookupAccountNameW(const char16_t *pszSystemName, const char16_t *pszAccountName, void *pSid,
                                            uint32_t *pcbSid, char16_t *pszDomain, uint32_t *pcchDomain,
                                            SID_NAME_USE *peUse)
{
    if (hosted::FailsNow("LookupAccountNameW")) return FALSE;
    Account  account = {};
    uint32_t dwError = ERROR_NOT_SUPPORTED; // another machine's accounts
    if (pszSystemName == nullptr || *pszSystemName == 0)
        dwError = pszAccountName == nullptr ? ERROR_INVALID_PARAMETER : FindAccount(pszAccountName, &account);
    if (dwError != 0) {
        hosted::SetError(dwError);
        return FALSE;
    }
    const bool bFits = pSid != nullptr && *pcbSid >= account.sSid.size() && pszDomain != nullptr &&
                       *pcchDomain > account.sDomain.size();
    *pcbSid = static_cast<uint32_t>(account.sSid.size());
    if (!bFits) {
        *pcchDomain = static_cast<uint32_t>(account.sDomain.size() + 1);
        hosted::SetError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(pSid, account.sSid.data(), account.sSid.size());
    CopyTextW(pszDomain, *pcchDomain, account.sDomain.c_str());
    *pcchDomain = static_cast<uint32_t>(account.sDomain.size());
    *peUse      = account.eUse;
    return TRUE;
}

platform::BOOL platform::ConvertSidToStringSidW(void *pSid, char16_t **ppszSid)
{
    if (hosted::FailsNow("ConvertSidToStringSidW")) return FALSE;
    const uint8_t *pBytes = static_cast<const uint8_t *>(pSid);
    if (pBytes == nullptr || pBytes[0] != 1 || 8 + 4 * static_cast<size_t>(pBytes[1]) > CB_SID_MAX) {
        hosted::SetError(ERROR_INVALID_SID);
        return FALSE;
    }
    const std::u16string sText = hosted::ToUtf16(TextFromSid(pBytes));
    *ppszSid                   = static_cast<char16_t *>(hosted::AllocBlock((sText.size() + 1) * sizeof(char16_t)));
    return *ppszSid != nullptr && CopyTextW(*ppszSid, sText.size() + 1, sText.c_str());
}
