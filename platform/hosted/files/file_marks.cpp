// file_marks.cpp: what Windows keeps with a file and the host does not: attributes, the access list for Everyone, long
// names. They are extended attributes of the file, so they move with it. On a file system without such attributes a
// mark is a small file in run/marks, named by device and inode and void for an inode that is younger than the mark.
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/host_files.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

namespace hosted {
namespace {

using namespace platform;

// What SetFileAttributesW can set; the rest of the bits say what the file is.
constexpr uint32_t ATTRIBUTE_TEMPORARY   = 0x00000100;
constexpr uint32_t ATTRIBUTE_OFFLINE     = 0x00001000;
constexpr uint32_t ATTRIBUTE_NOT_INDEXED = 0x00002000;
constexpr uint32_t SETTABLE              = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                              FILE_ATTRIBUTE_ARCHIVE | ATTRIBUTE_TEMPORARY | ATTRIBUTE_OFFLINE | ATTRIBUTE_NOT_INDEXED;
constexpr size_t CB_VALUE_MAX = 1024; // a name of 255 units takes at most 765 bytes

bool LacksAttributes(int nErrno)
{
    return nErrno == ENOTSUP || nErrno == EPERM || nErrno == ENOSYS;
}

// ---- the substitute in run/marks ----
bool StatxOf(const MarkedFile &file, struct statx *pSx)
{
    return file.nFd >= 0 ? statx(file.nFd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, pSx) == 0
                         : statx(AT_FDCWD, file.pszPath, 0, STATX_BASIC_STATS | STATX_BTIME, pSx) == 0;
}

// The mark's own file, and the line that ties it to this use of the inode.
bool SideFile(const MarkedFile &file, const char *pszMark, std::string *psPath, std::string *psTie)
{
    struct statx sx;
    if (!StatxOf(file, &sx)) return false;
    const std::string sFolder = RunFolder("marks");
    if (sFolder.empty()) return false;
    *psPath = sFolder + '/' + std::to_string(sx.stx_dev_major) + '-' + std::to_string(sx.stx_dev_minor) + '-' +
              std::to_string(sx.stx_ino) + '.' + pszMark;
    *psTie = (sx.stx_mask & STATX_BTIME) != 0
                 ? std::to_string(sx.stx_btime.tv_sec) + '.' + std::to_string(sx.stx_btime.tv_nsec) + '\n'
                 : "-\n";
    return true;
}

bool ReadSide(const MarkedFile &file, const char *pszMark, std::string *psValue)
{
    std::string sPath, sTie;
    if (!SideFile(file, pszMark, &sPath, &sTie)) return false;
    const int nFd = open(sPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (nFd < 0) return false;
    char          aValue[CB_VALUE_MAX + 64];
    const ssize_t cb = read(nFd, aValue, sizeof(aValue));
    close(nFd);
    if (cb < static_cast<ssize_t>(sTie.size()) || std::memcmp(aValue, sTie.data(), sTie.size()) != 0) return false;
    psValue->assign(aValue + sTie.size(), static_cast<size_t>(cb) - sTie.size());
    return true;
}

bool WriteSide(const MarkedFile &file, const char *pszMark, const std::string &sValue)
{
    std::string sPath, sTie;
    if (!SideFile(file, pszMark, &sPath, &sTie)) return false;
    return WriteWholeFile(sPath, sTie + sValue);
}

} // namespace

bool ReadMark(const MarkedFile &file, const char *pszMark, std::string *psValue)
{
    char          aValue[CB_VALUE_MAX];
    const ssize_t cb = file.nFd >= 0 ? fgetxattr(file.nFd, pszMark, aValue, sizeof(aValue))
                                     : getxattr(file.pszPath, pszMark, aValue, sizeof(aValue));
    if (cb >= 0) {
        psValue->assign(aValue, static_cast<size_t>(cb));
        return true;
    }
    return LacksAttributes(errno) && ReadSide(file, pszMark, psValue);
}

bool WriteMark(const MarkedFile &file, const char *pszMark, const std::string &sValue)
{
    const int nResult = file.nFd >= 0 ? fsetxattr(file.nFd, pszMark, sValue.data(), sValue.size(), 0)
                                      : setxattr(file.pszPath, pszMark, sValue.data(), sValue.size(), 0);
    return nResult == 0 || (LacksAttributes(errno) && WriteSide(file, pszMark, sValue));
}

bool RemoveMark(const MarkedFile &file, const char *pszMark)
{
    const int nResult = file.nFd >= 0 ? fremovexattr(file.nFd, pszMark) : removexattr(file.pszPath, pszMark);
    if (nResult == 0 || errno == ENODATA) return true;
    if (!LacksAttributes(errno)) return false;
    std::string sPath, sTie;
    return SideFile(file, pszMark, &sPath, &sTie) && (unlink(sPath.c_str()) == 0 || errno == ENOENT);
}

void CopyMarks(const MarkedFile &from, const MarkedFile &to)
{
    for (const char *pszMark : {MARK_ATTRIBUTES, MARK_EVERYONE, MARK_NAME}) {
        std::string sValue;
        if (ReadMark(from, pszMark, &sValue)) WriteMark(to, pszMark, sValue);
    }
}

bool ReadHexMark(const MarkedFile &file, const char *pszMark, uint32_t *pdwValue)
{
    std::string sValue;
    if (!ReadMark(file, pszMark, &sValue) || sValue.empty()) return false;
    char *pszEnd = nullptr;
    *pdwValue    = static_cast<uint32_t>(std::strtoul(sValue.c_str(), &pszEnd, 16));
    return *pszEnd == '\0';
}

bool WriteHexMark(const MarkedFile &file, const char *pszMark, uint32_t dwValue)
{
    char szValue[16];
    std::snprintf(szValue, sizeof(szValue), "%x", dwValue);
    return WriteMark(file, pszMark, szValue);
}

// The mark of the attributes; false: none. Every change of a mark changes the file's time of change, so a mark is known
// as long as that stands; not while that is so young that a further change might not show in it.
static bool AttributesMark(const MarkedFile &file, const struct stat &st, uint32_t *pdwAttributes)
{
    struct Known {
        dev_t           nDevice = 0;
        ino_t           nInode  = 0;
        struct timespec tChange = {};
        bool            bMark   = false;
        uint32_t        dwMark  = 0;
    };
    constexpr time_t           YOUNG_S = 2;
    constexpr size_t           KEPT    = 4;
    static thread_local Known  t_aKnown[KEPT];
    static thread_local size_t t_nNext = 0;
    for (const Known &known : t_aKnown) {
        if (known.nInode != st.st_ino || known.nDevice != st.st_dev || known.tChange.tv_sec != st.st_ctim.tv_sec ||
            known.tChange.tv_nsec != st.st_ctim.tv_nsec || st.st_ctim.tv_sec == 0)
            continue;
        *pdwAttributes = known.dwMark;
        return known.bMark;
    }
    errno            = 0;
    const bool bMark = ReadHexMark(file, MARK_ATTRIBUTES, pdwAttributes);
    if (errno == (bMark ? 0 : ENODATA) && st.st_ctim.tv_sec != 0) { // not what stands in run/marks
        struct timespec tNow;
        clock_gettime(CLOCK_REALTIME_COARSE, &tNow);
        if (tNow.tv_sec - st.st_ctim.tv_sec > YOUNG_S)
            t_aKnown[t_nNext++ % KEPT] = {st.st_dev, st.st_ino, st.st_ctim, bMark, bMark ? *pdwAttributes : 0};
    }
    return bMark;
}

uint32_t AttributesOf(const MarkedFile &file, const struct stat &st, bool bLink)
{
    const bool bFolder      = S_ISDIR(st.st_mode);
    uint32_t   dwAttributes = 0;
    if (!AttributesMark(file, st, &dwAttributes)) dwAttributes = bFolder ? 0 : FILE_ATTRIBUTE_ARCHIVE;
    dwAttributes &= SETTABLE;
    if (bFolder) dwAttributes |= FILE_ATTRIBUTE_DIRECTORY;
    if (bLink) dwAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    return dwAttributes == 0 ? FILE_ATTRIBUTE_NORMAL : dwAttributes;
}

bool SetAttributesOf(const MarkedFile &file, const struct stat &st, uint32_t dwAttributes)
{
    dwAttributes &= SETTABLE;
    // What a file without a mark has needs none: nearly every file of a migration.
    if (dwAttributes == (S_ISDIR(st.st_mode) ? 0 : FILE_ATTRIBUTE_ARCHIVE)) return RemoveMark(file, MARK_ATTRIBUTES);
    return WriteHexMark(file, MARK_ATTRIBUTES, dwAttributes);
}

} // namespace hosted
