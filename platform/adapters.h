// adapters.h: Native Wi-Fi and IP Helper queries: which adapters exist and which addresses they have.
#pragma once
#include "platform/types.h"

namespace platform {

struct WLAN_INTERFACE_INFO {
    GUID     InterfaceGuid;
    char16_t strInterfaceDescription[256];
    int32_t  isState;
};
struct WLAN_INTERFACE_INFO_LIST {
    uint32_t            dwNumberOfItems;
    uint32_t            dwIndex;
    WLAN_INTERFACE_INFO InterfaceInfo[1];
};

// 0 or an error code. On Windows wlanapi.dll is bound at the first call: a system without it answers
// ERROR_MOD_NOT_FOUND or ERROR_PROC_NOT_FOUND.
uint32_t WlanOpenHandle(uint32_t dwClientVersion, void *pReserved, uint32_t *pdwNegotiatedVersion, HANDLE *phClient);
uint32_t WlanEnumInterfaces(HANDLE hClient, void *pReserved, WLAN_INTERFACE_INFO_LIST **ppList);
void     WlanFreeMemory(void *pMemory);
uint32_t WlanCloseHandle(HANDLE hClient, void *pReserved);

struct IP_ADDR_STRING {
    IP_ADDR_STRING *Next;
    char            IpAddress[16];
    char            IpMask[16];
    uint32_t        Context;
};
struct IP_ADAPTER_INFO {
    IP_ADAPTER_INFO *Next;
    uint32_t         ComboIndex;
    char             AdapterName[260];
    char             Description[132];
    uint32_t         AddressLength;
    uint8_t          Address[8];
    uint32_t         Index;
    uint32_t         Type;
    uint32_t         DhcpEnabled;
    IP_ADDR_STRING  *CurrentIpAddress;
    IP_ADDR_STRING   IpAddressList;
    IP_ADDR_STRING   GatewayList;
    IP_ADDR_STRING   DhcpServer;
    BOOL             HaveWins;
    IP_ADDR_STRING   PrimaryWinsServer;
    IP_ADDR_STRING   SecondaryWinsServer;
    int64_t          LeaseObtained;
    int64_t          LeaseExpires;
};
static_assert(sizeof(IP_ADAPTER_INFO) == 704, "the first buffer that callers offer");

// 0, ERROR_BUFFER_OVERFLOW with the size wanted in *pcb, or another error code.
uint32_t GetAdaptersInfo(IP_ADAPTER_INFO *pInfo, uint32_t *pcb);

constexpr uint32_t IF_TYPE_ETHERNET_CSMACD = 6;
constexpr int32_t  IfOperStatusUp = 1, IfOperStatusDown = 2, IfOperStatusNotPresent = 6, IfOperStatusLowerLayerDown = 7;
constexpr uint8_t  IF_FLAG_CONNECTOR_PRESENT = 0x04; // in InterfaceAndOperStatusFlags

// MIB_IF_ROW2 with the fields this system reads; the rest is kept for its size.
struct MIB_IF_ROW2 {
    uint64_t InterfaceLuid;
    uint32_t InterfaceIndex;
    GUID     InterfaceGuid;
    char16_t Alias[257];
    char16_t Description[257];
    uint32_t PhysicalAddressLength;
    uint8_t  PhysicalAddress[32];
    uint8_t  PermanentPhysicalAddress[32];
    uint32_t Mtu;
    uint32_t Type;
    int32_t  TunnelType;
    int32_t  MediaType;
    int32_t  PhysicalMediumType;
    int32_t  AccessType;
    int32_t  DirectionType;
    uint8_t  InterfaceAndOperStatusFlags;
    int32_t  OperStatus;
    int32_t  AdminStatus;
    int32_t  MediaConnectState;
    GUID     NetworkGuid;
    int32_t  ConnectionType;
    uint64_t aCounters[20];
};
struct MIB_IF_TABLE2 {
    uint32_t    NumEntries;
    MIB_IF_ROW2 Table[1];
};
static_assert(sizeof(MIB_IF_ROW2) == 1352, "the SDK's size");

uint32_t GetIfTable2(MIB_IF_TABLE2 **ppTable);
void     FreeMibTable(void *pMemory);

} // namespace platform
