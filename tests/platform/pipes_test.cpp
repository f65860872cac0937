// pipes_test.cpp: what the two ends of a named pipe see of each other. (A full buffer: lifecycle_hosted_test.cpp; many
// records at once: command_pipe_server_hosted_test.cpp.)
#include "platform/errors.h"
#include "platform/pipes.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

constexpr uint32_t LONG_WAIT_MS = 20000; // never reached when all is well
constexpr uint32_t IN_BUFFER    = 7920;
const char16_t    *PIPE_NAME    = u"\\\\.\\pipe\\VORN pipes test_0x1";

using Pipes = MachineTest;

HANDLE NewInstance()
{
    return CreateNamedPipeW(PIPE_NAME, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                            PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, IN_BUFFER,
                            IN_BUFFER, 200, nullptr);
}

HANDLE OpenClient(const char16_t *pszName = PIPE_NAME, uint32_t dwAccess = GENERIC_WRITE)
{
    return CreateFileW(pszName, dwAccess, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// An overlapped ConnectNamedPipe with its event.
struct Connecting {
    OVERLAPPED overlapped{};
    Connecting() { overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr); }
    ~Connecting() { CloseHandle(overlapped.hEvent); }
    // 0 when the call succeeded, else its error
    uint32_t Start(HANDLE hPipe) { return ConnectNamedPipe(hPipe, &overlapped) ? 0 : GetLastError(); }
    uint32_t Wait(uint32_t dwMs = LONG_WAIT_MS) const { return WaitForSingleObject(overlapped.hEvent, dwMs); }
};

std::string ReadSome(HANDLE hPipe, uint32_t cb = IN_BUFFER)
{
    std::string sOut(cb, '\0');
    uint32_t    cbRead = 0;
    if (!ReadFile(hPipe, sOut.data(), cb, &cbRead, nullptr)) return "<error " + std::to_string(GetLastError()) + ">";
    sOut.resize(cbRead);
    return sOut;
}

bool Write(HANDLE hPipe, const std::string &sData)
{
    uint32_t cbWritten = 0;
    return WriteFile(hPipe, sData.data(), static_cast<uint32_t>(sData.size()), &cbWritten, nullptr) &&
           cbWritten == sData.size();
}

} // namespace

TEST_F(Pipes, ClientFindsNoneFreeOrBusyInstances)
{
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenClient());
    EXPECT_EQ(2u, GetLastError());
    EXPECT_FALSE(WaitNamedPipeW(PIPE_NAME, 50));
    EXPECT_EQ(2u, GetLastError());

    const HANDLE hServer = NewInstance();
    ASSERT_NE(INVALID_HANDLE_VALUE, hServer);
    EXPECT_TRUE(WaitNamedPipeW(PIPE_NAME, 50));
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenClient(PIPE_NAME, GENERIC_READ));
    EXPECT_EQ(5u, GetLastError());
    const HANDLE hClient = OpenClient(u"\\\\.\\PIPE\\vorn PIPES test_0X1"); // before the server asks for one
    ASSERT_NE(INVALID_HANDLE_VALUE, hClient) << GetLastError();
    Connecting connecting;
    EXPECT_EQ(535u, connecting.Start(hServer));

    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenClient());
    EXPECT_EQ(231u, GetLastError());
    EXPECT_FALSE(WaitNamedPipeW(PIPE_NAME, 20));
    EXPECT_EQ(121u, GetLastError());

    const HANDLE hSecond = NewInstance();
    EXPECT_TRUE(WaitNamedPipeW(PIPE_NAME, LONG_WAIT_MS));
    for (const HANDLE h : {hClient, hServer, hSecond}) EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenClient());
    EXPECT_EQ(2u, GetLastError()) << "instances end with their handles";
}

TEST_F(Pipes, ReaderGetsWhatIsThereThenTheEnd)
{
    const HANDLE hServer = NewInstance();
    Connecting   connecting;
    ASSERT_EQ(997u, connecting.Start(hServer));
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), connecting.Wait(0));
    const HANDLE hClient = OpenClient();
    ASSERT_NE(INVALID_HANDLE_VALUE, hClient);
    EXPECT_EQ(WAIT_OBJECT_0, connecting.Wait());
    EXPECT_TRUE(Write(hClient, "first"));
    EXPECT_EQ("fir", ReadSome(hServer, 3)) << "a part of a message";
    EXPECT_EQ("st", ReadSome(hServer));
    EXPECT_TRUE(Write(hClient, std::string(1584, 'a')));
    EXPECT_TRUE(Write(hClient, std::string(1584, 'b')));
    EXPECT_EQ(std::string(1584, 'a') + std::string(1584, 'b'), ReadSome(hServer)) << "messages may come together";
    EXPECT_TRUE(Write(hClient, "last"));
    EXPECT_TRUE(CloseHandle(hClient));
    EXPECT_EQ("last", ReadSome(hServer));
    EXPECT_EQ("<error 109>", ReadSome(hServer));
    EXPECT_EQ("<error 109>", ReadSome(hServer));
    EXPECT_EQ(232u, connecting.Start(hServer)) << "its client has gone and the pipe was not disconnected";

    EXPECT_TRUE(DisconnectNamedPipe(hServer));
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenClient());
    EXPECT_EQ(231u, GetLastError()) << "not listening yet";
    ASSERT_EQ(997u, connecting.Start(hServer));
    const HANDLE hNext = OpenClient();
    ASSERT_NE(INVALID_HANDLE_VALUE, hNext);
    EXPECT_EQ(WAIT_OBJECT_0, connecting.Wait());
    EXPECT_TRUE(Write(hNext, "again"));
    EXPECT_EQ("again", ReadSome(hServer));
    EXPECT_TRUE(CloseHandle(hNext));
    EXPECT_TRUE(CloseHandle(hServer));
}

