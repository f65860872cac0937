// pipes.cpp: the server's side of named pipes.
// A connection is a local stream socket. The client may have no more bytes on the way than the instance's in-buffer
// holds: the server's side answers each read with the number of bytes taken (pipe_credits.h), and a writer without
// credit waits.
// Differences from Windows: inbound byte-read message pipes only (others: ERROR_NOT_SUPPORTED); an
// in-buffer of 0 holds one byte; the number of instances is bounded by the value that each creator gives.
#include "platform/hosted/pipes/pipes.h"
#include "platform/errors.h"
#include "platform/hosted/kernel/descriptor_watcher.h"
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
#include <cerrno>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr uint64_t STATUS_PENDING   = 0x00000103; // what OVERLAPPED::Internal tells of a call
constexpr uint64_t STATUS_CANCELLED = 0xC0000120;
constexpr uint64_t STATUS_UNSUCCESSFUL = 0xC0000001;

struct PipeServer : KernelObject {
    enum class State { Listening, Connected, Disconnected };

    PipeServer() : KernelObject(HandleKind::PipeServer) {}
    ~PipeServer() override;

    std::string sFolder; // this and the next three are fixed once the instance is made
    uint32_t    nNumber     = 0;
    int         nInstanceFd = -1; // holds the lock that says the instance lives
    bool        bOverlapped = false;

    std::mutex                    mutex; // guards what follows; a reader keeps the connection while it reads without it
    State                         eState = State::Disconnected;
    std::shared_ptr<Descriptor>   pListener;
    std::shared_ptr<Descriptor>   pConnection;
    platform::OVERLAPPED         *pPending = nullptr; // of the ConnectNamedPipe under way
    std::shared_ptr<KernelObject> pPendingEvent;
    WatchId                       nWatch   = 0;
    uint32_t                      cbUnsaid = 0; // read, and not yet told to the client
};

PipeServer::~PipeServer()
{
    const uint32_t dwLastError = platform::GetLastError();
    if (nWatch != 0) UnwatchDescriptor(nWatch, pListener->nFd);
    if (nInstanceFd >= 0) {
        {
            const MachineLock lock;
            RemoveInstance(sFolder, nNumber);
            close(nInstanceFd);
        }
        WakeMachine(); // who waits for an instance may have lost the last one
    }
    SetError(dwLastError);
}

// [held: MachineLock, mutex] Opens the instance for one client.
bool Listen(PipeServer &server)
{
    unlink((server.sFolder + "/" + InstanceSocket(server.nNumber)).c_str());
    const int nFd = BindLocalSocket(server.sFolder, InstanceSocket(server.nNumber), SOCK_STREAM | SOCK_NONBLOCK);
    if (nFd < 0 || listen(nFd, 1) != 0) {
        SetErrorFromErrno();
        if (nFd >= 0) close(nFd);
        return false;
    }
    server.pListener = std::make_shared<Descriptor>(nFd);
    server.eState    = PipeServer::State::Listening;
    return true;
}

