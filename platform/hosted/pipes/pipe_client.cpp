// pipe_client.cpp: the client's side of named pipes: finding a free instance, writing within the server's in-buffer.
#include "platform/hosted/pipes/pipe_client.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/kernel/unix_sockets.h"
#include "platform/hosted/kernel/waits.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/pipes/pipe_credits.h"
#include "platform/hosted/pipes/pipe_instances.h"
#include "platform/pipes.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace hosted {
namespace {

struct PipeClient : KernelObject {
    PipeClient(int nFd, uint32_t cbInBuffer)
        : KernelObject(HandleKind::PipeClient), connection(nFd), cbCredit(std::max(cbInBuffer, 1u))
    {
    }
    const Descriptor connection;
    std::mutex       mutex;    // one write at a time; guards what follows
    uint32_t         cbCredit; // bytes that may be written before the server reads on
    unsigned char    aPart[4] = {};
    size_t           cbPart   = 0; // of the next number
    uint32_t         dwError  = 0; // why nothing can be written any more
};

// [held: mutex] Takes what the server has said; waits for it when bWait. False when the connection has ended.
bool TakeCredits(PipeClient &client, bool bWait)
{
    while (client.dwError == 0) {
        unsigned char aSaid[256];
        const ssize_t cb = recv(client.connection.nFd, aSaid, sizeof(aSaid), bWait ? 0 : MSG_DONTWAIT);
        if (cb < 0 && errno == EINTR) continue;
        if (cb < 0 && errno == EAGAIN) break;
        if (cb <= 0) {
            client.dwError = platform::ERROR_NO_DATA; // the server has closed its end
            break;
        }
        bWait = false;
        for (ssize_t i = 0; i < cb && client.dwError == 0; i++) {
            client.aPart[client.cbPart++] = aSaid[i];
            if (client.cbPart < sizeof(client.aPart)) continue;
            uint32_t cbRead = 0;
            std::memcpy(&cbRead, client.aPart, sizeof(cbRead));
            client.cbPart = 0;
            client.cbCredit += cbRead == CREDIT_DISCONNECTED ? 0 : cbRead;
            if (cbRead == CREDIT_DISCONNECTED) client.dwError = platform::ERROR_PIPE_NOT_CONNECTED;
        }
    }
    return client.dwError == 0;
}

// What the instances of a pipe let a client do now.
enum class Opening { Found, AllBusy, NoPipe, Failed };

// Connects to a free instance (*pnFd), or only looks for one when pnFd is null.
Opening FindInstance(const std::string &sFolder, int *pnFd, InstanceRecord *pRecord)
{
    const MachineLock lock;
    if (!lock.IsHeld()) return Opening::Failed;
    const std::vector<Instance> aInstances = LiveInstances(sFolder);
    for (const Instance &instance : aInstances) {
        *pRecord = instance.record;
        if (!instance.bFree) continue;
        if (pnFd == nullptr) return Opening::Found;
        *pnFd = ConnectLocalSocket(sFolder, InstanceSocket(instance.nNumber), SOCK_STREAM);
        if (*pnFd < 0) continue; // its owner is about to close it
        unlink((sFolder + "/" + InstanceSocket(instance.nNumber)).c_str());
        return Opening::Found;
    }
    return aInstances.empty() ? Opening::NoPipe : Opening::AllBusy;
}

} // namespace