TEST_F(Pipes, WriterIsToldThatTheServerHasGone)
{
    for (const bool bDisconnect : {false, true}) {
        const HANDLE hServer = NewInstance();
        const HANDLE hClient = OpenClient();
        ASSERT_NE(INVALID_HANDLE_VALUE, hClient);
        EXPECT_TRUE(Write(hClient, "unread"));
        if (bDisconnect) {
            EXPECT_TRUE(DisconnectNamedPipe(hServer));
            EXPECT_EQ("<error 233>", ReadSome(hServer));
        }
        EXPECT_TRUE(CloseHandle(hServer));
        EXPECT_FALSE(Write(hClient, "more"));
        EXPECT_EQ(bDisconnect ? 233u : 232u, GetLastError());
        EXPECT_TRUE(CloseHandle(hClient));
    }
}

TEST_F(Pipes, PendingConnectIsCancelled)
{
    const HANDLE hServer = NewInstance();
    Connecting   connecting;
    EXPECT_FALSE(CancelIoEx(hServer, &connecting.overlapped));
    EXPECT_EQ(1168u, GetLastError());
    ASSERT_EQ(997u, connecting.Start(hServer));
    EXPECT_TRUE(CancelIoEx(hServer, &connecting.overlapped));
    EXPECT_EQ(WAIT_OBJECT_0, connecting.Wait());
    EXPECT_EQ(0xC0000120u, static_cast<uint32_t>(connecting.overlapped.Internal));
    ASSERT_EQ(997u, connecting.Start(hServer)) << "and asked for again";
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), connecting.Wait(0)) << "a new call resets the event";
    EXPECT_TRUE(CloseHandle(hServer)) << "closing with a call pending";
}

TEST_F(Pipes, WaitEndsWhenAnInstanceBecomesFree)
{
    const HANDLE hServer = NewInstance();
    const HANDLE hClient = OpenClient();
    Connecting   connecting;
    EXPECT_EQ(535u, connecting.Start(hServer));
    const HANDLE hThread = CreateThread(
        nullptr, 0, [](void *) -> uint32_t { return WaitNamedPipeW(PIPE_NAME, LONG_WAIT_MS) ? 0 : GetLastError(); },
        nullptr, 0, nullptr);
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hThread, 50));
    EXPECT_TRUE(CloseHandle(hClient));
    EXPECT_TRUE(DisconnectNamedPipe(hServer));
    EXPECT_EQ(997u, connecting.Start(hServer));
    uint32_t dwExit = 1;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, LONG_WAIT_MS));
    EXPECT_TRUE(GetExitCodeThread(hThread, &dwExit));
    EXPECT_EQ(0u, dwExit);
    EXPECT_TRUE(CloseHandle(hThread));
    EXPECT_TRUE(CloseHandle(hServer));
}

TEST_F(Pipes, OverlappedReadsWaitForWhatIsWrittenAndEndWhenCancelled)
{
    Connecting   connecting;
    OVERLAPPED   overlapped{};
    uint32_t     cb          = 0;
    char         aBuffer[16] = {};
    const HANDLE hServer = NewInstance(), hClient = OpenClient();
    ASSERT_EQ(535u, connecting.Start(hServer));
    overlapped.hEvent = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    const auto Read   = [&] {
        return ReadFile(hServer, aBuffer, sizeof(aBuffer), &cb, &overlapped) ? 0 : GetLastError();
    };
    const auto Result = [&] { return GetOverlappedResult(hServer, &overlapped, &cb, FALSE) ? 0 : GetLastError(); };

    EXPECT_EQ(ERROR_IO_PENDING, Read());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(overlapped.hEvent, 0));
    EXPECT_EQ(ERROR_IO_INCOMPLETE, Result());
    EXPECT_TRUE(Write(hClient, "abc"));
    EXPECT_EQ(0u, Result()) << "the moment it is written";
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(overlapped.hEvent, LONG_WAIT_MS));
    EXPECT_EQ("abc", std::string(aBuffer, cb));

    EXPECT_TRUE(Write(hClient, "de"));
    EXPECT_EQ(0u, Read()) << "what is there is read at once";
    EXPECT_EQ("de", std::string(aBuffer, cb));

    EXPECT_EQ(ERROR_IO_PENDING, Read());
    EXPECT_TRUE(CancelIoEx(hServer, &overlapped));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(overlapped.hEvent, LONG_WAIT_MS));
    EXPECT_EQ(ERROR_OPERATION_ABORTED, Result());

    EXPECT_EQ(ERROR_IO_PENDING, Read());
    EXPECT_TRUE(CloseHandle(hClient));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(overlapped.hEvent, LONG_WAIT_MS));
    EXPECT_EQ(ERROR_BROKEN_PIPE, Result());
    EXPECT_EQ(ERROR_BROKEN_PIPE, Read());
    EXPECT_TRUE(CloseHandle(hServer) && CloseHandle(overlapped.hEvent));
}
