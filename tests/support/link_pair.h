// link_pair.h: two connected sockets of this process, over the loopback interface.
#pragma once
#include "platform/sockets.h"
#include "platform/tool_seam.h"
#include <gtest/gtest.h>

// A socket that listens on 127.0.0.1; its port in network order.
inline platform::SOCKET ListenOnLoopback(uint16_t *pnPort)
{
    using namespace platform;
    sockaddr_in  address = {};
    int32_t      cb      = sizeof(address);
    const SOCKET hListen = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    address.sin_family   = AF_INET;
    address.sin_addr     = 0x0100007F; // 127.0.0.1
    EXPECT_EQ(0, bind(hListen, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << WSAGetLastError();
    EXPECT_EQ(0, listen(hListen, SOMAXCONN)) << WSAGetLastError();
    EXPECT_EQ(0, getsockname(hListen, reinterpret_cast<sockaddr *>(&address), &cb));
    *pnPort = address.sin_port;
    return hListen;
}

// 0 or SOCKET_ERROR, as connect gives it.
inline int32_t ConnectToLoopback(platform::SOCKET s, uint16_t nPort)
{
    platform::sockaddr_in address = {};
    address.sin_family            = platform::AF_INET;
    address.sin_port              = nPort;
    address.sin_addr              = 0x0100007F;
    return platform::connect(s, reinterpret_cast<platform::sockaddr *>(&address), sizeof(address));
}

// Winsock must be started. Closes what is still open.
struct LinkPair {
    platform::SOCKET hClient = platform::INVALID_SOCKET, hServer = platform::INVALID_SOCKET;

    LinkPair()
    {
        uint16_t               nPort   = 0;
        const platform::SOCKET hListen = ListenOnLoopback(&nPort);
        hClient = platform::socket(platform::AF_INET, platform::SOCK_STREAM, platform::IPPROTO_TCP);
        EXPECT_EQ(0, ConnectToLoopback(hClient, nPort)) << platform::WSAGetLastError();
        hServer = platform::accept(hListen, nullptr, nullptr);
        EXPECT_NE(platform::INVALID_SOCKET, hServer) << platform::WSAGetLastError();
        platform::closesocket(hListen);
    }
    ~LinkPair()
    {
        Close(&hClient);
        Close(&hServer);
    }
    LinkPair(const LinkPair &)            = delete;
    LinkPair &operator=(const LinkPair &) = delete;

    static void Close(platform::SOCKET *ph)
    {
        if (*ph != platform::INVALID_SOCKET) platform::closesocket(*ph);
        *ph = platform::INVALID_SOCKET;
    }
    static void SetTimeout(platform::SOCKET s, int32_t nOption, uint32_t dwMilliseconds)
    {
        EXPECT_EQ(0, platform::setsockopt(s, platform::SOL_SOCKET, nOption,
                                          reinterpret_cast<const char *>(&dwMilliseconds), sizeof(dwMilliseconds)));
    }
};

// Winsock for the life of a test.
struct WinsockStarted {
    WinsockStarted()
    {
        platform::WSADATA data;
        EXPECT_EQ(0, platform::WSAStartup(0x0202, &data));
    }
    ~WinsockStarted() { platform::WSACleanup(); }
};
