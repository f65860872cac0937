// shell32.cpp: the two functions of shell32.dll that do something on a hosted machine.
// ShellExecuteA    verb "open" (or none) on a program's full path. The program runs detached, with nothing on its
//                  standard streams, on the same machine; the settings that pretend trouble stay with this process. A
//                  thread waits for its end, so that it leaves no dead entry behind.
// SHFileOperationW FO_DELETE without any window, of whole trees; no patterns.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/user_interface_table.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/program.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include "platform/user_interface.h"
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using namespace platform;
namespace fs = std::filesystem;

constexpr uintptr_t SHELL_STARTED = 42, SE_ERR_FNF = 2, SE_ERR_PNF = 3, SE_ERR_ACCESSDENIED = 5, SE_ERR_OOM = 8,
                    SE_ERR_NOASSOC = 31;
constexpr unsigned ALLOW_ALL       = hosted::SHARE_READ | hosted::SHARE_WRITE | hosted::SHARE_DELETE;
constexpr uint16_t DELETE_FLAGS    = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI;

// This process's environment, on its machine, less what pretends trouble in this process.
std::vector<std::string> ChildEnvironment()
{
    static const char *const s_aOwn[] = {
        "VORN_MACHINE=",       "VORN_FAULTS=",         "VORN_SOCKET_TIMEOUT_MS=", "VORN_DRIVE_FULL=",
        "VORN_LINK_DELAY_MS=", "VORN_LINK_CUT_AFTER=", "VORN_REUSE_SOCKETS=",     "VORN_MISSING="};
    std::vector<std::string> aVariables;
    for (char **pp = environ; *pp != nullptr; pp++) {
        bool bOwn = false;
        for (const char *pszOwn : s_aOwn) bOwn = bOwn || std::strncmp(*pp, pszOwn, std::strlen(pszOwn)) == 0;
        if (!bOwn) aVariables.emplace_back(*pp);
    }
    aVariables.push_back(std::string("VORN_MACHINE=") + hosted::MachineFolder());
    return aVariables;
}

std::vector<char *> Pointers(std::vector<std::string> &aTexts)
{
    std::vector<char *> aPointers;
    aPointers.reserve(aTexts.size() + 1);
    for (std::string &sText : aTexts) aPointers.push_back(sText.data());
    aPointers.push_back(nullptr);
    return aPointers;
}

