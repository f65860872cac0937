// One attempt of a client, on every backend.
#include "tests/net/net_fixture.h"

using ClientRole = NetTest;

TEST_F(ClientRole, OneAttemptIsAdmittedOrRefused)
{
    for (const auto &[pszAnswer, nExpected] :
         {std::pair("PWACK=0", -6), std::pair("PWACK=1xx", -6), std::pair("pwack=1", 0)}) {
        FakeServer server(pszAnswer);
        EXPECT_EQ(nExpected, ClientInit("127.0.0.1", "secret", server.Port().c_str())) << pszAnswer;
        EXPECT_EQ(nExpected == 0, platform::INVALID_SOCKET != g_ClientRecvSocket);
        if (nExpected != 0) continue;
        EXPECT_EQ(Field("secret"), server.m_sPassword);
        EXPECT_EQ("127.0.0.1 " + server.Port() + " secret", Setting("LastClient", "ServerIP") + ' ' +
                                                                Setting("LastClient", "Port") + ' ' +
                                                                Setting("LastClient", "PW"));
        EndLink();
    }
    EXPECT_EQ(-3, ClientInit("127.0.0.1", "secret", "1")) << "where nobody listens";
}
