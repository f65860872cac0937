// current_machine.cpp: see current_machine.h.
#include "platform/hosted/machine/current_machine.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/errors.h"
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace hosted {
namespace {

std::vector<void (*)()> &ResetHooks()
{
    static auto &s_aHooks = *new std::vector<void (*)()>;
    return s_aHooks;
}

} // namespace

OnUseMachine::OnUseMachine(void (*pReset)())
{
    ResetHooks().push_back(pReset);
}

void DropWhatBelongsToAMachine()
{
    for (void (*pReset)() : ResetHooks()) pReset();
}

std::string RunFolder(const char *pszSub)
{
    const std::string sMachine = MachineFolder();
    if (sMachine.empty()) {
        SetError(platform::ERROR_PATH_NOT_FOUND);
        return "";
    }
    std::string sFolder = sMachine + "/run/" + pszSub;
    if (mkdir(sFolder.c_str(), 0777) != 0 && errno != EEXIST) {
        SetErrorFromErrno();
        return "";
    }
    return sFolder;
}

MachineLock::MachineLock() : m_nFd(-1)
{
    const std::string sMachine = MachineFolder();
    if (sMachine.empty()) {
        SetError(platform::ERROR_PATH_NOT_FOUND);
        return;
    }
    const int nFd = open((sMachine + "/run/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0) {
        SetErrorFromErrno();
        return;
    }
    int nResult = 0;
    do {
        nResult = flock(nFd, LOCK_EX);
    } while (nResult != 0 && errno == EINTR);
    if (nResult != 0) {
        SetErrorFromErrno();
        close(nFd);
        return;
    }
    m_nFd = nFd;
}

MachineLock::~MachineLock()
{
    if (m_nFd >= 0) close(m_nFd);
}

} // namespace hosted
