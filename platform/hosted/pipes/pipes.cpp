// pipes.cpp: the server's side of named pipes.
// A connection is a local stream socket. The client may have no more bytes on the way than the instance's in-buffer
// holds: the server's side answers each read with the number of bytes taken (pipe_credits.h), and a writer without
// credit waits.
// Differences from Windows: inbound, overlapped, byte-read message pipes of any number of instances only (others:
// ERROR_NOT_SUPPORTED); an in-buffer of 0 holds one byte.
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

constexpr uint64_t STATUS_PENDING           = 0x00000103; // what OVERLAPPED::Internal tells of a call
constexpr uint64_t STATUS_CANCELLED         = 0xC0000120;
constexpr uint64_t STATUS_UNSUCCESSFUL      = 0xC0000001;
constexpr uint64_t STATUS_PIPE_BROKEN       = 0xC000014B;
constexpr uint64_t STATUS_PIPE_DISCONNECTED = 0xC00000B0;

struct PipeServer : KernelObject {
    enum class State { Listening, Connected, Disconnected };

    PipeServer() : KernelObject(HandleKind::PipeServer) {}
    ~PipeServer() override;

    std::string sFolder; // this and the next two are fixed once the instance is made
    uint32_t    nNumber     = 0;
    int         nInstanceFd = -1; // holds the lock that says the instance lives

    std::mutex                    mutex; // guards what follows; a reader keeps the connection while it reads without it
    State                         eState = State::Disconnected;
    std::shared_ptr<Descriptor>   pListener;
    std::shared_ptr<Descriptor>   pConnection;
    platform::OVERLAPPED         *pPending = nullptr; // of the ConnectNamedPipe under way
    std::shared_ptr<KernelObject> pPendingEvent;
    WatchId                       nWatch   = 0;
    uint32_t                      cbUnsaid = 0;       // read, and not yet told to the client
    platform::OVERLAPPED         *pReading = nullptr; // of the overlapped ReadFile under way, with what it needs
    std::shared_ptr<KernelObject> pReadingEvent;
    void                         *pReadingBuffer = nullptr;
    uint32_t                      cbReading      = 0;
    WatchId                       nReadingWatch  = 0;
};

PipeServer::~PipeServer()
{
    const uint32_t dwLastError = platform::GetLastError();
    if (nWatch != 0) UnwatchDescriptor(nWatch, pListener->nFd);
    if (nReadingWatch != 0) UnwatchDescriptor(nReadingWatch, pConnection->nFd);
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
    if (pOverlapped == nullptr) {
        SetError(platform::ERROR_NOT_SUPPORTED);
        return platform::FALSE;
    }
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

// [held: mutex] Counts what a read has taken and gives the client room for as much.
void TakeBytes(PipeServer &server, int nFd, size_t cb)
{
    server.cbUnsaid += static_cast<uint32_t>(cb);
    if (SendCredit(nFd, server.cbUnsaid)) server.cbUnsaid = 0;
}

// [held: mutex] Ends the pending read with a status.
void CompleteRead(PipeServer &server, uint64_t ullStatus, size_t cb)
{
    UnwatchDescriptor(server.nReadingWatch, server.pConnection->nFd);
    server.nReadingWatch          = 0;
    server.pReading->Internal     = ullStatus;
    server.pReading->InternalHigh = cb;
    server.pReading               = nullptr;
    SignalEventObject(*server.pReadingEvent, true);
    server.pReadingEvent = nullptr;
}

// [held: mutex] Completes the pending read when there is something for it.
void GoOnReading(PipeServer &server)
{
    if (server.pReading == nullptr) return;
    const int     nFd = server.pConnection->nFd;
    const ssize_t cb  = recv(nFd, server.pReadingBuffer, server.cbReading, MSG_DONTWAIT);
    if (cb < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (cb > 0) TakeBytes(server, nFd, static_cast<size_t>(cb));
    CompleteRead(server, cb > 0 ? 0 : STATUS_PIPE_BROKEN, cb > 0 ? static_cast<size_t>(cb) : 0);
}

// As on Windows the event is set also when the call ends at once.
platform::BOOL StartReading(const std::shared_ptr<PipeServer> &pServer, const std::shared_ptr<Descriptor> &pConnection,
                            void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead, platform::OVERLAPPED *pOverlapped)
{
    std::shared_ptr<KernelObject> pEvent = ObjectOfKind<KernelObject>(pOverlapped->hEvent, HandleKind::Event);
    if (pEvent == nullptr) return platform::FALSE;
    const std::lock_guard<std::mutex> guard(pServer->mutex);
    if (pServer->pReading != nullptr || pServer->pConnection != pConnection) {
        SetError(platform::ERROR_NOT_SUPPORTED); // one read at a time
        return platform::FALSE;
    }
    SignalEventObject(*pEvent, false);
    pOverlapped->Internal   = STATUS_PENDING;
    pServer->pReading       = pOverlapped;
    pServer->pReadingEvent  = std::move(pEvent);
    pServer->pReadingBuffer = pBuffer;
    pServer->cbReading      = cbToRead;
    GoOnReading(*pServer);
    if (pServer->pReading == nullptr) {
        *pcbRead = static_cast<uint32_t>(pOverlapped->InternalHigh);
        if (pOverlapped->Internal == 0) return platform::TRUE;
        SetError(platform::ERROR_BROKEN_PIPE);
        return platform::FALSE;
    }
    pServer->nReadingWatch = WatchDescriptor(pConnection->nFd, [pWeak = std::weak_ptr(pServer)] {
        const std::shared_ptr<PipeServer> pReader = pWeak.lock();
        if (pReader == nullptr) return;
        const std::lock_guard<std::mutex> reading(pReader->mutex);
        GoOnReading(*pReader);
    });
    if (pServer->nReadingWatch != 0) SetError(platform::ERROR_IO_PENDING);
    else pServer->pReading = nullptr;
    return platform::FALSE;
}

} // namespace

platform::BOOL ReadPipe(const std::shared_ptr<KernelObject> &pPipe, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead,
                        platform::OVERLAPPED *pOverlapped)
{
    if (pPipe->eKind != HandleKind::PipeServer) {
        SetError(platform::ERROR_ACCESS_DENIED); // the client's end only writes
        return platform::FALSE;
    }
    const auto                        pServer     = std::static_pointer_cast<PipeServer>(pPipe);
    PipeServer                       &server      = *pServer;
    const std::shared_ptr<Descriptor> pConnection = ConnectionToRead(server);
    if (pConnection == nullptr) return platform::FALSE;
    if (pOverlapped != nullptr) return StartReading(pServer, pConnection, pBuffer, cbToRead, pcbRead, pOverlapped);
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
    TakeBytes(server, pConnection->nFd, static_cast<size_t>(cbGot));
    *pcbRead = static_cast<uint32_t>(cbGot);
    return platform::TRUE;
}

} // namespace hosted

