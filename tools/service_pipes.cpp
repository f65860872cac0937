// service_pipes.cpp: several threads serve the pipe, one connection each, so that an agent that comes back at once
// always finds a free instance: an agent that finds none of that name throws away what it has queued.
#include "tools/service_pipes.h"
#include "platform/errors.h"
#include "platform/pipes.h"
#include "platform/security.h"
#include "platform/text.h"
#include <atomic>
#include <thread>
#include <vector>

using namespace platform;

namespace {

constexpr char16_t SERVICE_MUTEX[]      = u"Global\\VornMigrationSrv_NamedPipeMux";
constexpr char16_t SERVICE_PIPE[]       = u"\\\\.\\pipe\\VornMigrationSrv_NamedPipeCommand";
constexpr char16_t AGENT_MUTEX_FORMAT[] = u"Global\\VornMigrationNet_NamedPipeMux_0x%x";
constexpr char16_t AGENT_PIPE_FORMAT[]  = u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x%x";
constexpr uint32_t PIPE_BUFFER_BYTES    = 7920;
constexpr uint32_t SERVER_THREADS       = 4;
constexpr uint32_t RETRY_MS             = 20;

HANDLE                                   g_hServiceMutex = nullptr;
HANDLE                                   g_hStop         = nullptr;
SECURITY_ATTRIBUTES                     *g_pSecurity     = nullptr;
std::vector<std::thread>                 g_Servers;
std::function<void(const IpcMessage &)>  g_OnRecord;
std::function<void(const std::string &)> g_OnNote;

void ReadRecords(HANDLE hPipe)
{
    std::vector<unsigned char> buffer(PIPE_BUFFER_BYTES);
    std::vector<unsigned char> pending; // a record may arrive in pieces
    uint32_t                   cbRead = 0;
    while (ReadFile(hPipe, buffer.data(), PIPE_BUFFER_BYTES, &cbRead, nullptr)) {
        pending.insert(pending.end(), buffer.begin(), buffer.begin() + cbRead);
        size_t nDone = 0;
        for (; pending.size() - nDone >= IPC_MESSAGE_SIZE; nDone += IPC_MESSAGE_SIZE) {
            IpcMessage record;
            std::copy_n(pending.data() + nDone, IPC_MESSAGE_SIZE, reinterpret_cast<unsigned char *>(&record));
            g_OnRecord(record);
        }
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(nDone));
    }
    if (!pending.empty()) g_OnNote("a connection ended with " + std::to_string(pending.size()) + " bytes of a record");
}

HANDLE CreateInstance()
{
    return CreateNamedPipeW(SERVICE_PIPE, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                            PIPE_UNLIMITED_INSTANCES, PIPE_BUFFER_BYTES, PIPE_BUFFER_BYTES, 200, g_pSecurity);
}

// One instance after another; hPipe is the first.
void ServeInstances(HANDLE hPipe)
{
    while (hPipe != INVALID_HANDLE_VALUE) {
        HANDLE     hConnected = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        OVERLAPPED overlapped{};
        overlapped.hEvent = hConnected;
        // An agent may come, write and leave before this call (ERROR_NO_DATA): what it wrote waits in the pipe.
        bool bConnected = ConnectNamedPipe(hPipe, &overlapped) || GetLastError() == ERROR_PIPE_CONNECTED ||
                          GetLastError() == ERROR_NO_DATA;
        bool bStop = false;
        if (!bConnected && GetLastError() == ERROR_IO_PENDING) {
            const HANDLE ahWait[] = {g_hStop, hConnected};
            bStop                 = WaitForMultipleObjects(2, ahWait, FALSE, INFINITE) == WAIT_OBJECT_0;
            bConnected            = !bStop;
            if (bStop) {
                CancelIoEx(hPipe, &overlapped);
                WaitForSingleObject(hConnected, 1000); // the structure must outlive the call that it belongs to
            }
        }
        if (bConnected) ReadRecords(hPipe);
        DisconnectNamedPipe(hPipe);
        CloseHandle(hPipe);
        CloseHandle(hConnected);
        if (bStop || WaitForSingleObject(g_hStop, 0) == WAIT_OBJECT_0) return;
        hPipe = CreateInstance();
        if (hPipe == INVALID_HANDLE_VALUE)
            g_OnNote("the service's pipe cannot be made again: error " + std::to_string(GetLastError()));
    }
}

