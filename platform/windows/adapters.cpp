// adapters.cpp: adapter queries, forwarded. The wireless service's library is bound at the first call: server editions
// of Windows do not have it. Wine has the library but no service behind it.
#include "platform/adapters.h"
#include "platform/windows/mirror.h"

#define MIRRORED(X) X(IF_TYPE_ETHERNET_CSMACD)
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include "platform/windows/bind.h"
#include <iphlpapi.h>
#include <netioapi.h>
#include <wlanapi.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
static_assert(static_cast<int>(platform::IfOperStatusUp) == static_cast<int>(::IfOperStatusUp));
static_assert(static_cast<int>(platform::IfOperStatusDown) == static_cast<int>(::IfOperStatusDown));
static_assert(static_cast<int>(platform::IfOperStatusNotPresent) == static_cast<int>(::IfOperStatusNotPresent));
static_assert(static_cast<int>(platform::IfOperStatusLowerLayerDown) == static_cast<int>(::IfOperStatusLowerLayerDown));

// The mask of the SDK's bit field cannot be a constant expression of it: its third one-bit field.
static_assert(platform::IF_FLAG_CONNECTOR_PRESENT == 1 << 2);

MIRROR_SIZE(WLAN_INTERFACE_INFO)
MIRROR_FIELD(WLAN_INTERFACE_INFO, InterfaceGuid)
MIRROR_FIELD(WLAN_INTERFACE_INFO, strInterfaceDescription)
MIRROR_FIELD(WLAN_INTERFACE_INFO, isState)
MIRROR_FIELD(WLAN_INTERFACE_INFO_LIST, dwNumberOfItems)
MIRROR_FIELD(WLAN_INTERFACE_INFO_LIST, dwIndex)
static_assert(offsetof(platform::WLAN_INTERFACE_INFO_LIST, InterfaceInfo) ==
              offsetof(::WLAN_INTERFACE_INFO_LIST, InterfaceInfo));

MIRROR_SIZE(IP_ADDR_STRING)
MIRROR_FIELD(IP_ADDR_STRING, Next)
MIRROR_FIELD(IP_ADDR_STRING, IpAddress)
MIRROR_FIELD(IP_ADDR_STRING, IpMask)
MIRROR_FIELD(IP_ADDR_STRING, Context)
MIRROR_SIZE(IP_ADAPTER_INFO)
MIRROR_FIELD(IP_ADAPTER_INFO, Next)
MIRROR_FIELD(IP_ADAPTER_INFO, ComboIndex)
MIRROR_FIELD(IP_ADAPTER_INFO, AdapterName)
MIRROR_FIELD(IP_ADAPTER_INFO, Description)
MIRROR_FIELD(IP_ADAPTER_INFO, AddressLength)
MIRROR_FIELD(IP_ADAPTER_INFO, Address)
MIRROR_FIELD(IP_ADAPTER_INFO, Index)
MIRROR_FIELD(IP_ADAPTER_INFO, Type)
MIRROR_FIELD(IP_ADAPTER_INFO, DhcpEnabled)
MIRROR_FIELD(IP_ADAPTER_INFO, CurrentIpAddress)
MIRROR_FIELD(IP_ADAPTER_INFO, IpAddressList)
MIRROR_FIELD(IP_ADAPTER_INFO, GatewayList)
MIRROR_FIELD(IP_ADAPTER_INFO, DhcpServer)
MIRROR_FIELD(IP_ADAPTER_INFO, HaveWins)
MIRROR_FIELD(IP_ADAPTER_INFO, PrimaryWinsServer)
MIRROR_FIELD(IP_ADAPTER_INFO, SecondaryWinsServer)
MIRROR_FIELD(IP_ADAPTER_INFO, LeaseObtained)
MIRROR_FIELD(IP_ADAPTER_INFO, LeaseExpires)

