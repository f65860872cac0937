// scenario.h: the steps of a migration as the two services play them, for the demo and the end-to-end tests: one source
// for hosted machines and Wine prefixes.
#pragma once
#include "tools/driver/machine.h"

// Starts service and agent and waits for the agent's first message. False with the machine's sLastError.
bool StartMachine(const MachinePtr &machine, const std::map<std::string, std::string> &agentEnvironment = {});
// The server's PIN is shown (2336), typed on the client (2337); waits until both sides tell success. *psPin may be
// null.
bool LinkByPin(const MachinePtr &server, const MachinePtr &client, std::string *psPin);
// Both sides take their roles again with the stored password and port (2080).
bool LinkAgain(const MachinePtr &server, const MachinePtr &client);
// Ends the link from one side (2080, mode 3).
bool Unlink(const MachinePtr &machine);
// Waits until the service is told that the peer's death has broken the link (818, 102).
bool WaitForBrokenLink(const MachinePtr &machine);

// The own application-data root, as a service names it to its agent.
std::string ApplicationDataRoot(const MachinePtr &machine);
// The target's service tells its root (4129) and the migration's options (8224), which the source's service hears.
bool TellRoleAndOptions(const MachinePtr &target, const MachinePtr &source, uint32_t dwOptions);
// What the target's service does before a collection: names its own application-data root (4129), writes the total to
// progressinfo.ini (progress so far is kept when bResume), writes the item list and asks for the collection (8480).
bool RequestCollection(const MachinePtr &target, const std::vector<std::string> &items, uint64_t cbTotal, bool bResume);
// Waits for the end of the collection at the target. 2 complete, -2 not, 0 when nothing was heard in time.
int WaitForCollection(const MachinePtr &target, std::chrono::seconds timeout);
// Bytes that the target has counted so far.
uint64_t CollectedBytes(const MachinePtr &target);
