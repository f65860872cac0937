// adapter_queries.cpp: which network this machine is on, as far as the fallback of the server search asks.
#include "net/adapter_queries.h"
#include "platform/adapters.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include <cstdlib>
#include <cstring>

using namespace platform;

char g_szLocalIP[16];
char g_szLocalIPPrefix[16];

constexpr uint32_t WLAN_CLIENT_VERSION = 2;
constexpr size_t   GUID_TEXT_BYTES     = 40;

static void FormatAdapterName(const GUID &guid, char (&szName)[GUID_TEXT_BYTES])
{
    const uint8_t *p = guid.Data4;
    FormatTextA(szName, sizeof(szName), "{%08lX-%04hX-%04hX-%02hhX%02hhX-%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX}",
                guid.Data1, guid.Data2, guid.Data3, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7]);
}

// The four numbers of a dotted address; a part that is missing counts as 0.
static void ReadDottedAddress(const char *pszAddress, int32_t (&aNumbers)[4])
{
    for (int32_t &n : aNumbers) {
        n          = pszAddress != nullptr ? TextToInt32A(pszAddress) & 0xFF : 0;
        pszAddress = pszAddress != nullptr ? std::strchr(pszAddress, '.') : nullptr;
        if (pszAddress != nullptr) pszAddress++;
    }
}

// The system's list of adapters, freed with free. Null: logged.
static IP_ADAPTER_INFO *QueryAdapters()
{
    uint32_t cb    = sizeof(IP_ADAPTER_INFO);
    auto    *pInfo = static_cast<IP_ADAPTER_INFO *>(std::malloc(cb));
    uint32_t dwErr = pInfo != nullptr ? GetAdaptersInfo(pInfo, &cb) : 0;
    if (dwErr == ERROR_BUFFER_OVERFLOW) {
        std::free(pInfo);
        pInfo = static_cast<IP_ADAPTER_INFO *>(std::malloc(cb));
        if (pInfo != nullptr) dwErr = GetAdaptersInfo(pInfo, &cb);
    }
    if (pInfo == nullptr) {
        TraceDebugA("[GetDhcpServerIPAddr] GetAdaptersInfo Error allocating memory needed to call GetAdaptersinfo.");
        return nullptr;
    }
    if (dwErr == 0) return pInfo;
    TraceDebugA("[GetDhcpServerIPAddr] GetAdaptersInfo failed with error: [%d].", dwErr);
    std::free(pInfo);
    return nullptr;
}

static void ReadWirelessAddress(const GUID &guid)
{
    char szName[GUID_TEXT_BYTES];
    FormatAdapterName(guid, szName);
    IP_ADAPTER_INFO *pAdapters = QueryAdapters();
    for (const IP_ADAPTER_INFO *p = pAdapters; p != nullptr; p = p->Next) {
        if (std::strcmp(p->AdapterName, szName) != 0 || !p->DhcpEnabled) continue;
        int32_t a[4];
        ReadDottedAddress(p->IpAddressList.IpAddress, a);
        TraceDebugA("[GetDhcpServerIPAddr] Local IP:[%d.%d.%d.%d].", a[0], a[1], a[2], a[3]);
        FormatTextA(g_szLocalIP, sizeof(g_szLocalIP), "%d.%d.%d.%d", a[0], a[1], a[2], a[3]);
        FormatTextA(g_szLocalIPPrefix, sizeof(g_szLocalIPPrefix), "%d", a[0]);
        ReadDottedAddress(p->DhcpServer.IpAddress, a);
        TraceDebugA("[GetDhcpServerIPAddr] Host IP:[%d.%d.%d.%d].", a[0], a[1], a[2], a[3]);
        break;
    }
    std::free(pAdapters);
}

int32_t GetDhcpServerIPAddr()
{
    uint32_t                  dwVersion = 0;
    HANDLE                    hClient   = nullptr;
    WLAN_INTERFACE_INFO_LIST *pList     = nullptr;
    if (WlanOpenHandle(WLAN_CLIENT_VERSION, nullptr, &dwVersion, &hClient) != 0) return 1;
    if (WlanEnumInterfaces(hClient, nullptr, &pList) != 0) {
        WlanCloseHandle(hClient, nullptr);
        return 1;
    }
    if (pList->dwNumberOfItems > 0) ReadWirelessAddress(pList->InterfaceInfo[0].InterfaceGuid);
    WlanFreeMemory(pList);
    WlanCloseHandle(hClient, nullptr);
    return 0;
}

bool GetCurrentIPFromEthernetAdapter()
{
    MIB_IF_TABLE2 *pTable = nullptr;
    if (GetIfTable2(&pTable) != 0) return false;
    TraceDebugA("[GetCurrentIPFromEthernetAdapter] GetIfTable2 done.");
    bool bFound = false;
    for (uint32_t i = 0; i < pTable->NumEntries && !bFound; i++) {
        const MIB_IF_ROW2 &row = pTable->Table[i];
        bFound                 = row.Type == IF_TYPE_ETHERNET_CSMACD && row.OperStatus == IfOperStatusUp &&
                 (row.InterfaceAndOperStatusFlags & IF_FLAG_CONNECTOR_PRESENT) != 0;
    }
    if (bFound) TraceDebugA("[GetCurrentIPFromEthernetAdapter] Find targetGUID.");
    FreeMibTable(pTable);
    return bFound;
}
