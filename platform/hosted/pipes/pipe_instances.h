// pipe_instances.h: the instances of a pipe that the processes of the machine have, in run/pipes/NAME:
//   00000001.instance  its sizes; locked (flock) by the owner for as long as it lives
//   00000001.socket    where one client connects; there only while the instance is free
// All functions are called under MachineLock.
#pragma once
#include "platform/hosted/kernel/security.h"
#include <cstdint>
#include <string>
#include <vector>

namespace hosted {

struct InstanceRecord {
    uint32_t cbInBuffer;
    uint32_t bSecured;
    uint32_t dwEveryoneAccess;
};

struct Instance {
    uint32_t       nNumber; // in order of creation
    InstanceRecord record;
    bool           bFree;
};

// The folder of a pipe's instances ("\\.\pipe\" stands before pszName); it need not exist. "" with the last error set
// when the name is none.
std::string PipeFolder(const char16_t *pszName);
std::string InstanceFile(uint32_t nNumber);
std::string InstanceSocket(uint32_t nNumber);
// Those whose owner lives, oldest first; what dead ones left is removed.
std::vector<Instance> LiveInstances(const std::string &sFolder);
// Makes the file of a new instance and locks it: the descriptor that holds the lock, or -1 (last error).
int  AddInstance(const std::string &sFolder, const InstanceRecord &record, uint32_t *pnNumber);
void RemoveInstance(const std::string &sFolder, uint32_t nNumber);

} // namespace hosted
