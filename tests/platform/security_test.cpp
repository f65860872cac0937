// security_test.cpp: the access list for Everyone on named objects. (On files and pipes: state_files_test.cpp,
// command_pipe_server_test.cpp; the user's identity: path_map_test.cpp, machine_info_hosted_test.cpp.)
#include "platform/tool_seam.h"
#include "tests/support/test_machine.h"

using namespace platform;

using Security = MachineTest;

TEST_F(Security, EveryonesRightsReadBackAsTheSystemStoresThem)
{
    uint32_t             dwMask = 0, nEntries = 0;
    SECURITY_ATTRIBUTES *pPipe = CreateEveryoneSecurity(PIPE_EVERYONE_ACCESS);
    ASSERT_NE(nullptr, pPipe);
    const HANDLE hEvent = CreateEventW(pPipe, TRUE, FALSE, u"Global\\VORN security test event");
    EXPECT_TRUE(ReadEveryoneAccess(hEvent, SecuredObject::Kernel, &dwMask, &nEntries));
    EXPECT_EQ(0x120003u, dwMask & 0x1F0003) << "of the rights that an event has";
    EXPECT_EQ(1u, nEntries);
    CloseHandle(hEvent);
    EXPECT_FALSE(ReadEveryoneAccess(hEvent, SecuredObject::Kernel, &dwMask, &nEntries)) << "a closed handle";
    const HANDLE hPlain = CreateEventW(nullptr, TRUE, FALSE, u"Global\\VORN security test event");
    EXPECT_FALSE(ReadEveryoneAccess(hPlain, SecuredObject::Kernel, &dwMask, &nEntries)) << "made without a list";
    CloseHandle(hPlain);
    FreeSecurity(pPipe);
    FreeSecurity(nullptr);
}
