// peer_fuzz.cpp: a peer that has been admitted sends any bytes as the fields and the stream of a file, or as a record,
// and breaks the link. The receiver must come back with a result, keep its memory and leave nothing open.
#include "net/command_channel.h"
#include "net/listener.h"
#include "net/network_link.h"
#include "net/receive_file_command.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/sockets.h"
#include <algorithm>
#include <cstdlib>
#include <string>
#include <unistd.h>

using namespace platform;

static void StartOnce()
{
    static bool s_bStarted = false;
    if (s_bStarted) return;
    s_bStarted          = true;
    const std::string s = "/tmp/vorn-peer-fuzz-" + std::to_string(getpid());
    WSADATA           data;
    if (!hosted::UseMachine(s.c_str()) || WSAStartup(0x0202, &data) != 0) std::abort();
    hosted::SetClockRate(1000); // a silent peer costs no time
    hosted::SetSocketTimeout(20);
    MakeNetSocketLock();
}

// A file command whose stream is reached: the first byte's bits choose flag and size, the second is the type, the rest
// is the stream as it stands.
static std::string FileCommand(const uint8_t *pData, size_t cb)
{
    std::string sWire(FILE_PATH_BYTES, '\0');
    for (size_t i = 0; i < 8; i++) sWire[2 * i] = "C:\\f.bin"[i];
    const uint32_t dwType = pData[1], dwAttributes = 0x80;
    const int64_t  llSize = static_cast<int64_t>(pData[0] >> 2) * 2500;
    sWire.append(reinterpret_cast<const char *>(&dwType), sizeof(dwType));
    sWire.append(reinterpret_cast<const char *>(&dwAttributes), sizeof(dwAttributes));
    sWire.push_back(static_cast<char>(pData[0] >> 1 & 1));
    if (llSize != 0) sWire.append(reinterpret_cast<const char *>(&llSize), sizeof(llSize)); // else the stream's own
    return sWire.append(reinterpret_cast<const char *>(pData) + 2, cb - 2);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t cb)
{
    StartOnce();
    sockaddr_in  address = {};
    int32_t      cbName  = sizeof(address);
    const SOCKET hListen = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    address.sin_family   = AF_INET;
    address.sin_addr     = 0x0100007F;
    if (bind(hListen, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(hListen, 1) != 0 ||
        getsockname(hListen, reinterpret_cast<sockaddr *>(&address), &cbName) != 0)
        std::abort();
    const SOCKET hPeer = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (connect(hPeer, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) std::abort();
    const SOCKET hOwn = accept(hListen, nullptr, nullptr);
    closesocket(hListen);
    PrepareLinkSocket(hOwn);
    const bool  bFile = cb > 2 && (pData[0] & 1) != 0;
    std::string sWire = bFile ? FileCommand(pData, cb) : std::string(reinterpret_cast<const char *>(pData), cb);
    for (size_t nDone = 0; nDone < sWire.size() && nDone < 60000;) { // what the socket takes without a reader
        const int32_t nSent =
            send(hPeer, sWire.data() + nDone, static_cast<int32_t>(std::min<size_t>(4096, sWire.size() - nDone)), 0);
        if (nSent <= 0) break;
        nDone += static_cast<size_t>(nSent);
    }
    closesocket(hPeer); // what was sent can still be read
    const int nHandles = hosted::OpenHandles(), nCiphers = hosted::OpenCiphers();
    if (bFile) SendFileCMDHandler(hOwn);
    else SendDataCMDHandler(hOwn);
    if (hosted::OpenHandles() != nHandles || hosted::OpenCiphers() != nCiphers) std::abort();
    closesocket(hOwn);
    return 0;
}