platform::HANDLE platform::CreateNamedPipeW(const char16_t *pszName, uint32_t dwOpenMode, uint32_t dwPipeMode,
                                            uint32_t nMaxInstances, uint32_t, uint32_t nInBufferSize, uint32_t,
                                            SECURITY_ATTRIBUTES *pSecurity)
{
    using namespace hosted;
    if (FailsNow("CreateNamedPipeW")) return INVALID_HANDLE_VALUE;
    if (dwOpenMode != (PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED) || nMaxInstances != PIPE_UNLIMITED_INSTANCES ||
        dwPipeMode != (PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT)) {
        SetError(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    auto pServer     = std::make_shared<PipeServer>();
    pServer->sFolder = PipeFolder(pszName);
    if (pServer->sFolder.empty()) return INVALID_HANDLE_VALUE;
    pServer->bSecured         = pSecurity != nullptr;
    pServer->dwEveryoneAccess = pSecurity != nullptr ? pSecurity->dwEveryoneAccess : 0;
    const InstanceRecord record{nInBufferSize, pServer->bSecured, pServer->dwEveryoneAccess};
    uint32_t             dwError = 0;
    {
        const MachineLock lock;
        if (!lock.IsHeld()) return INVALID_HANDLE_VALUE;
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
    if (pServer->pReading != nullptr) hosted::CompleteRead(*pServer, hosted::STATUS_PIPE_DISCONNECTED, 0);
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
    const bool                        bConnecting =
        pServer->pPending != nullptr && (pOverlapped == nullptr || pOverlapped == pServer->pPending);
    const bool bReading = pServer->pReading != nullptr && (pOverlapped == nullptr || pOverlapped == pServer->pReading);
    if (bConnecting) hosted::Complete(*pServer, hosted::STATUS_CANCELLED, pServer->pListener);
    if (bReading) hosted::CompleteRead(*pServer, hosted::STATUS_CANCELLED, 0);
    if (bConnecting || bReading) return TRUE;
    hosted::SetError(ERROR_NOT_FOUND);
    return FALSE;
}

// Looks for itself whether there is something for a pending read: what a client has written counts from its write on,
// not from when the watcher's thread comes round to it.
platform::BOOL platform::GetOverlappedResult(HANDLE hFile, OVERLAPPED *pOverlapped, uint32_t *pcbTransferred,
                                             BOOL bWait)
{
    if (hosted::FailsNow("GetOverlappedResult")) return FALSE;
    const std::shared_ptr<hosted::PipeServer> pServer = hosted::ServerOf(hFile);
    if (pServer == nullptr) return FALSE;
    const std::lock_guard<std::mutex> guard(pServer->mutex);
    if (pOverlapped == pServer->pReading) hosted::GoOnReading(*pServer);
    *pcbTransferred = static_cast<uint32_t>(pOverlapped->InternalHigh);
    switch (pOverlapped->Internal) {
    case 0: return TRUE;
    case hosted::STATUS_PENDING: hosted::SetError(bWait ? ERROR_NOT_SUPPORTED : ERROR_IO_INCOMPLETE); break;
    case hosted::STATUS_CANCELLED: hosted::SetError(ERROR_OPERATION_ABORTED); break;
    case hosted::STATUS_PIPE_BROKEN: hosted::SetError(ERROR_BROKEN_PIPE); break;
    case hosted::STATUS_PIPE_DISCONNECTED: hosted::SetError(ERROR_PIPE_NOT_CONNECTED); break;
    default: hosted::SetError(ERROR_GEN_FAILURE); break;
    }
    return FALSE;
}
