// pipes.cpp: named pipes, forwarded.
#include "platform/pipes.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(PIPE_ACCESS_INBOUND) X(PIPE_TYPE_MESSAGE) X(PIPE_READMODE_BYTE) X(PIPE_WAIT) X(PIPE_UNLIMITED_INSTANCES)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"

namespace mirror {
MIRRORED(MIRROR_COMPARE)
}

namespace platform {

// Its layout is compared in files.cpp.
static ::OVERLAPPED *AsSdk(OVERLAPPED *pOverlapped)
{
    return reinterpret_cast<::OVERLAPPED *>(pOverlapped);
}

HANDLE CreateNamedPipeW(const char16_t *pszName, uint32_t dwOpenMode, uint32_t dwPipeMode, uint32_t nMaxInstances,
                        uint32_t nOutBufferSize, uint32_t nInBufferSize, uint32_t dwDefaultTimeOut,
                        SECURITY_ATTRIBUTES *pSecurity)
{
    return ::CreateNamedPipeW(AsWide(pszName), dwOpenMode, dwPipeMode, nMaxInstances, nOutBufferSize, nInBufferSize,
                              dwDefaultTimeOut, AsSdk(pSecurity));
}

BOOL ConnectNamedPipe(HANDLE hNamedPipe, OVERLAPPED *pOverlapped)
{
    return ::ConnectNamedPipe(hNamedPipe, AsSdk(pOverlapped));
}

BOOL DisconnectNamedPipe(HANDLE hNamedPipe)
{
    return ::DisconnectNamedPipe(hNamedPipe);
}

BOOL CancelIoEx(HANDLE hFile, OVERLAPPED *pOverlapped)
{
    return ::CancelIoEx(hFile, AsSdk(pOverlapped));
}

BOOL GetOverlappedResult(HANDLE hFile, OVERLAPPED *pOverlapped, uint32_t *pcbTransferred, BOOL bWait)
{
    return ::GetOverlappedResult(hFile, AsSdk(pOverlapped), AsSdk(pcbTransferred), bWait);
}

BOOL WaitNamedPipeW(const char16_t *pszName, uint32_t nTimeOut)
{
    return ::WaitNamedPipeW(AsWide(pszName), nTimeOut);
}

} // namespace platform