MIRROR_SIZE(MIB_IF_ROW2)
MIRROR_FIELD(MIB_IF_ROW2, InterfaceLuid)
MIRROR_FIELD(MIB_IF_ROW2, InterfaceIndex)
MIRROR_FIELD(MIB_IF_ROW2, InterfaceGuid)
MIRROR_FIELD(MIB_IF_ROW2, Alias)
MIRROR_FIELD(MIB_IF_ROW2, Description)
MIRROR_FIELD(MIB_IF_ROW2, PhysicalAddressLength)
MIRROR_FIELD(MIB_IF_ROW2, PhysicalAddress)
MIRROR_FIELD(MIB_IF_ROW2, PermanentPhysicalAddress)
MIRROR_FIELD(MIB_IF_ROW2, Mtu)
MIRROR_FIELD(MIB_IF_ROW2, Type)
MIRROR_FIELD(MIB_IF_ROW2, TunnelType)
MIRROR_FIELD(MIB_IF_ROW2, MediaType)
MIRROR_FIELD(MIB_IF_ROW2, PhysicalMediumType)
MIRROR_FIELD(MIB_IF_ROW2, AccessType)
MIRROR_FIELD(MIB_IF_ROW2, DirectionType)
MIRROR_FIELD(MIB_IF_ROW2, InterfaceAndOperStatusFlags)
MIRROR_FIELD(MIB_IF_ROW2, OperStatus)
MIRROR_FIELD(MIB_IF_ROW2, AdminStatus)
MIRROR_FIELD(MIB_IF_ROW2, MediaConnectState)
MIRROR_FIELD(MIB_IF_ROW2, NetworkGuid)
MIRROR_FIELD(MIB_IF_ROW2, ConnectionType)
static_assert(offsetof(platform::MIB_IF_ROW2, aCounters) == offsetof(::MIB_IF_ROW2, TransmitLinkSpeed));
MIRROR_SIZE(MIB_IF_TABLE2)
MIRROR_FIELD(MIB_IF_TABLE2, NumEntries)
MIRROR_FIELD(MIB_IF_TABLE2, Table)
} // namespace mirror

namespace platform {

template <class Procedure> static Procedure BindWlan(const char *pszName)
{
    return BindSystemFunction<Procedure>({L"wlanapi.dll"}, pszName);
}

// Which of library and function is missing, for a binding that failed at some earlier time.
static uint32_t MissingWlan()
{
    const ::HMODULE hLibrary = ::LoadLibraryExW(L"wlanapi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (hLibrary == nullptr) return ERROR_MOD_NOT_FOUND;
    ::FreeLibrary(hLibrary);
    return ERROR_PROC_NOT_FOUND;
}

uint32_t WlanOpenHandle(uint32_t dwClientVersion, void *pReserved, uint32_t *pdwNegotiatedVersion, HANDLE *phClient)
{
    static const auto pFunction = BindWlan<decltype(&::WlanOpenHandle)>("WlanOpenHandle");
    return pFunction != nullptr ? pFunction(dwClientVersion, pReserved, AsSdk(pdwNegotiatedVersion), phClient)
                                : MissingWlan();
}

uint32_t WlanEnumInterfaces(HANDLE hClient, void *pReserved, WLAN_INTERFACE_INFO_LIST **ppList)
{
    static const auto pFunction = BindWlan<decltype(&::WlanEnumInterfaces)>("WlanEnumInterfaces");
    if (pFunction == nullptr) return MissingWlan();
    return pFunction(hClient, pReserved, reinterpret_cast<::WLAN_INTERFACE_INFO_LIST **>(ppList));
}

void WlanFreeMemory(void *pMemory)
{
    static const auto pFunction = BindWlan<decltype(&::WlanFreeMemory)>("WlanFreeMemory");
    if (pFunction != nullptr) pFunction(pMemory);
}

uint32_t WlanCloseHandle(HANDLE hClient, void *pReserved)
{
    static const auto pFunction = BindWlan<decltype(&::WlanCloseHandle)>("WlanCloseHandle");
    return pFunction != nullptr ? pFunction(hClient, pReserved) : MissingWlan();
}

uint32_t GetAdaptersInfo(IP_ADAPTER_INFO *pInfo, uint32_t *pcb)
{
    return ::GetAdaptersInfo(reinterpret_cast<::IP_ADAPTER_INFO *>(pInfo), reinterpret_cast<ULONG *>(pcb));
}

uint32_t GetIfTable2(MIB_IF_TABLE2 **ppTable)
{
    return ::GetIfTable2(reinterpret_cast<::MIB_IF_TABLE2 **>(ppTable));
}

void FreeMibTable(void *pMemory)
{
    ::FreeMibTable(pMemory);
}

} // namespace platform
