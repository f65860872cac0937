// adapters_hosted_test.cpp: the adapters of machine.ini as the three queries tell them.
#include "platform/adapters.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include <fstream>
#include <vector>

using namespace platform;

class HostedAdapters : public MachineTest {
protected:
    static void Describe(const char *pszSettings)
    {
        std::ofstream file(std::string(hosted::MachineFolder()) + "/machine.ini", std::ios::app);
        file << "\n[adapters]\n" << pszSettings;
    }
    static constexpr const char *TWO = "count = 2\n"
                                       "1_kind = wired\n1_address = 192.168.1.9\n1_up = 0\n"
                                       "2_kind = wireless\n2_guid = {4D36E972-E325-11CE-BFC1-08002BE10318}\n"
                                       "2_address = 10.1.2.3\n2_dhcp = 10.1.2.1\n2_description = Wireless LAN\n";
};

TEST_F(HostedAdapters, TheQueriesAgreeOnWhatThereIs)
{
    Describe(TWO);
    HANDLE                    hClient   = nullptr;
    WLAN_INTERFACE_INFO_LIST *pWireless = nullptr;
    MIB_IF_TABLE2            *pTable    = nullptr;
    uint32_t                  dwVersion = 0, cb = sizeof(IP_ADAPTER_INFO);
    ASSERT_EQ(0u, WlanOpenHandle(2, nullptr, &dwVersion, &hClient));
    ASSERT_EQ(0u, WlanEnumInterfaces(hClient, nullptr, &pWireless));
    ASSERT_EQ(1u, pWireless->dwNumberOfItems);
    EXPECT_EQ(0x4D36E972u, pWireless->InterfaceInfo[0].InterfaceGuid.Data1);
    EXPECT_EQ(0x18, pWireless->InterfaceInfo[0].InterfaceGuid.Data4[7]);
    EXPECT_EQ(u"Wireless LAN", std::u16string(pWireless->InterfaceInfo[0].strInterfaceDescription));
    WlanFreeMemory(pWireless);
    EXPECT_EQ(0u, WlanCloseHandle(hClient, nullptr));

    std::vector<IP_ADAPTER_INFO> aInfo(1);
    EXPECT_EQ(ERROR_BUFFER_OVERFLOW, GetAdaptersInfo(aInfo.data(), &cb)) << "room for one of two";
    ASSERT_EQ(2 * sizeof(IP_ADAPTER_INFO), cb);
    aInfo.resize(2);
    ASSERT_EQ(0u, GetAdaptersInfo(aInfo.data(), &cb));
    EXPECT_EQ(0u, aInfo[0].DhcpEnabled);
    ASSERT_EQ(&aInfo[1], aInfo[0].Next);
    EXPECT_STREQ("{4D36E972-E325-11CE-BFC1-08002BE10318}", aInfo[1].AdapterName);
    EXPECT_EQ(1u, aInfo[1].DhcpEnabled);
    EXPECT_STREQ("10.1.2.3", aInfo[1].IpAddressList.IpAddress);
    EXPECT_STREQ("10.1.2.1", aInfo[1].DhcpServer.IpAddress);
    EXPECT_EQ(nullptr, aInfo[1].Next);

    ASSERT_EQ(0u, GetIfTable2(&pTable));
    ASSERT_EQ(2u, pTable->NumEntries);
    EXPECT_EQ(IF_TYPE_ETHERNET_CSMACD, pTable->Table[0].Type);
    EXPECT_NE(IfOperStatusUp, pTable->Table[0].OperStatus);
    EXPECT_NE(IF_TYPE_ETHERNET_CSMACD, pTable->Table[1].Type);
    EXPECT_EQ(IfOperStatusUp, pTable->Table[1].OperStatus);
    EXPECT_NE(0, pTable->Table[0].InterfaceAndOperStatusFlags & IF_FLAG_CONNECTOR_PRESENT);
    FreeMibTable(pTable);
    EXPECT_EQ(0, hosted::LiveBlocks());
}

TEST_F(HostedAdapters, WhatIsMissingOrFailsSaysSo)
{
    HANDLE         hClient   = nullptr;
    MIB_IF_TABLE2 *pTable    = nullptr;
    uint32_t       dwVersion = 0, cb = 0;
    EXPECT_EQ(ERROR_NO_DATA, GetAdaptersInfo(nullptr, &cb)) << "no adapter at all";
    Describe("wireless_service = off\ncount = 1\n1_kind = wireless\n");
    EXPECT_EQ(1062u, WlanOpenHandle(2, nullptr, &dwVersion, &hClient));
    EXPECT_EQ(nullptr, hClient);
    hosted::FailCall("GetIfTable2", 1, ERROR_NOT_SUPPORTED);
    EXPECT_EQ(ERROR_NOT_SUPPORTED, GetIfTable2(&pTable));
    hosted::FailCall("GetAdaptersInfo", 1, ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetAdaptersInfo(nullptr, &cb));
    EXPECT_EQ(0, hosted::LiveBlocks());
}
