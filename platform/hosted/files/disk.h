// disk.h: how the files of the hosted backend find and mark what stands behind a Windows path.
// Names    A Windows name is kept on the host in UTF-8 with its case. Look-ups go without regard to case: the exact
//          name first, then an index of the folder. A name of more than 255 bytes is kept as LONG_NAME_PREFIX and a
//          hash of its folded form, with the name itself as a mark of the file.
// Threads  any.
#pragma once
#include "platform/files.h"
#include <atomic>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace hosted {

constexpr std::string_view LONG_NAME_PREFIX = ".vorn~";

// ---- parsing (disk_paths.cpp) ----
struct DiskPath {
    std::u16string sFull;                    // "C:\a\b": one backslash between names, none at the end except a root's
    bool           bVerbatim        = false; // "\\?\": no limit of 260, dots and blanks at the end of names count
    bool           bEndsInBackslash = false;
    bool           IsRoot() const { return sFull.size() == 3; }
    char           Drive() const { return static_cast<char>(sFull[0]); } // upper case
    size_t         LeafAt() const { return sFull.rfind(u'\\') + 1; }
};
constexpr size_t PATH_LIMIT      = 260; // units with the terminator, without "\\?\"
constexpr size_t DIRECTORY_LIMIT = 248; // the same for a new folder, which must have room for a short file name
// 0, or ERROR_PATH_NOT_FOUND (empty, no such form, too long), ERROR_INVALID_NAME, ERROR_FILENAME_EXCED_RANGE.
// cchLimit 0: not limited. A relative path counts from C:\, the current folder of every process here.
uint32_t ParsePath(const char16_t *pszPath, DiskPath *pPath, size_t cchLimit = PATH_LIMIT);
// Equal as they stand.
inline bool SameUnits(std::u16string_view sLeft, std::u16string_view sRight)
{
    return sLeft.size() == sRight.size() &&
           std::memcmp(sLeft.data(), sRight.data(), sLeft.size() * sizeof(char16_t)) == 0;
}
// The name a Windows name has on the host, and back. sFolder is needed for long names only.
std::string    HostName(std::u16string_view sName);
std::u16string WindowsName(const std::string &sHostFolder, const char *pszHostName);
// True when the path is a device that Windows has in every folder, such as "nul" or "com1.txt".
bool IsDeviceName(std::u16string_view sName);
// ".../drive_c" for a drive of this machine, "" (ERROR_PATH_NOT_FOUND) for another.
std::string DriveFolder(char chDrive);

// ---- look-up (disk_lookup.cpp) ----
struct Located {
    std::string     sHost;   // with the stored case; for a missing name, as it would be made
    std::string     sFolder; // the host folder it is in
    bool            bExists = false;
    bool            bLink = false; // a symbolic link; st is the target's, or the link's own when the target is missing
    struct stat     st    = {};    // kind, identity, size and times; the rest is 0
    struct timespec tCreated = {}; // of the last write where the host keeps none
    bool            IsFolder() const { return bExists && S_ISDIR(st.st_mode); }
};
// Looks at what sHost names and fills in the rest but sFolder. False: errno.
bool Look(Located *pFound);
// 0: found, or only the last name is missing. ERROR_PATH_NOT_FOUND: a folder on the way is missing.
uint32_t Locate(const DiskPath &path, Located *pFound);
// True when the path's exact name was a plain file, no link, when this thread last looked at anything on the host. Its
// place is filled in; it is not looked at.
bool LocateSeenFile(const DiskPath &path, Located *pFound);
// After a folder was moved or removed: what is known below it is void.
void ForgetFolders();

// ---- indexes of folders (folder_index.cpp) ----
enum class IndexAnswer { Absent, Present, NoFolder };
// Looks for a name without regard to case; *psHostName receives the stored one.
IndexAnswer FindInFolder(const std::string &sFolder, std::u16string_view sName, std::string *psHostName);
// True when the folder has an index, and that lacks the name.
bool IndexLacks(const std::string &sFolder, std::u16string_view sName);
// This process has just given the folder that name: a look at it need not wait for the host's news.
void IndexGains(const std::string &sFolder, std::u16string_view sName);
void DropIndexes();

// ---- counters in memory that all processes of the machine share (generations.cpp) ----
enum class Generations { Files, Opens };
// One counter for each key, shared by a few keys. A process that sees it unchanged knows that no process of this
// machine has changed what the key names in between.
std::atomic<uint32_t> &Generation(Generations eKind, uint64_t nKey);
uint64_t               HashBytes(std::string_view sBytes);
uint64_t               HashFolded(std::u16string_view sText); // the same for texts that differ in case only

// ---- marks of a file (file_marks.cpp) ----
// Kept with the file as extended attributes; on a file system without them, in run/marks by device and inode.
struct MarkedFile {
    const char *pszPath; // used when nFd is negative
    int         nFd = -1;
};
inline constexpr const char *MARK_ATTRIBUTES = "user.vorn.attributes"; // hexadecimal
inline constexpr const char *MARK_EVERYONE   = "user.vorn.everyone";   // hexadecimal
inline constexpr const char *MARK_NAME       = "user.vorn.name";
bool                         ReadMark(const MarkedFile &file, const char *pszMark, std::string *psValue); // false: none
bool WriteMark(const MarkedFile &file, const char *pszMark, const std::string &sValue); // false: errno
bool RemoveMark(const MarkedFile &file, const char *pszMark);
void CopyMarks(const MarkedFile &from, const MarkedFile &to);
// The attributes as GetFileAttributesW gives them.
uint32_t AttributesOf(const MarkedFile &file, const struct stat &st, bool bLink);
bool     SetAttributesOf(const MarkedFile &file, const struct stat &st, uint32_t dwAttributes);
bool     ReadHexMark(const MarkedFile &file, const char *pszMark, uint32_t *pdwValue);
bool     WriteHexMark(const MarkedFile &file, const char *pszMark, uint32_t dwValue);

// ---- sharing between handles of all processes (file_sharing.cpp) ----
constexpr unsigned SHARE_READ = 1, SHARE_WRITE = 2, SHARE_DELETE = 4;
// The counter of open handles of a file. Never too low: a process that was killed leaves it too high, which only costs
// a look at the locks.
std::atomic<uint32_t> &OpenCount(const struct stat &st);
// Takes part with so much access and lets others have so much, until the descriptor is closed; the count has gone up
// then and is the caller's to lower. 0, or ERROR_SHARING_VIOLATION. bNew: the file has just been made, so nobody can
// have it open.
uint32_t JoinSharing(int nFd, std::atomic<uint32_t> &nOpen, unsigned nAccess, unsigned nShare, bool bNew);
// 0 or ERROR_SHARING_VIOLATION for one operation that needs so much access. nFd -1: the file is opened for the look.
uint32_t TestSharing(const char *pszHost, int nFd, const struct stat &st, unsigned nAccess, unsigned nShare);
// True when a handle of any process has it open.
bool IsOpenAnywhere(int nFd, const struct stat &st);

// ---- room on drives (drive_limits.cpp) ----
// Takes so many bytes of the room that SetDriveLimit left. False: ERROR_DISK_FULL.
bool TakeRoom(char chDrive, int64_t cb);

// ---- Windows' times of a file ----
platform::FILETIME FileTime(const struct timespec &ts);

} // namespace hosted