// [held: mutex] Takes the client that has connected, if any.
bool Accept(PipeServer &server)
{
    if (server.eState != PipeServer::State::Listening) return false;
    const int nFd = accept4(server.pListener->nFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (nFd < 0) return false;
    server.pConnection = std::make_shared<Descriptor>(nFd);
    server.pListener   = nullptr; // the client has removed its address
    server.eState      = PipeServer::State::Connected;
    server.cbUnsaid    = 0;
    return true;
}

// After Accept has found nobody: false when it cannot succeed later either (no descriptors are left).
bool IsWorthWaiting(int nErrno)
{
    return nErrno == EAGAIN || nErrno == EINTR || nErrno == ECONNABORTED;
}

bool ClientHasGone(const PipeServer &server)
{
    pollfd request{server.pConnection->nFd, POLLRDHUP, 0};
    return poll(&request, 1, 0) == 1 && (request.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// [held: mutex] Ends the pending call with a status.
void Complete(PipeServer &server, uint64_t ullStatus, const std::shared_ptr<Descriptor> &pListener)
{
    UnwatchDescriptor(server.nWatch, pListener->nFd);
    server.nWatch                 = 0;
    server.pPending->Internal     = ullStatus;
    server.pPending->InternalHigh = 0;
    server.pPending               = nullptr;
    SignalEventObject(*server.pPendingEvent, true);
    server.pPendingEvent = nullptr;
}

void OnClient(const std::weak_ptr<PipeServer> &pWeak)
{
    const std::shared_ptr<PipeServer> pServer = pWeak.lock();
    if (pServer == nullptr) return;
    const std::lock_guard<std::mutex> guard(pServer->mutex);
    const std::shared_ptr<Descriptor> pListener = pServer->pListener;
    if (pServer->pPending == nullptr) return;
    if (Accept(*pServer)) {
        Complete(*pServer, 0, pListener);
    } else if (!IsWorthWaiting(errno)) {
        Complete(*pServer, STATUS_UNSUCCESSFUL, pListener);
    }
}

// [held: mutex] The result for a client that was there before the call.
platform::BOOL AlreadyConnected(const PipeServer &server)
{
    SetError(ClientHasGone(server) ? platform::ERROR_NO_DATA : platform::ERROR_PIPE_CONNECTED);
    return platform::FALSE;
}

platform::BOOL Connect(const std::shared_ptr<PipeServer> &pServer, platform::OVERLAPPED *pOverlapped)
{
    std::unique_lock<std::mutex> lock(pServer->mutex);
    if (pServer->eState == PipeServer::State::Disconnected) {
        const MachineLock machine;
        if (!machine.IsHeld() || !Listen(*pServer)) return platform::FALSE;
    } else if (pServer->pPending != nullptr) {
        SetError(platform::ERROR_PIPE_LISTENING);
        return platform::FALSE;
    } else if (pServer->eState == PipeServer::State::Connected || Accept(*pServer)) {
        return AlreadyConnected(*pServer);
    }
    if (pOverlapped == nullptr || !pServer->bOverlapped) {
        const std::shared_ptr<Descriptor> pListener = pServer->pListener;
        lock.unlock();
        WakeMachine();
        for (;;) {
            pollfd request{pListener->nFd, POLLIN, 0};
            poll(&request, 1, -1);
            const std::lock_guard<std::mutex> guard(pServer->mutex);
            if (Accept(*pServer)) return platform::TRUE;
            const int nErrno = errno;
            if (pServer->eState == PipeServer::State::Listening && IsWorthWaiting(nErrno)) continue;
            SetError(pServer->eState == PipeServer::State::Listening ? ErrorFromErrno(nErrno)
                                                                     : platform::ERROR_PIPE_NOT_CONNECTED);
            return platform::FALSE;
        }
    }
    std::shared_ptr<KernelObject> pEvent = ObjectOfKind<KernelObject>(pOverlapped->hEvent, HandleKind::Event);
    if (pEvent == nullptr) return platform::FALSE;
    SignalEventObject(*pEvent, false);
    pOverlapped->Internal  = STATUS_PENDING;
    pServer->pPending      = pOverlapped;
    pServer->pPendingEvent = std::move(pEvent);
    pServer->nWatch = WatchDescriptor(pServer->pListener->nFd, [pWeak = std::weak_ptr(pServer)] { OnClient(pWeak); });
    if (pServer->nWatch == 0) {
        pServer->pPending      = nullptr;
        pServer->pPendingEvent = nullptr;
        return platform::FALSE;
    }
    lock.unlock();
    WakeMachine();
    SetError(platform::ERROR_IO_PENDING);
    return platform::FALSE;
}

std::shared_ptr<PipeServer> ServerOf(platform::HANDLE hPipe)
{
    return ObjectOfKind<PipeServer>(hPipe, HandleKind::PipeServer);
}

// The connection to read from; null with the error that a read gives in this state.
std::shared_ptr<Descriptor> ConnectionToRead(PipeServer &server)
{
    const std::lock_guard<std::mutex> guard(server.mutex);
    Accept(server);
    if (server.eState == PipeServer::State::Connected) return server.pConnection;
    SetError(server.eState == PipeServer::State::Listening ? platform::ERROR_PIPE_LISTENING
                                                           : platform::ERROR_PIPE_NOT_CONNECTED);
    return nullptr;
}

} // namespace

platform::BOOL ReadPipe(KernelObject &pipe, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead)
{
    if (pcbRead != nullptr) *pcbRead = 0;
    if (pipe.eKind != HandleKind::PipeServer) {
        SetError(platform::ERROR_ACCESS_DENIED); // the client's end only writes
        return platform::FALSE;
    }
    auto                             &server      = static_cast<PipeServer &>(pipe);
    const std::shared_ptr<Descriptor> pConnection = ConnectionToRead(server);
    if (pConnection == nullptr) return platform::FALSE;
    if (cbToRead == 0) return platform::TRUE;
    ssize_t cbGot = 0;
    do {
        cbGot = recv(pConnection->nFd, pBuffer, cbToRead, 0);
    } while (cbGot < 0 && errno == EINTR);
    const std::lock_guard<std::mutex> guard(server.mutex);
    if (server.pConnection != pConnection) { // another thread has disconnected the pipe
        SetError(platform::ERROR_PIPE_NOT_CONNECTED);
        return platform::FALSE;
    }
    if (cbGot <= 0) {
        SetError(platform::ERROR_BROKEN_PIPE);
        return platform::FALSE;
    }
    server.cbUnsaid += static_cast<uint32_t>(cbGot);
    if (SendCredit(pConnection->nFd, server.cbUnsaid)) server.cbUnsaid = 0;
    if (pcbRead != nullptr) *pcbRead = static_cast<uint32_t>(cbGot);
    return platform::TRUE;
}

} // namespace hosted

platform::HANDLE platform::CreateNamedPipeW(const char16_t *pszName, uint32_t dwOpenMode, uint32_t dwPipeMode,
                                            uint32_t nMaxInstances, uint32_t, uint32_t nInBufferSize,
                                            uint32_t dwDefaultTimeOut, SECURITY_ATTRIBUTES *pSecurity)
{
    using namespace hosted;
    if (FailsNow("CreateNamedPipeW")) return INVALID_HANDLE_VALUE;
    if ((dwOpenMode & ~FILE_FLAG_OVERLAPPED) != PIPE_ACCESS_INBOUND ||
        dwPipeMode != (PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT)) {
        SetError(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    if (nMaxInstances == 0 || nMaxInstances > PIPE_UNLIMITED_INSTANCES) {
        SetError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    auto pServer         = std::make_shared<PipeServer>();
    pServer->bOverlapped = (dwOpenMode & FILE_FLAG_OVERLAPPED) != 0;
    pServer->sFolder     = PipeFolder(pszName);
    if (pServer->sFolder.empty()) return INVALID_HANDLE_VALUE;
    pServer->bSecured         = pSecurity != nullptr;
    pServer->dwEveryoneAccess = pSecurity != nullptr ? pSecurity->dwEveryoneAccess : 0;
    const InstanceRecord record{nMaxInstances,     nInBufferSize, dwDefaultTimeOut, GetCurrentProcessId(),
                                pServer->bSecured, pServer->dwEveryoneAccess};
    uint32_t             dwError = 0;
    {
        const MachineLock lock;
        if (!lock.IsHeld()) return INVALID_HANDLE_VALUE;
        if (nMaxInstances != PIPE_UNLIMITED_INSTANCES && LiveInstances(pServer->sFolder).size() >= nMaxInstances) {
            SetError(ERROR_PIPE_BUSY);
            return INVALID_HANDLE_VALUE;
        }
        pServer->nInstanceFd = AddInstance(pServer->sFolder, record, &pServer->nNumber);
        if (pServer->nInstanceFd < 0) return INVALID_HANDLE_VALUE;
        if (!Listen(*pServer)) dwError = GetLastError();
    }
    if (dwError != 0) {
        pServer = nullptr; // takes the instance back
        SetError(dwError);
        return INVALID_HANDLE_VALUE;
    }
    WakeMachine();
    return AddHandle(std::move(pServer));
}

platform::BOOL platform::ConnectNamedPipe(HANDLE hNamedPipe, OVERLAPPED *pOverlapped)
{
    if (hosted::FailsNow("ConnectNamedPipe")) return FALSE;
    const std::shared_ptr<hosted::PipeServer> pServer = hosted::ServerOf(hNamedPipe);
    return pServer == nullptr ? FALSE : hosted::Connect(pServer, pOverlapped);
}

platform::BOOL platform::DisconnectNamedPipe(HANDLE hNamedPipe)
{
    if (hosted::FailsNow("DisconnectNamedPipe")) return FALSE;
    const std::shared_ptr<hosted::PipeServer> pServer = hosted::ServerOf(hNamedPipe);
    if (pServer == nullptr) return FALSE;
    const std::lock_guard<std::mutex> guard(pServer->mutex);
    hosted::Accept(*pServer);
    if (pServer->eState != hosted::PipeServer::State::Connected) {
        hosted::SetError(pServer->eState == hosted::PipeServer::State::Listening ? ERROR_PIPE_LISTENING
                                                                                 : ERROR_PIPE_NOT_CONNECTED);
        return FALSE;
    }
    hosted::SendCredit(pServer->pConnection->nFd, hosted::CREDIT_DISCONNECTED);
    // Ends a read under way; what the client wrote and nobody read is lost, as on Windows.
    shutdown(pServer->pConnection->nFd, SHUT_RDWR);
    pServer->pConnection = nullptr;
    pServer->eState      = hosted::PipeServer::State::Disconnected;
    return TRUE;
}

platform::BOOL platform::CancelIoEx(HANDLE hFile, OVERLAPPED *pOverlapped)
{
    if (hosted::FailsNow("CancelIoEx")) return FALSE;
    const std::shared_ptr<hosted::PipeServer> pServer = hosted::ServerOf(hFile);
    if (pServer == nullptr) return FALSE;
    const std::lock_guard<std::mutex> guard(pServer->mutex);
    if (pServer->pPending == nullptr || (pOverlapped != nullptr && pOverlapped != pServer->pPending)) {
        hosted::SetError(ERROR_NOT_FOUND);
        return FALSE;
    }
    hosted::Complete(*pServer, hosted::STATUS_CANCELLED, pServer->pListener);
    return TRUE;
}
