// pipe_instances.cpp: see pipe_instances.h.
#include "platform/hosted/pipes/pipe_instances.h"
#include "platform/errors.h"
#include "platform/hosted/kernel/named_objects.h"
#include "platform/hosted/kernel/unix_sockets.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/utf.h"
#include "platform/hosted/pipes/pipe_client.h"
#include "platform/text.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr std::u16string_view PREFIX       = u"\\\\.\\pipe\\";
constexpr size_t              LONGEST_NAME = 256; // with the prefix

std::string Numbered(uint32_t nNumber, const char *pszKind)
{
    char szName[40];
    std::snprintf(szName, sizeof(szName), "%08u%s", nNumber, pszKind);
    return szName;
}

std::vector<uint32_t> InstanceNumbers(const std::string &sFolder)
{
    std::vector<uint32_t> aNumbers;
    DIR                  *pDir = opendir(sFolder.c_str());
    if (pDir == nullptr) return aNumbers;
    while (const dirent *pEntry = readdir(pDir)) {
        const std::string_view sName = pEntry->d_name;
        if (sName.ends_with(".instance"))
            aNumbers.push_back(static_cast<uint32_t>(std::strtoul(pEntry->d_name, nullptr, 10)));
    }
    closedir(pDir);
    std::sort(aNumbers.begin(), aNumbers.end());
    return aNumbers;
}

} // namespace

bool IsPipeName(const char16_t *pszName)
{
    return platform::CompareTextNoCaseN_W(pszName, PREFIX.data(), PREFIX.size()) == 0;
}

std::string PipeFolder(const char16_t *pszName)
{
    std::u16string sName(pszName);
    if (!IsPipeName(pszName) || sName.size() == PREFIX.size() || sName.size() > LONGEST_NAME) {
        SetError(platform::ERROR_INVALID_NAME);
        return "";
    }
    sName.erase(0, PREFIX.size());
    for (char16_t &ch : sName) ch = platform::FoldCaseW(ch); // pipe names compare without regard to case
    const std::string sRun = RunFolder("pipes");
    return sRun.empty() ? "" : sRun + "/" + EscapedName(ToUtf8(sName));
}

std::string InstanceFile(uint32_t nNumber)
{
    return Numbered(nNumber, ".instance");
}

std::string InstanceSocket(uint32_t nNumber)
{
    return Numbered(nNumber, ".socket");
}

std::vector<Instance> LiveInstances(const std::string &sFolder)
{
    std::vector<Instance> aLive;
    for (const uint32_t nNumber : InstanceNumbers(sFolder)) {
        const Descriptor file(open((sFolder + "/" + InstanceFile(nNumber)).c_str(), O_RDONLY | O_CLOEXEC));
        Instance         instance{nNumber, {}, access((sFolder + "/" + InstanceSocket(nNumber)).c_str(), F_OK) == 0};
        if (file.nFd < 0 || flock(file.nFd, LOCK_EX | LOCK_NB) == 0 ||
            pread(file.nFd, &instance.record, sizeof(instance.record), 0) !=
                static_cast<ssize_t>(sizeof(instance.record))) {
            RemoveInstance(sFolder, nNumber);
        } else {
            aLive.push_back(instance);
        }
    }
    return aLive;
}

int AddInstance(const std::string &sFolder, const InstanceRecord &record, uint32_t *pnNumber)
{
    if (mkdir(sFolder.c_str(), 0777) != 0 && errno != EEXIST) {
        SetErrorFromErrno();
        return -1;
    }
    const std::vector<uint32_t> aNumbers = InstanceNumbers(sFolder);
    *pnNumber                            = aNumbers.empty() ? 1 : aNumbers.back() + 1;
    const std::string sFile              = sFolder + "/" + InstanceFile(*pnNumber);
    const int         nFd                = open(sFile.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (nFd < 0 || flock(nFd, LOCK_EX | LOCK_NB) != 0 ||
        pwrite(nFd, &record, sizeof(record), 0) != static_cast<ssize_t>(sizeof(record))) {
        SetErrorFromErrno();
        if (nFd >= 0) {
            unlink(sFile.c_str());
            close(nFd);
        }
        return -1;
    }
    return nFd;
}

void RemoveInstance(const std::string &sFolder, uint32_t nNumber)
{
    unlink((sFolder + "/" + InstanceSocket(nNumber)).c_str());
    unlink((sFolder + "/" + InstanceFile(nNumber)).c_str());
    rmdir(sFolder.c_str()); // the last one's
}

} // namespace hosted
