// socket_names.cpp: getaddrinfo for IPv4.
// The result's blocks are counted like every other memory that an interface hands out: one block for each entry.
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/sockets/socket_table.h"
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#undef htons

namespace {

constexpr int32_t WINSOCK_AI_PASSIVE = 1;
constexpr int32_t WSANO_RECOVERY = 11003, WSA_NOT_ENOUGH_MEMORY = 8;

struct Entry {
    platform::addrinfo    info;
    platform::sockaddr_in address;
};

// The port in network order; false when it is no number: nobody here asks for a service by name.
bool ReadService(const char *pszService, uint16_t *pnPort)
{
    char      *pszEnd = nullptr;
    const long nPort  = pszService != nullptr ? std::strtol(pszService, &pszEnd, 10) : -1;
    *pnPort           = platform::htons(static_cast<uint16_t>(nPort));
    return nPort >= 0 && nPort <= 65535 && pszEnd != pszService && *pszEnd == '\0';
}

int32_t ErrorFromResolver(int nResult)
{
    switch (nResult) {
    case EAI_MEMORY: return WSA_NOT_ENOUGH_MEMORY;
    case EAI_FAIL: return WSANO_RECOVERY;
    case EAI_FAMILY: return hosted::WSAEAFNOSUPPORT;
    case EAI_SOCKTYPE: return hosted::WSAESOCKTNOSUPPORT;
    default: return platform::WSAHOST_NOT_FOUND; // a machine without name servers answers the same
    }
}

int32_t Resolve(const char *pszNode, const char *pszService, const platform::addrinfo *pHints,
                platform::addrinfo **ppResult)
{
    uint16_t nPort = 0;
    if (pHints != nullptr) {
        if (pHints->ai_family != 0 && pHints->ai_family != AF_INET) return hosted::WSAEAFNOSUPPORT;
        if (pHints->ai_socktype != 0 && pHints->ai_socktype != SOCK_STREAM) return hosted::WSAESOCKTNOSUPPORT;
        if ((pHints->ai_flags & ~WINSOCK_AI_PASSIVE) != 0) return platform::WSAEINVAL;
    }
    if (!ReadService(pszService, &nPort)) return platform::WSATYPE_NOT_FOUND;

    ::addrinfo  hints  = {};
    ::addrinfo *pFound = nullptr;
    hints.ai_family    = AF_INET;
    hints.ai_socktype  = SOCK_STREAM;
    hints.ai_flags     = pHints != nullptr && (pHints->ai_flags & WINSOCK_AI_PASSIVE) != 0 ? AI_PASSIVE : 0;
    // the resolver wants a node or a service; the port is filled in below
    const int nResult = ::getaddrinfo(pszNode, pszNode == nullptr ? "0" : nullptr, &hints, &pFound);
    if (nResult != 0) return ErrorFromResolver(nResult);

    platform::addrinfo  *pFirst = nullptr;
    platform::addrinfo **ppNext = &pFirst;
    int32_t              nError = 0;
    for (const ::addrinfo *p = pFound; p != nullptr; p = p->ai_next) {
        if (p->ai_addrlen != sizeof(platform::sockaddr_in)) continue;
        auto *pEntry = static_cast<Entry *>(hosted::AllocBlock(sizeof(Entry)));
        if (pEntry == nullptr) {
            nError = WSA_NOT_ENOUGH_MEMORY;
            break;
        }
        std::memcpy(&pEntry->address, p->ai_addr, sizeof(pEntry->address));
        pEntry->address.sin_port = nPort;
        pEntry->info.ai_family   = AF_INET;
        pEntry->info.ai_socktype = pHints != nullptr ? pHints->ai_socktype : 0;
        pEntry->info.ai_protocol = pHints != nullptr ? pHints->ai_protocol : 0;
        pEntry->info.ai_addrlen  = sizeof(pEntry->address);
        pEntry->info.ai_addr     = reinterpret_cast<platform::sockaddr *>(&pEntry->address);
        *ppNext                  = &pEntry->info;
        ppNext                   = &pEntry->info.ai_next;
    }
    ::freeaddrinfo(pFound);
    if (nError != 0 || pFirst == nullptr) {
        platform::freeaddrinfo(pFirst);
        return nError != 0 ? nError : platform::WSAHOST_NOT_FOUND;
    }
    *ppResult = pFirst;
    return 0;
}

} // namespace

namespace platform {

int32_t getaddrinfo(const char *pszNode, const char *pszService, const addrinfo *pHints, addrinfo **ppResult)
{
    uint32_t dwError = 0;
    if (ppResult != nullptr) *ppResult = nullptr;
    if (hosted::FailsNow("getaddrinfo", &dwError)) return static_cast<int32_t>(dwError);
    const int32_t nError = hosted::g_nWinsockStarts <= 0 ? WSANOTINITIALISED
                           : ppResult == nullptr         ? WSAEINVAL
                                                         : Resolve(pszNode, pszService, pHints, ppResult);
    if (nError != 0) hosted::FailWith(nError); // Windows gives it both ways
    return nError;
}

void freeaddrinfo(addrinfo *pResult)
{
    while (pResult != nullptr) {
        addrinfo *pNext = pResult->ai_next;
        hosted::FreeBlock(reinterpret_cast<Entry *>(pResult));
        pResult = pNext;
    }
}

} // namespace platform
