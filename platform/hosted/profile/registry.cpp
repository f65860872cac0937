// registry.cpp: reading values of registry.ini.
// A section is a key's whole name, "[HKEY_LOCAL_MACHINE\SOFTWARE\...]"; a value is "Name=dword:1f" (hexadecimal, as in
// an exported registry file) or "Name=text". A key exists when its section or one below it does.
#include "platform/registry.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

using namespace platform;

constexpr uint32_t REG_SZ          = 1;
constexpr int32_t  ERROR_MORE_DATA = 234;
constexpr char     MACHINE_ROOT[]  = "HKEY_LOCAL_MACHINE";

struct OpenKey {
    std::string sName;
};
std::string NameOf(HKEY hKey)
{
    return hKey == HKEY_LOCAL_MACHINE ? MACHINE_ROOT : static_cast<const OpenKey *>(hKey)->sName;
}

std::string RegistryFile()
{
    return std::string(hosted::MachineFolder()) + "/registry.ini";
}

bool KeyExists(const std::string &sName)
{
    std::ifstream file(RegistryFile());
    std::string   sLine;
    while (std::getline(file, sLine)) {
        if (sLine.size() < sName.size() + 2 || sLine[0] != '[') continue;
        if (CompareTextNoCaseN_A(sLine.c_str() + 1, sName.c_str(), sName.size()) != 0) continue;
        const char chNext = sLine[sName.size() + 1];
        if (chNext == ']' || chNext == '\\') return true;
    }
    return false;
}

} // namespace

int32_t platform::RegOpenKeyExW(HKEY hKey, const char16_t *pszSubKey, uint32_t dwOptions, uint32_t dwAccess,
                                HKEY *phResult)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("RegOpenKeyExW", &dwError)) return static_cast<int32_t>(dwError);
    if (dwOptions != 0 || (dwAccess & ~(KEY_QUERY_VALUE | KEY_WOW64_64KEY)) != 0) return ERROR_NOT_SUPPORTED;
    std::string sName = NameOf(hKey);
    if (pszSubKey != nullptr && *pszSubKey != 0) sName += '\\' + hosted::ToUtf8(pszSubKey);
    while (sName.back() == '\\') sName.pop_back();
    if (!KeyExists(sName)) return ERROR_FILE_NOT_FOUND;
    hosted::g_nBlocks++;
    *phResult = new OpenKey{sName};
    return ERROR_SUCCESS;
}

int32_t platform::RegQueryValueExW(HKEY hKey, const char16_t *pszValueName, uint32_t *pdwReserved, uint32_t *pdwType,
                                   uint8_t *pbData, uint32_t *pcbData)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("RegQueryValueExW", &dwError)) return static_cast<int32_t>(dwError);
    if (pdwReserved != nullptr || (pbData != nullptr && pcbData == nullptr)) return ERROR_INVALID_PARAMETER;
    const std::string                                sName = NameOf(hKey);
    std::vector<std::pair<std::string, std::string>> aValues;
    const std::string sWanted = pszValueName == nullptr ? "" : hosted::ToUtf8(pszValueName);
    hosted::ReadMachineFile(RegistryFile(), sName.c_str(), &aValues);
    for (const auto &value : aValues) {
        if (CompareTextNoCaseA(value.first.c_str(), sWanted.c_str()) != 0) continue;
        std::string sData;
        const bool  bNumber = value.second.compare(0, 6, "dword:") == 0;
        if (bNumber) {
            const uint32_t dwValue = static_cast<uint32_t>(std::strtoul(value.second.c_str() + 6, nullptr, 16));
            sData.assign(reinterpret_cast<const char *>(&dwValue), sizeof(dwValue));
        } else {
            const std::u16string sText = hosted::ToUtf16(value.second);
            sData.assign(reinterpret_cast<const char *>(sText.c_str()), (sText.size() + 1) * sizeof(char16_t));
        }
        if (pdwType != nullptr) *pdwType = bNumber ? REG_DWORD : REG_SZ;
        if (pcbData == nullptr) return ERROR_SUCCESS;
        const bool bFits = *pcbData >= sData.size();
        *pcbData         = static_cast<uint32_t>(sData.size());
        if (pbData == nullptr) return ERROR_SUCCESS;
        if (!bFits) return ERROR_MORE_DATA;
        std::memcpy(pbData, sData.data(), sData.size());
        return ERROR_SUCCESS;
    }
    return ERROR_FILE_NOT_FOUND;
}

int32_t platform::RegCloseKey(HKEY hKey)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("RegCloseKey", &dwError)) return static_cast<int32_t>(dwError);
    delete static_cast<OpenKey *>(hKey);
    hosted::g_nBlocks--;
    return ERROR_SUCCESS;
}