// 0 or an errno.
int SpawnDetached(std::vector<std::string> aArguments, const char *pszFolder)
{
    std::vector<std::string>   aVariables = ChildEnvironment();
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t          attributes;
    sigset_t                   noSignals, pipeSignal;
    pid_t                      nPid = -1;
    sigemptyset(&noSignals);
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
    if (pszFolder != nullptr) posix_spawn_file_actions_addchdir_np(&actions, pszFolder);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    posix_spawnattr_setsigdefault(&attributes, &pipeSignal);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int nErrno = posix_spawn(&nPid, aArguments[0].c_str(), &actions, &attributes, Pointers(aArguments).data(),
                                   Pointers(aVariables).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (nErrno != 0) return nErrno;
    try {
        std::thread([nPid] {
            while (::waitpid(nPid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error &) {
        // no thread to be had: the entry stays until this process ends, the program runs all the same
    }
    return 0;
}

HINSTANCE ShellResult(uintptr_t nResult)
{
    if (nResult <= 32) hosted::SetError(static_cast<uint32_t>(nResult));
    return reinterpret_cast<HINSTANCE>(nResult);
}

HINSTANCE ShellExecuteA(HWND, const char *pszVerb, const char *pszFile, const char *pszParameters,
                        const char *pszFolder, int32_t nShow)
{
    uint32_t    dwError = 0;
    char        szProgram[PATH_MAX], szFolder[PATH_MAX];
    struct stat status = {};
    if (hosted::FailsNow("ShellExecuteA", &dwError)) return ShellResult(dwError <= 32 ? dwError : SE_ERR_ACCESSDENIED);
    if (pszVerb != nullptr && CompareTextNoCaseA(pszVerb, "open") != 0) return ShellResult(SE_ERR_NOASSOC);
    if (nShow != SW_HIDE) return ShellResult(SE_ERR_NOASSOC); // there is nothing to show a window on
    if (pszFile == nullptr || !hosted::HostPath(hosted::ToUtf16(pszFile).c_str(), szProgram, sizeof(szProgram)))
        return ShellResult(SE_ERR_FNF);
    if (pszFolder != nullptr && !hosted::HostPath(hosted::ToUtf16(pszFolder).c_str(), szFolder, sizeof(szFolder)))
        return ShellResult(SE_ERR_PNF);
    if (::stat(szProgram, &status) != 0) return ShellResult(errno == ENOTDIR ? SE_ERR_PNF : SE_ERR_FNF);
    if (!S_ISREG(status.st_mode)) return ShellResult(SE_ERR_ACCESSDENIED);

    std::vector<std::string> aArguments = {szProgram};
    if (pszParameters != nullptr)
        for (const std::u16string &sArgument : hosted::SplitArguments(hosted::ToUtf16(pszParameters).c_str()))
            aArguments.push_back(hosted::ToUtf8(sArgument));
    switch (SpawnDetached(std::move(aArguments), pszFolder != nullptr ? szFolder : nullptr)) {
    case 0: return ShellResult(SHELL_STARTED);
    case ENOENT: return ShellResult(SE_ERR_FNF);
    case ENOMEM:
    case EAGAIN: return ShellResult(SE_ERR_OOM);
    default: return ShellResult(SE_ERR_ACCESSDENIED);
    }
}

std::vector<std::string> NamesIn(const std::string &sHostFolder)
{
    std::vector<std::string> aNames;
    std::error_code          error;
    for (fs::directory_iterator it(sHostFolder, error), end; !error && it != end; it.increment(error))
        aNames.push_back(it->path().filename().string());
    return aNames;
}

// Removes a file, a link (not what it leads to) or a whole tree; Windows' read-only mark keeps nothing. 0 or an error
// code, the rest of the tree then stays. sFull: the Windows path, by which other processes remember files.
uint32_t DeleteTree(const std::u16string &sFull, const std::string &sHost)
{
    struct stat status = {};
    if (::lstat(sHost.c_str(), &status) != 0) return hosted::ErrorFromErrno(errno);
    if (S_ISDIR(status.st_mode)) {
        ::chmod(sHost.c_str(), status.st_mode | S_IRWXU); // Windows asks nothing of a folder whose entries are to go
        for (const std::string &sName : NamesIn(sHost)) {
            const std::u16string sEntry = sFull + u'\\' + hosted::WindowsName(sHost, sName.c_str());
            if (const uint32_t dwError = DeleteTree(sEntry, sHost + '/' + sName)) return dwError;
        }
        if (::rmdir(sHost.c_str()) != 0) return hosted::ErrorFromErrno(errno);
        hosted::ForgetFolders();
    } else {
        if (S_ISREG(status.st_mode))
            if (const uint32_t dwError =
                    hosted::TestSharing(sHost.c_str(), -1, status, hosted::SHARE_DELETE, ALLOW_ALL))
                return dwError;
        if (::unlink(sHost.c_str()) != 0) return hosted::ErrorFromErrno(errno);
        hosted::Generation(hosted::Generations::Files, hosted::HashFolded(sFull))++;
    }
    return 0;
}

uint32_t DeleteListed(const char16_t *pszPath)
{
    hosted::DiskPath path;
    hosted::Located  found;
    if (std::u16string_view(pszPath).find_first_of(u"*?") != std::u16string_view::npos) return ERROR_NOT_SUPPORTED;
    if (const uint32_t dwError = hosted::ParsePath(pszPath, &path)) return dwError;
    if (const uint32_t dwError = hosted::Locate(path, &found)) return dwError;
    if (path.IsRoot()) return ERROR_ACCESS_DENIED;
    return found.bExists || found.bLink ? DeleteTree(path.sFull, found.sHost) : ERROR_FILE_NOT_FOUND;
}

int32_t SHFileOperationW(SHFILEOPSTRUCTW *pOperation)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("SHFileOperationW", &dwError)) return static_cast<int32_t>(dwError);
    if (pOperation == nullptr || pOperation->pFrom == nullptr) return ERROR_INVALID_PARAMETER;
    if (pOperation->wFunc != FO_DELETE || pOperation->fFlags != DELETE_FLAGS) return ERROR_NOT_SUPPORTED;
    pOperation->fAnyOperationsAborted = FALSE;
    for (const char16_t *psz = pOperation->pFrom; *psz != u'\0'; psz += TextLengthW(psz) + 1)
        if ((dwError = DeleteListed(psz)) != 0) return static_cast<int32_t>(dwError);
    return 0;
}

const hosted::NamedProcedure g_aProcedures[] = {
    {"ShellExecuteA", reinterpret_cast<FARPROC>(ShellExecuteA)},
    {"SHFileOperationW", reinterpret_cast<FARPROC>(SHFileOperationW)},
};

} // namespace

std::span<const hosted::NamedProcedure> hosted::Shell32Procedures()
{
    return g_aProcedures;
}
