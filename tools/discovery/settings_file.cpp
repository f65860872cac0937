// settings_file.cpp: see the header.
#include "tools/discovery/settings_file.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/sockets.h"
#include <algorithm>

using namespace platform;

namespace {

constexpr char     SECTION[]    = "ServerEnum";
constexpr uint32_t MAX_LISTED   = 256; // a torn count is any number
constexpr uint32_t AMISS_ROUNDS = 2;

std::string PortKey(size_t n)
{
    return std::to_string(n) + "_port";
}

std::string ReadValue(const std::string &sKey, const char *pszFile)
{
    char szValue[64];
    GetPrivateProfileStringA(SECTION, sKey.c_str(), "", szValue, sizeof(szValue), pszFile);
    return szValue;
}

void WriteValue(const std::string &sKey, const std::string &sValue, const char *pszFile)
{
    WritePrivateProfileStringA(SECTION, sKey.c_str(), sValue.c_str(), pszFile);
}

// What the file holds now, as far as it is whole; *pbCounted is false when it has no count at all.
std::vector<FoundServer> ReadServers(const char *pszFile, bool *pbCounted)
{
    std::vector<FoundServer> aServers(std::min(GetPrivateProfileIntA(SECTION, "Count", 0, pszFile), MAX_LISTED));
    *pbCounted = !ReadValue("Count", pszFile).empty();
    for (size_t i = 0; i < aServers.size(); i++) {
        aServers[i].sAddress = ReadValue(std::to_string(i + 1), pszFile);
        aServers[i].nPort = static_cast<uint16_t>(GetPrivateProfileIntA(SECTION, PortKey(i + 1).c_str(), 0, pszFile));
    }
    return aServers;
}

void WriteServers(const char *pszFile, const std::vector<FoundServer> &aOld, const std::vector<FoundServer> &aNew)
{
    const bool bLonger = aNew.size() >= aOld.size() && std::equal(aOld.begin(), aOld.end(), aNew.begin());
    if (!bLonger) WriteValue("Count", "0", pszFile); // nobody reads an entry while it changes
    for (size_t i = bLonger ? aOld.size() : 0; i < aNew.size(); i++) {
        WriteValue(std::to_string(i + 1), aNew[i].sAddress, pszFile);
        WriteValue(PortKey(i + 1), std::to_string(aNew[i].nPort), pszFile);
    }
    for (size_t i = aNew.size(); i < aOld.size(); i++) {
        WritePrivateProfileStringA(SECTION, std::to_string(i + 1).c_str(), nullptr, pszFile);
        WritePrivateProfileStringA(SECTION, PortKey(i + 1).c_str(), nullptr, pszFile);
    }
    WriteValue("Count", std::to_string(aNew.size()), pszFile);
}

std::string MarkFile(const char *pszFile, const char *pszKind)
{
    return std::string(pszFile) + "." + pszKind;
}

} // namespace

uint16_t ReadServerPort(const char *pszFile)
{
    const uint32_t nPort = GetPrivateProfileIntA("ServerMDNS", "Port", 0, pszFile);
    return nPort <= UINT16_MAX ? static_cast<uint16_t>(nPort) : uint16_t{0};
}

std::string ReadLastAdmission(const char *pszFile)
{
    std::string sAdmission;
    for (const char *pszKey : {"Port", "PW"}) {
        char szValue[64];
        GetPrivateProfileStringA("LastServer", pszKey, "", szValue, sizeof(szValue), pszFile);
        sAdmission += szValue + std::string(" ");
    }
    return sAdmission;
}

bool IsPortTaken(uint16_t nPort)
{
    const SOCKET hSocket = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (hSocket == INVALID_SOCKET) return false;
    sockaddr_in address = {};
    address.sin_family  = AF_INET;
    address.sin_port    = htons(nPort);
    const bool bTaken   = bind(hSocket, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0;
    closesocket(hSocket);
    return bTaken;
}

void KeepServerList(const char *pszFile, const std::vector<FoundServer> &aServers, uint32_t *pnRoundsAmiss)
{
    bool                           bCounted = false;
    const std::vector<FoundServer> aWritten = ReadServers(pszFile, &bCounted);
    *pnRoundsAmiss                          = bCounted && aWritten == aServers ? 0 : *pnRoundsAmiss + 1;
    if (*pnRoundsAmiss >= AMISS_ROUNDS) WriteServers(pszFile, aWritten, aServers);
}

void MarkNewest(const char *pszFile, const char *pszKind)
{
    WritePrivateProfileStringA("Newest", "Process", std::to_string(GetCurrentProcessId()).c_str(),
                               MarkFile(pszFile, pszKind).c_str());
}

bool IsNewest(const char *pszFile, const char *pszKind)
{
    const uint32_t dwNewest = GetPrivateProfileIntA("Newest", "Process", 0, MarkFile(pszFile, pszKind).c_str());
    return dwNewest == 0 || dwNewest == GetCurrentProcessId();
}
