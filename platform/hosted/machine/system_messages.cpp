// system_messages.cpp: the system's English texts for the failures that its logs show most, and LocalFree.
// A code without a text fails as on Windows (ERROR_MR_MID_NOT_FOUND). IGNORE_INSERTS is always asked for, so the texts
// hold no inserts.
#include "platform/errors.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include <algorithm>
#include <iterator>
#include <string>

namespace {

constexpr uint32_t ERROR_MR_MID_NOT_FOUND = 317, ERROR_RESOURCE_LANG_NOT_FOUND = 1815;
constexpr uint32_t LANGUAGE_DEFAULT = 0x0400, LANGUAGE_ENGLISH_US = 0x0409;

struct SystemMessage {
    uint32_t    dwCode;
    const char *pszText; // ASCII, without the line break
};

// In the order of the codes.
constexpr SystemMessage g_aMessages[] = {
    {0, "The operation completed successfully."},
    {2, "The system cannot find the file specified."},
    {3, "The system cannot find the path specified."},
    {5, "Access is denied."},
    {6, "The handle is invalid."},
    {8, "Not enough memory resources are available to process this command."},
    {32, "The process cannot access the file because it is being used by another process."},
    {50, "The request is not supported."},
    {80, "The file exists."},
    {87, "The parameter is incorrect."},
    {112, "There is not enough space on the disk."},
    {123, "The filename, directory name, or volume label syntax is incorrect."},
    {145, "The directory is not empty."},
    {183, "Cannot create a file when that file already exists."},
    {206, "The filename or extension is too long."},
    {1117, "The request could not be performed because of an I/O device error."},
    {10013, "An attempt was made to access a socket in a way forbidden by its access permissions."},
    {10022, "An invalid argument was supplied."},
    {10038, "An operation was attempted on something that is not a socket."},
    {10048, "Only one usage of each socket address (protocol/network address/port) is normally permitted."},
    {10049, "The requested address is not valid in its context."},
    {10051, "A socket operation was attempted to an unreachable network."},
    {10053, "An established connection was aborted by the software in your host machine."},
    {10054, "An existing connection was forcibly closed by the remote host."},
    {10057,
     "A request to send or receive data was disallowed because the socket is not connected and (when sending on a "
     "datagram socket using a sendto call) no address was supplied."},
    {10058, "A request to send or receive data was disallowed because the socket had already been shut down in that "
            "direction with a previous shutdown call."},
    {10060,
     "A connection attempt failed because the connected party did not properly respond after a period of time, or "
     "established connection failed because connected host has failed to respond."},
    {10061, "No connection could be made because the target machine actively refused it."},
    {10065, "A socket operation was attempted to an unreachable host."},
    {11001, "No such host is known."},
};

} // namespace

namespace platform {

uint32_t FormatMessageW(uint32_t dwFlags, const void *pSource, uint32_t dwMessageId, uint32_t dwLanguageId,
                        char16_t **ppszBuffer, uint32_t nSize, void *pArguments)
{
    constexpr uint32_t ONLY_FLAGS =
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM;
    if (hosted::FailsNow("FormatMessageW")) return 0;
    if (dwFlags != ONLY_FLAGS || pSource != nullptr || pArguments != nullptr) {
        hosted::SetError(ERROR_NOT_SUPPORTED);
        return 0;
    }
    if (ppszBuffer == nullptr) {
        hosted::SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    *ppszBuffer = nullptr;
    if (dwLanguageId != 0 && dwLanguageId != LANGUAGE_DEFAULT && dwLanguageId != LANGUAGE_ENGLISH_US) {
        hosted::SetError(ERROR_RESOURCE_LANG_NOT_FOUND);
        return 0;
    }
    const auto *pMessage = std::lower_bound(std::begin(g_aMessages), std::end(g_aMessages), dwMessageId,
                                            [](const SystemMessage &m, uint32_t dwCode) { return m.dwCode < dwCode; });
    if (pMessage == std::end(g_aMessages) || pMessage->dwCode != dwMessageId) {
        hosted::SetError(ERROR_MR_MID_NOT_FOUND);
        return 0;
    }
    const std::string sText   = std::string(pMessage->pszText) + "\r\n";
    const size_t      cchRoom = std::max<size_t>(nSize, sText.size() + 1);
    auto             *pszText = static_cast<char16_t *>(hosted::AllocBlock(cchRoom * sizeof(char16_t)));
    if (pszText == nullptr) return 0;
    std::copy(sText.begin(), sText.end(), pszText);
    *ppszBuffer = pszText;
    return static_cast<uint32_t>(sText.size());
}

void *LocalFree(void *pMem)
{
    hosted::FreeBlock(pMem);
    return nullptr;
}

} // namespace platform
