// final_path.cpp: where a path leads once every symbolic link on the host is followed; they stand for a machine's
// junctions. What lies outside the machine's drives keeps its host path behind "\\?\HOST": no drive has it.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

// "" when it cannot be resolved (errno).
std::string RealPath(const std::string &sHost)
{
    char *const       psz   = realpath(sHost.c_str(), nullptr);
    const std::string sReal = psz != nullptr ? psz : "";
    std::free(psz);
    return sReal;
}

std::u16string WindowsPath(const std::string &sReal)
{
    std::u16string sRest;
    std::u16string sStart = u"\\\\?\\HOST";
    size_t         cbHost = 0;
    for (char ch = 'A'; ch <= 'Z' && cbHost == 0; ch++) {
        const std::string sDrive = hosted::DriveFolder(ch);
        const std::string sRoot  = sDrive.empty() ? "" : RealPath(sDrive);
        if (sRoot.empty() || sReal.compare(0, sRoot.size(), sRoot) != 0) continue;
        if (sReal.size() > sRoot.size() && sReal[sRoot.size()] != '/') continue;
        sStart = std::u16string(u"\\\\?\\") + static_cast<char16_t>(ch) + u':';
        cbHost = sRoot.size();
    }
    sRest = hosted::ToUtf16(sReal.substr(cbHost));
    std::replace(sRest.begin(), sRest.end(), u'/', u'\\');
    return sStart + (sRest.empty() ? u"\\" : sRest);
}

} // namespace

bool platform::GetFinalPath(const char16_t *pszPath, char16_t *pszFinal, uint32_t cch)
{
    hosted::DiskPath path;
    hosted::Located  found;
    if (hosted::FailsNow("GetFinalPath")) return false;
    uint32_t dwError = hosted::ParsePath(pszPath, &path);
    if (dwError == 0) dwError = hosted::Locate(path, &found);
    if (dwError == 0 && !found.bExists) dwError = ERROR_FILE_NOT_FOUND;
    const std::string sReal = dwError == 0 ? RealPath(found.sHost) : "";
    if (dwError == 0 && sReal.empty()) dwError = hosted::ErrorFromErrno(errno);
    if (dwError == 0 && !CopyTextW(pszFinal, cch, WindowsPath(sReal).c_str())) dwError = ERROR_INSUFFICIENT_BUFFER;
    hosted::SetError(dwError);
    return dwError == 0;
}
