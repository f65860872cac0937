// pipes.h: named pipes: the server's side, and waiting for one as a client. CreateFileW (files.h) opens the client's
// side.
// Modes    PIPE_ACCESS_INBOUND, message type, byte read mode: a read gives what is there, up to the buffer, and may
//          hold several records. Writes block; ConnectNamedPipe and the server's ReadFile are overlapped when asked to
//          be.
#pragma once
#include "platform/files.h"
#include "platform/kernel.h"

namespace platform {

constexpr uint32_t PIPE_ACCESS_INBOUND      = 0x00000001;
constexpr uint32_t PIPE_TYPE_MESSAGE        = 0x00000004;
constexpr uint32_t PIPE_READMODE_BYTE       = 0x00000000;
constexpr uint32_t PIPE_WAIT                = 0x00000000;
constexpr uint32_t PIPE_UNLIMITED_INSTANCES = 255;

// INVALID_HANDLE_VALUE on failure. dwDefaultTimeOut in milliseconds, sizes in bytes.
HANDLE CreateNamedPipeW(const char16_t *pszName, uint32_t dwOpenMode, uint32_t dwPipeMode, uint32_t nMaxInstances,
                        uint32_t nOutBufferSize, uint32_t nInBufferSize, uint32_t dwDefaultTimeOut,
                        SECURITY_ATTRIBUTES *pSecurity);
// Overlapped when pOverlapped is given: FALSE with ERROR_IO_PENDING, and pOverlapped->hEvent is set when a client has
// connected; FALSE with ERROR_PIPE_CONNECTED when one already had. The structure lives until then or until the handle
// is closed. With null the call blocks.
BOOL ConnectNamedPipe(HANDLE hNamedPipe, OVERLAPPED *pOverlapped);
BOOL DisconnectNamedPipe(HANDLE hNamedPipe);
// Ends the overlapped call that is pending on the handle; its event is set. Its structure and buffer are the system's
// until then.
BOOL CancelIoEx(HANDLE hFile, OVERLAPPED *pOverlapped);
// How an overlapped call of a pipe's server ended, and how many bytes it moved. FALSE: ERROR_IO_INCOMPLETE while it is
// under way, ERROR_BROKEN_PIPE when the client has gone, ERROR_OPERATION_ABORTED after CancelIoEx. bWait FALSE.
BOOL GetOverlappedResult(HANDLE hFile, OVERLAPPED *pOverlapped, uint32_t *pcbTransferred, BOOL bWait);
// Waits for a free instance. FALSE: ERROR_FILE_NOT_FOUND when no such pipe exists, ERROR_SEM_TIMEOUT after nTimeOut ms.
BOOL WaitNamedPipeW(const char16_t *pszName, uint32_t nTimeOut);

} // namespace platform
