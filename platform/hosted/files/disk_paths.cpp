// disk_paths.cpp: from the text of a Windows path to names on the host.
// Not kept here: alternate streams ("a.txt:b" is an invalid name), network paths (there is no network file system, so
// they are not found), and a current folder for each drive. The host's limit of 255 bytes for a name does not show:
// disk.h says how longer names are stored.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <cstdio>
#include <string_view>

namespace hosted {
namespace {

using platform::FoldCaseW;

constexpr size_t NAME_LIMIT      = 255; // UTF-16 units, as NTFS
constexpr size_t HOST_NAME_LIMIT = 255; // bytes
constexpr size_t LONGEST_PATH    = 32767;

bool IsSeparator(char16_t ch, bool bVerbatim)
{
    return ch == u'\\' || (ch == u'/' && !bVerbatim);
}

bool IsDriveLetter(char16_t ch)
{
    return (ch | 32) >= u'a' && (ch | 32) <= u'z';
}

bool HasInvalidUnit(std::u16string_view sName)
{
    for (const char16_t ch : sName) {
        if (ch < 32) return true;
        if (ch > u'|' || (ch > u'?' && ch < u'|')) continue; // nearly all
        switch (ch) {
        case u'<':
        case u'>':
        case u':':
        case u'"':
        case u'/':
        case u'|':
        case u'?':
        case u'*': return true;
        default: break;
        }
    }
    return false;
}

bool EqualsFolded(std::u16string_view sLeft, std::u16string_view sRight)
{
    return sLeft.size() == sRight.size() &&
           platform::CompareTextNoCaseN_W(sLeft.data(), sRight.data(), sLeft.size()) == 0;
}

// Adds the names of sRest to pPath->sFull. 0 or an error.
uint32_t AddNames(std::u16string_view sRest, DiskPath *pPath)
{
    const bool bVerbatim = pPath->bVerbatim;
    size_t     nAt       = 0;
    while (nAt < sRest.size()) {
        size_t nEnd = nAt;
        while (nEnd < sRest.size() && !IsSeparator(sRest[nEnd], bVerbatim)) nEnd++;
        std::u16string_view sName = sRest.substr(nAt, nEnd - nAt);
        pPath->bEndsInBackslash   = nEnd < sRest.size();
        nAt                       = nEnd + 1;
        if (sName.empty()) {
            if (bVerbatim && nEnd < sRest.size()) return platform::ERROR_INVALID_NAME; // "\\?\C:\a\\b"
            continue;
        }
        if (sName == u"." || sName == u"..") {
            if (bVerbatim) return platform::ERROR_INVALID_NAME;
            if (sName == u".." && pPath->sFull.size() > 3) {
                const size_t nParent = pPath->sFull.rfind(u'\\');
                pPath->sFull.resize(nParent < 3 ? 3 : nParent);
            }
            continue;
        }
        if (!bVerbatim) {
            while (!sName.empty() && (sName.back() == u'.' || sName.back() == u' ')) sName.remove_suffix(1);
            if (sName.empty()) continue;
        }
        if (sName.size() > NAME_LIMIT || HasInvalidUnit(sName)) return platform::ERROR_INVALID_NAME;
        if (pPath->sFull.size() > 3) pPath->sFull += u'\\';
        pPath->sFull += sName;
    }
    return 0;
}

uint32_t Parse(std::u16string_view sPath, DiskPath *pPath, size_t cchLimit)
{
    const size_t cchGiven   = sPath.size();
    pPath->bVerbatim        = sPath.substr(0, 4) == u"\\\\?\\";
    pPath->bEndsInBackslash = false;
    if (pPath->bVerbatim) sPath.remove_prefix(4);

    char16_t chDrive = u'C';
    if (sPath.size() >= 2 && IsDriveLetter(sPath[0]) && sPath[1] == u':') {
        chDrive = FoldCaseW(sPath[0]);
        sPath.remove_prefix(2);
        if (pPath->bVerbatim && !sPath.empty() && sPath[0] != u'\\') return platform::ERROR_INVALID_NAME;
    } else if (pPath->bVerbatim ||
               (sPath.size() >= 2 && IsSeparator(sPath[0], false) && IsSeparator(sPath[1], false))) {
        return platform::ERROR_PATH_NOT_FOUND; // the network, or a device
    }
    if (!sPath.empty() && IsSeparator(sPath[0], pPath->bVerbatim)) sPath.remove_prefix(1);
    pPath->sFull.clear();
    pPath->sFull.reserve(sPath.size() + 3);
    pPath->sFull = {chDrive, u':', u'\\'};
    if (const uint32_t dwError = AddNames(sPath, pPath)) return dwError;
    if (pPath->IsRoot()) pPath->bEndsInBackslash = true;
    if (!pPath->bVerbatim && cchLimit != 0 && (cchGiven >= cchLimit || pPath->sFull.size() >= cchLimit))
        return platform::ERROR_PATH_NOT_FOUND;
    return 0;
}

} // namespace

bool IsDeviceName(std::u16string_view sName)
{
    std::u16string_view sBase = sName.substr(0, sName.find(u'.'));
    while (!sBase.empty() && sBase.back() == u' ') sBase.remove_suffix(1);
    for (const std::u16string_view sDevice : {u"CON", u"PRN", u"AUX", u"NUL"})
        if (EqualsFolded(sBase, sDevice)) return true;
    if (sBase.size() != 4 || sBase[3] < u'1' || sBase[3] > u'9') return false;
    return EqualsFolded(sBase.substr(0, 3), u"COM") || EqualsFolded(sBase.substr(0, 3), u"LPT");
}

// A path is mostly named several times in a row, so what a thread had parsed last is kept.
uint32_t ParsePath(const char16_t *pszPath, DiskPath *pPath, size_t cchLimit)
{
    struct Parsed {
        std::u16string sText;
        size_t         cchLimit = 0;
        DiskPath       path;
    };
    constexpr size_t           KEPT = 4;
    static thread_local Parsed t_aParsed[KEPT];
    static thread_local size_t t_nNext = 0;
    if (pszPath == nullptr || *pszPath == 0) return platform::ERROR_PATH_NOT_FOUND;
    const std::u16string_view sPath(pszPath, platform::TextLengthBoundedW(pszPath, LONGEST_PATH + 1));
    if (sPath.size() > LONGEST_PATH) return platform::ERROR_FILENAME_EXCED_RANGE;
    for (const Parsed &parsed : t_aParsed) {
        if (parsed.cchLimit != cchLimit || !SameUnits(parsed.sText, sPath)) continue;
        *pPath = parsed.path;
        return 0;
    }
    const uint32_t dwError = Parse(sPath, pPath, cchLimit);
    if (dwError == 0) t_aParsed[t_nNext++ % KEPT] = {std::u16string(sPath), cchLimit, *pPath};
    return dwError;
}

std::string HostName(std::u16string_view sName)
{
    std::string sHost = ToUtf8(sName);
    if (sHost.size() <= HOST_NAME_LIMIT) return sHost;
    // Two hashes of the folded name: equal for case variants, different for different names but for a chance of 2^-128.
    std::u16string sSalted = u"\x0001";
    sSalted += sName;
    char szHash[40];
    std::snprintf(szHash, sizeof(szHash), "%016llx%016llx", static_cast<unsigned long long>(HashFolded(sName)),
                  static_cast<unsigned long long>(HashFolded(sSalted)));
    return std::string(LONG_NAME_PREFIX) + szHash;
}

std::u16string WindowsName(const std::string &sHostFolder, const char *pszHostName)
{
    const std::string_view sHost = pszHostName;
    if (sHost.substr(0, LONG_NAME_PREFIX.size()) == LONG_NAME_PREFIX) {
        const std::string sPath = sHostFolder + '/' + pszHostName;
        std::string       sName;
        if (ReadMark({sPath.c_str()}, MARK_NAME, &sName)) return ToUtf16(sName);
    }
    return ToUtf16(sHost);
}

std::string DriveFolder(char chDrive)
{
    const std::string sMachine = MachineFolder();
    std::string       sFolder;
    if (!sMachine.empty() && chDrive >= 'A' && chDrive <= 'Z') {
        sFolder = sMachine + "/drive_" + static_cast<char>(chDrive | 32);
        struct stat st;
        if (stat(sFolder.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return sFolder;
    }
    SetError(platform::ERROR_PATH_NOT_FOUND);
    return "";
}

platform::FILETIME FileTime(const struct timespec &ts)
{
    constexpr uint64_t EPOCH_1970 = 116444736000000000; // 100 ns since 1601
    const uint64_t     n =
        EPOCH_1970 + static_cast<uint64_t>(ts.tv_sec) * 10000000 + static_cast<uint64_t>(ts.tv_nsec) / 100;
    return {static_cast<uint32_t>(n), static_cast<uint32_t>(n >> 32)};
}

} // namespace hosted