bool SendCredit(int nFd, uint32_t cbCredit)
{
    // Four bytes are taken whole or not at all; a client that has gone needs none.
    return send(nFd, &cbCredit, sizeof(cbCredit), MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(cbCredit) || errno != EAGAIN;
}

platform::HANDLE OpenPipeClient(const char16_t *pszName, uint32_t dwDesiredAccess, uint32_t dwCreationDisposition)
{
    if ((dwDesiredAccess & platform::GENERIC_WRITE) == 0 || (dwDesiredAccess & platform::GENERIC_READ) != 0) {
        SetError(platform::ERROR_ACCESS_DENIED); // the pipes here take, they give nothing
        return platform::INVALID_HANDLE_VALUE;
    }
    const std::string sFolder = PipeFolder(pszName);
    if (sFolder.empty()) return platform::INVALID_HANDLE_VALUE;
    if (dwCreationDisposition != platform::OPEN_EXISTING) {
        SetError(platform::ERROR_INVALID_PARAMETER);
        return platform::INVALID_HANDLE_VALUE;
    }
    int            nFd = -1;
    InstanceRecord record{};
    switch (FindInstance(sFolder, &nFd, &record)) {
    case Opening::Found: {
        auto pClient              = std::make_shared<PipeClient>(nFd, record.cbInBuffer);
        pClient->bSecured         = record.bSecured != 0;
        pClient->dwEveryoneAccess = record.dwEveryoneAccess;
        return AddHandle(std::move(pClient), dwDesiredAccess);
    }
    case Opening::AllBusy: SetError(platform::ERROR_PIPE_BUSY); break;
    case Opening::NoPipe: SetError(platform::ERROR_FILE_NOT_FOUND); break;
    case Opening::Failed: break;
    }
    return platform::INVALID_HANDLE_VALUE;
}

platform::BOOL WritePipe(KernelObject &pipe, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten)
{
    if (pcbWritten != nullptr) *pcbWritten = 0;
    if (pipe.eKind != HandleKind::PipeClient) {
        SetError(platform::ERROR_ACCESS_DENIED);
        return platform::FALSE;
    }
    auto                             &client = static_cast<PipeClient &>(pipe);
    const std::lock_guard<std::mutex> guard(client.mutex);
    const auto                       *pbyNext = static_cast<const unsigned char *>(pBuffer);
    uint32_t                          cbLeft  = cbToWrite;
    TakeCredits(client, false);
    while (client.dwError == 0 && cbLeft > 0) {
        if (client.cbCredit == 0) {
            TakeCredits(client, true);
            continue;
        }
        const ssize_t cb = send(client.connection.nFd, pbyNext, std::min(cbLeft, client.cbCredit), MSG_NOSIGNAL);
        if (cb < 0 && errno == EINTR) continue;
        if (cb < 0) {
            TakeCredits(client, false); // tells a disconnected pipe from a closed one
            if (client.dwError == 0) client.dwError = platform::ERROR_NO_DATA;
            break;
        }
        client.cbCredit -= static_cast<uint32_t>(cb);
        cbLeft -= static_cast<uint32_t>(cb);
        pbyNext += cb;
    }
    if (pcbWritten != nullptr) *pcbWritten = cbToWrite - cbLeft;
    if (client.dwError == 0) return platform::TRUE;
    SetError(client.dwError);
    return platform::FALSE;
}

} // namespace hosted

platform::BOOL platform::WaitNamedPipeW(const char16_t *pszName, uint32_t nTimeOut)
{
    using namespace hosted;
    if (FailsNow("WaitNamedPipeW")) return FALSE;
    if (nTimeOut == 0) { // would be the time that the pipe's creator gave
        SetError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    const std::string sFolder = PipeFolder(pszName);
    if (sFolder.empty() || !ListenForWakes()) return FALSE;
    const Deadline deadline = DeadlineAfter(nTimeOut);
    for (bool bInTime = true;;) {
        uint64_t nWakes = 0;
        {
            const std::lock_guard<std::mutex> guard(TheWaits().mutex);
            nWakes = TheWaits().nWakes; // an announcement after this point ends the wait below
        }
        InstanceRecord record{};
        switch (FindInstance(sFolder, nullptr, &record)) {
        case Opening::Found: return TRUE;
        case Opening::Failed: return FALSE;
        case Opening::NoPipe: SetError(ERROR_FILE_NOT_FOUND); return FALSE;
        case Opening::AllBusy:
            if (!bInTime) {
                SetError(ERROR_SEM_TIMEOUT);
                return FALSE;
            }
        }
        std::unique_lock<std::mutex> lock(TheWaits().mutex);
        while (bInTime && TheWaits().nWakes == nWakes) bInTime = WaitUntil(lock, TheWaits().condition, deadline);
    }
}
