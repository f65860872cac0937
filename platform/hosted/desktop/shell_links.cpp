// shell_links.cpp: shell links as files of the machine.
// A link that is saved takes the old file's place in one step, with its attributes. A target must be on a drive: a
// network path is read but cannot be set, since a hosted machine has no network file system.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/desktop/shell_link_format.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include "platform/tool_seam.h"
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>

struct platform::ShellLink {
    std::u16string    sFile; // empty: new
    hosted::LinkParts parts;
};

namespace {

using namespace platform;

constexpr off_t    CB_LINK_MAX      = 1 << 20;
constexpr uint32_t ERROR_NOT_A_LINK = 13;         // ERROR_INVALID_DATA
constexpr uint32_t ERROR_NO_COM     = 0x800401F0; // CO_E_NOTINITIALIZED
thread_local int   t_nInitialized   = 0;

bool Fail(uint32_t dwError)
{
    hosted::SetError(dwError);
    return false;
}

uint32_t Find(const char16_t *pszPath, hosted::DiskPath *pPath, hosted::Located *pFound)
{
    if (const uint32_t dwError = hosted::ParsePath(pszPath, pPath)) return dwError;
    if (const uint32_t dwError = hosted::Locate(*pPath, pFound)) return dwError;
    if (pFound->bExists && !S_ISREG(pFound->st.st_mode)) return ERROR_ACCESS_DENIED;
    if (pFound->bExists &&
        (hosted::AttributesOf({pFound->sHost.c_str()}, pFound->st, pFound->bLink) & FILE_ATTRIBUTE_READONLY) != 0)
        return ERROR_ACCESS_DENIED;
    return 0;
}

// Where the target is, seen from the link's folder; empty when they are on different drives.
std::u16string RelativePath(const std::u16string &sLink, const std::u16string &sTarget)
{
    if (CompareTextNoCaseN_W(sLink.c_str(), sTarget.c_str(), 3) != 0) return u"";
    size_t nCommon = 3;
    for (size_t n = 3; n < sLink.size() && n < sTarget.size() && FoldCaseW(sLink[n]) == FoldCaseW(sTarget[n]); n++)
        if (sLink[n] == u'\\') nCommon = n + 1;
    std::u16string sUp;
    for (size_t n = nCommon; n < sLink.size(); n++)
        if (sLink[n] == u'\\') sUp += u"..\\";
    return (sUp.empty() ? u".\\" : sUp) + sTarget.substr(nCommon);
}

uint32_t WriteLink(const hosted::DiskPath &path, const hosted::Located &found, const std::string &sBytes)
{
    if (found.bExists)
        if (const uint32_t dwError =
                hosted::TestSharing(found.sHost.c_str(), -1, found.st, hosted::SHARE_WRITE, hosted::SHARE_READ))
            return dwError;
    std::string sTemporary = hosted::RunFolder("") + "link.XXXXXX";
    const int   nFd        = mkostemp(sTemporary.data(), O_CLOEXEC);
    if (nFd < 0) return hosted::ErrorFromErrno(errno);
    bool bOk = write(nFd, sBytes.data(), sBytes.size()) == static_cast<ssize_t>(sBytes.size()) &&
               fchmod(nFd, found.bExists ? found.st.st_mode & 07777 : 0644) == 0;
    if (bOk && found.bExists) hosted::CopyMarks({found.sHost.c_str()}, {"", nFd});
    const std::string sLeaf = hosted::ToUtf8(std::u16string_view(path.sFull).substr(path.LeafAt()));
    if (bOk && !found.bExists && hosted::HostName(hosted::ToUtf16(sLeaf)) != sLeaf)
        bOk = hosted::WriteMark({"", nFd}, hosted::MARK_NAME, sLeaf); // a long name
    bOk              = bOk && rename(sTemporary.c_str(), found.sHost.c_str()) == 0;
    const int nErrno = errno;
    close(nFd);
    if (bOk) return 0;
    unlink(sTemporary.c_str());
    if (nErrno != EXDEV) return hosted::ErrorFromErrno(nErrno);
    std::ofstream file(found.sHost, std::ios::binary | std::ios::trunc); // a drive of its own file system
    file.write(sBytes.data(), static_cast<std::streamsize>(sBytes.size()));
    file.flush();
    if (!file) return hosted::ErrorFromErrno(errno);
    return 0;
}

bool GetText(const std::u16string &sText, char16_t *pszPath, int32_t cch)
{
    if (cch <= 0 || !CopyTextW(pszPath, static_cast<size_t>(cch), sText.c_str()))
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    return true;
}

} // namespace

bool platform::InitializeShellLinks()
{
    if (hosted::FailsNow("InitializeShellLinks")) return false;
    t_nInitialized++;
    return true;
}

void platform::UninitializeShellLinks()
{
    if (t_nInitialized == 0) hosted::Fatal("UninitializeShellLinks without InitializeShellLinks on this thread");
    t_nInitialized--;
}

