// path.cpp: path text functions.
// Each follows the system function of its name in what counts as a root and which separators it knows: only the last
// component function takes slashes and drive colons; the others know the backslash alone.
#include "platform/path.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr HRESULT RESULT_OK                  = 0;
constexpr HRESULT RESULT_FALSE               = 1;
constexpr HRESULT RESULT_INVALID_ARGUMENT    = static_cast<HRESULT>(0x80070057);
constexpr HRESULT RESULT_INSUFFICIENT_BUFFER = static_cast<HRESULT>(0x8007007A);
constexpr size_t  PATH_CAPACITY_MAX          = 0x8000;

bool IsLetter(char16_t c)
{
    return (c | 32) >= u'a' && (c | 32) <= u'z';
}

// The length of "\\?\Volume{GUID}", or 0.
size_t VolumeLength(const char16_t *psz)
{
    static const char16_t szPrefix[] = u"\\\\?\\Volume{";
    constexpr size_t      cchPrefix  = 11;
    constexpr size_t      cchGuid    = 36;
    if (CompareTextNoCaseN_W(psz, szPrefix, cchPrefix) != 0) return 0;
    for (size_t i = 0; i < cchGuid; i++) {
        const char16_t c       = psz[cchPrefix + i];
        const bool     bHyphen = i == 8 || i == 13 || i == 18 || i == 23;
        const bool     bHex    = (c >= u'0' && c <= u'9') || ((c | 32) >= u'a' && (c | 32) <= u'f');
        if (bHyphen ? c != u'-' : !bHex) return 0;
    }
    return psz[cchPrefix + cchGuid] == u'}' ? cchPrefix + cchGuid + 1 : 0;
}

// The length of "server\share" from psz on, without a backslash at its end.
size_t ServerShareLength(const char16_t *psz)
{
    size_t nServer = 0;
    while (psz[nServer] != 0 && psz[nServer] != u'\\') nServer++;
    size_t n = nServer;
    if (psz[n] == u'\\') n++;
    while (psz[n] != 0 && psz[n] != u'\\') n++;
    return n > nServer + 1 ? n : nServer;
}

// How much of a path is its root. The backslash after a drive or volume belongs to it, the one after a share does not.
size_t RootLength(const char16_t *psz)
{
    if (CompareTextNoCaseN_W(psz, u"\\\\?\\UNC\\", 8) == 0) return 8 + ServerShareLength(psz + 8);
    if (CompareTextNoCaseN_W(psz, u"\\\\?\\", 4) == 0) {
        if (const size_t n = VolumeLength(psz)) return psz[n] == u'\\' ? n + 1 : n;
        if (IsLetter(psz[4]) && psz[5] == u':') return psz[6] == u'\\' ? 7 : 6;
        return 3;
    }
    if (psz[0] == u'\\' && psz[1] == u'\\') return 2 + ServerShareLength(psz + 2);
    if (psz[0] == u'\\') return 1;
    if (IsLetter(psz[0]) && psz[1] == u':') return psz[2] == u'\\' ? 3 : 2;
    return 0;
}

} // namespace

BOOL PathRemoveFileSpecA(char *pszPath)
{
    if (pszPath == nullptr) return FALSE;
    char *psz = pszPath;
    while (psz < pszPath + 2 && *psz == '\\') psz++; // a leading backslash, or the two of a network path, stay
    char *pszCut = psz;
    while (*psz != 0) {
        if (*psz == '\\') pszCut = psz++;
        else if (*psz++ == ':') pszCut = *psz == '\\' ? ++psz : psz;
    }
    if (*pszCut == 0) return FALSE;
    *pszCut = 0;
    return TRUE;
}

HRESULT PathCchRemoveFileSpec(char16_t *pszPath, size_t cch)
{
    if (pszPath == nullptr || cch == 0 || cch > PATH_CAPACITY_MAX) return RESULT_INVALID_ARGUMENT;
    const size_t nLength = TextLengthBoundedW(pszPath, cch);
    if (nLength == cch) return RESULT_INVALID_ARGUMENT;
    const size_t nRoot = RootLength(pszPath);
    size_t       nCut  = nLength;
    while (nCut > nRoot && pszPath[nCut - 1] != u'\\') nCut--;
    if (nCut > nRoot) nCut--; // the backslash goes with its component, except for the root's
    if (nCut == nLength) return RESULT_FALSE;
    pszPath[nCut] = 0;
    return RESULT_OK;
}

HRESULT PathCchAddBackslash(char16_t *pszPath, size_t cch)
{
    if (pszPath == nullptr || cch > PATH_CAPACITY_MAX) return RESULT_INVALID_ARGUMENT;
    const size_t nLength = TextLengthBoundedW(pszPath, cch);
    if (nLength == cch) return RESULT_INVALID_ARGUMENT;
    if (nLength == 0 || pszPath[nLength - 1] == u'\\') return RESULT_FALSE;
    if (nLength + 1 == cch) return RESULT_INSUFFICIENT_BUFFER;
    pszPath[nLength]     = u'\\';
    pszPath[nLength + 1] = 0;
    return RESULT_OK;
}

const char16_t *PathFindFileNameW(const char16_t *pszPath)
{
    const char16_t *pszName = pszPath;
    for (const char16_t *psz = pszPath; psz != nullptr && *psz != 0; psz++) {
        const bool bSeparator = *psz == u'\\' || *psz == u'/' || *psz == u':';
        if (bSeparator && psz[1] != 0 && psz[1] != u'\\' && psz[1] != u'/') pszName = psz + 1;
    }
    return pszName;
}

const char16_t *PathFindExtensionW(const char16_t *pszPath)
{
    if (pszPath == nullptr) return nullptr;
    const char16_t *pszDot = nullptr;
    const char16_t *psz    = pszPath;
    for (; *psz != 0; psz++) {
        if (*psz == u'.') pszDot = psz;
        else if (*psz == u'\\' || *psz == u' ') pszDot = nullptr;
    }
    return pszDot != nullptr ? pszDot : psz;
}

static constexpr char16_t LONG_PREFIX[]     = u"\\\\?\\";
static constexpr size_t   LONG_PREFIX_UNITS = 4;

const char16_t *LongPathForm(const char16_t *pszPath, size_t cchLimit, char16_t (&szLong)[LONG_PATH_UNITS])
{
    if (TextLengthBoundedW(pszPath, cchLimit) < cchLimit) return pszPath;
    if (CompareTextNoCaseN_W(pszPath, LONG_PREFIX, LONG_PREFIX_UNITS) == 0) return pszPath;
    return FormatTextW(szLong, LONG_PATH_UNITS, u"%s%s", LONG_PREFIX, pszPath) < 0 ? pszPath : szLong;
}

} // namespace platform
