// adapters.cpp: the network adapters that a machine says it has, in machine.ini:
//   [adapters]
//   wireless_service = on           off: WlanOpenHandle gives ERROR_SERVICE_NOT_ACTIVE
//   count = 2                       adapters 1 to count follow; none when missing, at most 64
//   1_kind = wireless               or wired
//   1_guid = {4D36E972-E325-11CE-BFC1-08002BE10318}   as adapters are named; one of its own by number when missing
//   1_description = Wireless LAN    "Adapter 1" when missing
//   1_address = 10.1.2.3            0.0.0.0 when missing
//   1_mask = 255.255.255.0
//   1_gateway = 10.1.2.1
//   1_dhcp = 10.1.2.1               the server that gave the address; missing: the address is a static one
//   1_up = 1                        0: no link
// The file is read by every query, so that a test may change it while the program runs.
#include "platform/adapters.h"
#include "platform/errors.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/guids.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <cstring>
#include <vector>

namespace {

using namespace platform;

constexpr uint32_t ERROR_SERVICE_NOT_ACTIVE = 1062;
constexpr uint32_t IF_TYPE_IEEE80211        = 71;
constexpr uint32_t MAX_ADAPTERS             = 64;
constexpr int32_t  IF_OPER_STATUS_DOWN = 2, WLAN_CONNECTED = 1, WLAN_DISCONNECTED = 4;

struct Adapter {
    bool        bWireless, bUp;
    GUID        guid;
    std::string sDescription, sAddress, sMask, sGateway, sDhcp;
};

std::vector<Adapter> MachineAdapters()
{
    std::vector<Adapter> aAdapters;
    const int32_t        nCount = TextToInt32A(hosted::MachineSetting("adapters", "count", "0").c_str());
    for (int32_t n = 1; n <= nCount && n <= static_cast<int32_t>(MAX_ADAPTERS); n++) {
        const auto setting = [n](const char *pszName, const std::string &sDefault) {
            return hosted::MachineSetting("adapters", (std::to_string(n) + "_" + pszName).c_str(), sDefault.c_str());
        };
        Adapter adapter      = {};
        adapter.bWireless    = setting("kind", "wired") == "wireless";
        adapter.bUp          = setting("up", "1") != "0";
        adapter.sDescription = setting("description", "Adapter " + std::to_string(n));
        adapter.sAddress     = setting("address", "0.0.0.0");
        adapter.sMask        = setting("mask", "255.255.255.0");
        adapter.sGateway     = setting("gateway", "0.0.0.0");
        adapter.sDhcp        = setting("dhcp", "");
        if (!hosted::ReadGuid(setting("guid", ""), &adapter.guid))
            adapter.guid = {0xADA00000u + static_cast<uint32_t>(n), 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0}};
        aAdapters.push_back(std::move(adapter));
    }
    return aAdapters;
}

template <size_t N> void CopyAddress(char (&szDest)[N], const std::string &sText)
{
    CopyTextA(szDest, N, sText.empty() ? "0.0.0.0" : sText.c_str());
}

// What WlanOpenHandle gives; the signature tells a handle from other memory.
struct WlanClient {
    uint32_t dwSignature;
};
constexpr uint32_t WLAN_SIGNATURE = 0x4E414C57;

bool IsWlanClient(HANDLE hClient)
{
    return hClient != nullptr && static_cast<WlanClient *>(hClient)->dwSignature == WLAN_SIGNATURE;
}

} // namespace

namespace platform {

uint32_t WlanOpenHandle(uint32_t dwClientVersion, void *pReserved, uint32_t *pdwNegotiatedVersion, HANDLE *phClient)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("WlanOpenHandle", &dwError)) return dwError;
    if (pReserved != nullptr || pdwNegotiatedVersion == nullptr || phClient == nullptr) return ERROR_INVALID_PARAMETER;
    if (dwClientVersion != 1 && dwClientVersion != 2) return ERROR_NOT_SUPPORTED;
    if (hosted::MachineSetting("adapters", "wireless_service", "on") == "off") return ERROR_SERVICE_NOT_ACTIVE;
    auto *pClient = static_cast<WlanClient *>(hosted::AllocBlock(sizeof(WlanClient)));
    if (pClient == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    pClient->dwSignature  = WLAN_SIGNATURE;
    *pdwNegotiatedVersion = dwClientVersion;
    *phClient             = pClient;
    return ERROR_SUCCESS;
}