std::u16string SessionName(const char16_t *pszFormat, uint32_t dwSession)
{
    char16_t szName[128];
    FormatTextW(szName, 128, pszFormat, dwSession);
    return szName;
}

} // namespace

bool StartServicePipe(std::function<void(const IpcMessage &)> onRecord, std::function<void(const std::string &)> onNote,
                      std::string *psError)
{
    g_OnRecord      = std::move(onRecord);
    g_OnNote        = std::move(onNote);
    g_pSecurity     = CreateEveryoneSecurity(PIPE_EVERYONE_ACCESS);
    g_hServiceMutex = CreateMutexW(g_pSecurity, FALSE, SERVICE_MUTEX);
    if (g_hServiceMutex == nullptr || GetLastError() == ERROR_ALREADY_EXISTS) {
        *psError = "another migration service runs on this machine";
        StopServicePipe();
        return false;
    }
    g_hStop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (uint32_t i = 0; i < SERVER_THREADS; i++) {
        const HANDLE hPipe = CreateInstance();
        if (hPipe == INVALID_HANDLE_VALUE) {
            *psError = "the service's pipe cannot be made: error " + std::to_string(GetLastError());
            StopServicePipe();
            return false;
        }
        g_Servers.emplace_back(ServeInstances, hPipe);
    }
    return true;
}

void StopServicePipe()
{
    if (g_hStop != nullptr) SetEvent(g_hStop);
    for (std::thread &server : g_Servers) server.join();
    g_Servers.clear();
    if (g_hStop != nullptr) CloseHandle(g_hStop);
    if (g_hServiceMutex != nullptr) CloseHandle(g_hServiceMutex);
    FreeSecurity(g_pSecurity);
    g_hStop = g_hServiceMutex = nullptr;
    g_pSecurity               = nullptr;
}

bool SendBytesToAgent(uint32_t dwSession, const std::string &sBytes, uint32_t dwTimeoutMs, std::string *psError)
{
    const std::u16string sName    = SessionName(AGENT_PIPE_FORMAT, dwSession);
    const uint64_t       ullBegin = GetTickCount64();
    HANDLE               hPipe    = INVALID_HANDLE_VALUE;
    for (;;) {
        hPipe = CreateFileW(sName.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
        if (hPipe != INVALID_HANDLE_VALUE) break;
        const uint32_t dwError = GetLastError();
        if (GetTickCount64() - ullBegin >= dwTimeoutMs) {
            *psError = "the agent's pipe cannot be opened: error " + std::to_string(dwError);
            return false;
        }
        if (dwError == ERROR_PIPE_BUSY) WaitNamedPipeW(sName.c_str(), RETRY_MS);
        else Sleep(RETRY_MS); // no notification tells of a pipe that comes to be
    }
    uint32_t   cbWritten = 0;
    const bool bDone     = WriteFile(hPipe, sBytes.data(), static_cast<uint32_t>(sBytes.size()), &cbWritten, nullptr) &&
                       cbWritten == sBytes.size();
    if (!bDone) *psError = "the agent's pipe cannot be written: error " + std::to_string(GetLastError());
    CloseHandle(hPipe);
    return bDone;
}

bool SendToAgent(uint32_t dwSession, const IpcMessage &record, uint32_t dwTimeoutMs, std::string *psError)
{
    return SendBytesToAgent(dwSession, std::string(reinterpret_cast<const char *>(&record), sizeof(record)),
                            dwTimeoutMs, psError);
}

bool WaitForAgent(uint32_t dwSession, bool bPresent, uint32_t dwTimeoutMs)
{
    const std::u16string sName    = SessionName(AGENT_MUTEX_FORMAT, dwSession);
    const uint64_t       ullBegin = GetTickCount64();
    for (;;) {
        const HANDLE hMutex = OpenMutexW(SYNCHRONIZE, FALSE, sName.c_str());
        if (hMutex != nullptr) CloseHandle(hMutex);
        if ((hMutex != nullptr) == bPresent) return true;
        if (GetTickCount64() - ullBegin >= dwTimeoutMs) return false;
        Sleep(RETRY_MS);
    }
}