platform::ShellLink *platform::LoadShellLink(const char16_t *pszPath)
{
    if (hosted::FailsNow("LoadShellLink")) return nullptr;
    hosted::DiskPath path;
    hosted::Located  found;
    uint32_t         dwError = t_nInitialized == 0 ? ERROR_NO_COM : Find(pszPath, &path, &found);
    if (dwError == 0 && !found.bExists) dwError = ERROR_FILE_NOT_FOUND;
    if (dwError == 0 && found.st.st_size > CB_LINK_MAX) dwError = ERROR_NOT_A_LINK;
    if (dwError == 0)
        dwError = hosted::TestSharing(found.sHost.c_str(), -1, found.st, hosted::SHARE_READ | hosted::SHARE_WRITE,
                                      hosted::SHARE_READ);
    if (dwError == 0) {
        std::ifstream     file(found.sHost, std::ios::binary);
        const std::string sBytes{std::istreambuf_iterator<char>(file), {}};
        ShellLink        *pLink = new ShellLink{path.sFull, {}};
        if (path.bVerbatim) pLink->sFile = u"\\\\?\\" + pLink->sFile;
        if (file && hosted::ParseLink(sBytes, &pLink->parts)) {
            hosted::g_nBlocks++;
            return pLink;
        }
        delete pLink;
        dwError = ERROR_NOT_A_LINK;
    }
    Fail(dwError);
    return nullptr;
}

platform::ShellLink *platform::NewShellLink()
{
    if (hosted::FailsNow("NewShellLink")) return nullptr;
    if (t_nInitialized == 0) {
        Fail(ERROR_NO_COM);
        return nullptr;
    }
    hosted::g_nBlocks++;
    return new ShellLink();
}

bool platform::GetShellLinkPath(ShellLink *pLink, char16_t *pszPath, int32_t cch)
{
    if (hosted::FailsNow("GetShellLinkPath")) return false;
    const std::u16string sTarget = hosted::LinkTarget(pLink->parts);
    return GetText(sTarget, pszPath, cch) && !sTarget.empty(); // a link without a path has none to give
}

bool platform::SetShellLinkPath(ShellLink *pLink, const char16_t *pszPath)
{
    if (hosted::FailsNow("SetShellLinkPath")) return false;
    hosted::DiskPath path;
    hosted::Located  found;
    if (pszPath == nullptr || pszPath[0] == 0 || pszPath[1] != u':' || pszPath[2] != u'\\')
        return Fail(ERROR_INVALID_PARAMETER);
    if (const uint32_t dwError = hosted::ParsePath(pszPath, &path)) return Fail(dwError);
    const bool bThere = hosted::Locate(path, &found) == 0 && found.bExists; // a target may be missing
    hosted::SetLinkTarget(&pLink->parts, path.sFull, bThere ? found.IsFolder() : path.bEndsInBackslash);
    pLink->parts.aHasText[hosted::LINK_RELATIVE_PATH] = false; // made anew when the link is saved
    if (bThere && !found.IsFolder()) {
        pLink->parts.dwAttributes = hosted::AttributesOf({found.sHost.c_str()}, found.st, found.bLink);
        pLink->parts.cbTarget     = static_cast<uint32_t>(found.st.st_size);
    }
    return true;
}

bool platform::GetShellLinkWorkingDirectory(ShellLink *pLink, char16_t *pszPath, int32_t cch)
{
    if (hosted::FailsNow("GetShellLinkWorkingDirectory")) return false;
    return GetText(pLink->parts.aTexts[hosted::LINK_WORKING_FOLDER], pszPath, cch);
}

bool platform::SetShellLinkWorkingDirectory(ShellLink *pLink, const char16_t *pszPath)
{
    if (hosted::FailsNow("SetShellLinkWorkingDirectory")) return false;
    if (pszPath == nullptr || TextLengthBoundedW(pszPath, MAX_PATH) == MAX_PATH) return Fail(ERROR_INVALID_PARAMETER);
    pLink->parts.aTexts[hosted::LINK_WORKING_FOLDER]   = pszPath;
    pLink->parts.aHasText[hosted::LINK_WORKING_FOLDER] = *pszPath != 0;
    return true;
}

bool platform::SaveShellLink(ShellLink *pLink, const char16_t *pszPath)
{
    if (hosted::FailsNow("SaveShellLink")) return false;
    hosted::DiskPath     path;
    hosted::Located      found;
    const std::u16string sFile = pszPath != nullptr ? pszPath : pLink->sFile;
    if (const uint32_t dwError = Find(sFile.c_str(), &path, &found)) return Fail(dwError);
    hosted::LinkParts   &parts   = pLink->parts;
    const std::u16string sTarget = hosted::LinkTarget(parts);
    if (!parts.aHasText[hosted::LINK_RELATIVE_PATH] && !sTarget.empty()) {
        parts.aTexts[hosted::LINK_RELATIVE_PATH]   = RelativePath(path.sFull, sTarget);
        parts.aHasText[hosted::LINK_RELATIVE_PATH] = !parts.aTexts[hosted::LINK_RELATIVE_PATH].empty();
    }
    if (const uint32_t dwError = WriteLink(path, found, hosted::LinkBytes(parts))) return Fail(dwError);
    pLink->sFile = sFile;
    return true;
}

void platform::ReleaseShellLink(ShellLink *pLink)
{
    if (pLink == nullptr) return;
    delete pLink;
    hosted::g_nBlocks--;
}