uint32_t WlanEnumInterfaces(HANDLE hClient, void *pReserved, WLAN_INTERFACE_INFO_LIST **ppList)
{
    uint32_t dwError = 0;
    if (ppList != nullptr) *ppList = nullptr;
    if (hosted::FailsNow("WlanEnumInterfaces", &dwError)) return dwError;
    if (!IsWlanClient(hClient)) return ERROR_INVALID_HANDLE;
    if (pReserved != nullptr || ppList == nullptr) return ERROR_INVALID_PARAMETER;
    const std::vector<Adapter> aAdapters = MachineAdapters();
    auto                      *pList     = static_cast<WLAN_INTERFACE_INFO_LIST *>(
        hosted::AllocBlock(sizeof(WLAN_INTERFACE_INFO_LIST) + aAdapters.size() * sizeof(WLAN_INTERFACE_INFO)));
    if (pList == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    WLAN_INTERFACE_INFO *pInfo = pList->InterfaceInfo;
    for (const Adapter &adapter : aAdapters) {
        if (!adapter.bWireless) continue;
        pInfo->InterfaceGuid = adapter.guid;
        pInfo->isState       = adapter.bUp ? WLAN_CONNECTED : WLAN_DISCONNECTED;
        CopyTextW(pInfo->strInterfaceDescription, 256, hosted::ToUtf16(adapter.sDescription).c_str());
        pList->dwNumberOfItems++;
        pInfo++;
    }
    *ppList = pList;
    return ERROR_SUCCESS;
}

void WlanFreeMemory(void *pMemory)
{
    hosted::FreeBlock(pMemory);
}

uint32_t WlanCloseHandle(HANDLE hClient, void *pReserved)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("WlanCloseHandle", &dwError)) return dwError;
    if (!IsWlanClient(hClient)) return ERROR_INVALID_HANDLE;
    if (pReserved != nullptr) return ERROR_INVALID_PARAMETER;
    static_cast<WlanClient *>(hClient)->dwSignature = 0;
    hosted::FreeBlock(hClient);
    return ERROR_SUCCESS;
}

uint32_t GetAdaptersInfo(IP_ADAPTER_INFO *pInfo, uint32_t *pcb)
{
    constexpr uint32_t MIB_IF_TYPE_ETHERNET = IF_TYPE_ETHERNET_CSMACD;
    uint32_t           dwError              = 0;
    if (hosted::FailsNow("GetAdaptersInfo", &dwError)) return dwError;
    if (pcb == nullptr) return ERROR_INVALID_PARAMETER;
    const std::vector<Adapter> aAdapters = MachineAdapters();
    const auto                 cbWanted  = static_cast<uint32_t>(aAdapters.size() * sizeof(IP_ADAPTER_INFO));
    if (aAdapters.empty()) return ERROR_NO_DATA;
    if (pInfo == nullptr || *pcb < cbWanted) {
        *pcb = cbWanted;
        return ERROR_BUFFER_OVERFLOW;
    }
    std::memset(static_cast<void *>(pInfo), 0, cbWanted);
    for (size_t i = 0; i < aAdapters.size(); i++) {
        const Adapter   &adapter = aAdapters[i];
        IP_ADAPTER_INFO &info    = pInfo[i];
        info.Next                = i + 1 < aAdapters.size() ? &info + 1 : nullptr;
        info.Index = info.ComboIndex = static_cast<uint32_t>(i + 1);
        info.Type                    = adapter.bWireless ? IF_TYPE_IEEE80211 : MIB_IF_TYPE_ETHERNET;
        info.DhcpEnabled             = adapter.sDhcp.empty() ? 0 : 1;
        CopyTextA(info.AdapterName, sizeof(info.AdapterName), hosted::GuidText(adapter.guid).c_str());
        CopyTextA(info.Description, sizeof(info.Description), adapter.sDescription.c_str());
        CopyAddress(info.IpAddressList.IpAddress, adapter.sAddress);
        CopyAddress(info.IpAddressList.IpMask, adapter.sMask);
        CopyAddress(info.GatewayList.IpAddress, adapter.sGateway);
        CopyAddress(info.GatewayList.IpMask, "255.255.255.255");
        CopyAddress(info.DhcpServer.IpAddress, adapter.sDhcp);
    }
    return ERROR_SUCCESS;
}

uint32_t GetIfTable2(MIB_IF_TABLE2 **ppTable)
{
    uint32_t dwError = 0;
    if (ppTable != nullptr) *ppTable = nullptr;
    if (hosted::FailsNow("GetIfTable2", &dwError)) return dwError;
    if (ppTable == nullptr) return ERROR_INVALID_PARAMETER;
    const std::vector<Adapter> aAdapters = MachineAdapters();
    auto                      *pTable    = static_cast<MIB_IF_TABLE2 *>(
        hosted::AllocBlock(sizeof(MIB_IF_TABLE2) + aAdapters.size() * sizeof(MIB_IF_ROW2)));
    if (pTable == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    for (const Adapter &adapter : aAdapters) {
        MIB_IF_ROW2 &row                = pTable->Table[pTable->NumEntries++];
        row.InterfaceIndex              = pTable->NumEntries;
        row.InterfaceGuid               = adapter.guid;
        row.Type                        = adapter.bWireless ? IF_TYPE_IEEE80211 : IF_TYPE_ETHERNET_CSMACD;
        row.InterfaceAndOperStatusFlags = IF_FLAG_CONNECTOR_PRESENT;
        row.OperStatus                  = adapter.bUp ? IfOperStatusUp : IF_OPER_STATUS_DOWN;
        CopyTextW(row.Description, 257, hosted::ToUtf16(adapter.sDescription).c_str());
        CopyTextW(row.Alias, 257, hosted::ToUtf16(adapter.sDescription).c_str());
    }
    *ppTable = pTable;
    return ERROR_SUCCESS;
}

void FreeMibTable(void *pMemory)
{
    hosted::FreeBlock(pMemory);
}

} // namespace platform
