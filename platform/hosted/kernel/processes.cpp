// processes.cpp: process ids and sessions. All processes of a machine are in the one session that machine.ini names.
#include "platform/errors.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include "platform/kernel.h"
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

uint32_t platform::GetCurrentProcessId()
{
    return static_cast<uint32_t>(getpid());
}

platform::BOOL platform::ProcessIdToSessionId(uint32_t dwProcessId, uint32_t *pdwSessionId)
{
    if (hosted::FailsNow("ProcessIdToSessionId")) return FALSE;
    if (dwProcessId != GetCurrentProcessId() &&
        (dwProcessId == 0 || (kill(static_cast<pid_t>(dwProcessId), 0) != 0 && errno == ESRCH))) {
        hosted::SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *pdwSessionId =
        static_cast<uint32_t>(std::strtoul(hosted::MachineSetting("machine", "session", "1").c_str(), nullptr, 10));
    return TRUE;
}
