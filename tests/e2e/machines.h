// machines.h: the pair of machines that every end-to-end test uses, made once for the whole run.
#pragma once
#include "tools/driver/profile.h"
#include "tools/driver/scenario.h"
#include <gtest/gtest.h>

// Two machines with nothing running and no state of an earlier test: the old one with drives C and D and a Desktop on
// D, the new one with C alone and another user.
class TwoMachines : public ::testing::Test {
  protected:
    static void SetUpTestSuite();
    void        SetUp() override;
    void        TearDown() override;

    // Both agents running and announced.
    void StartBoth();
    // Started and linked by PIN, the old machine as server.
    void StartLinked();
    // Expects a command of the service console to succeed.
    void Expect(const MachinePtr &machine, const std::string &sCommand);
    // What went wrong last on each machine, and what both services have received so far: for the reader of a failure.
    static std::string Happened();
    // An empty folder of this test on the machine (ASCII path), by its host path.
    std::string HostFile(const MachinePtr &machine, const std::string &sWindowsPath);

    static MachinePtr                  old, next;
    std::map<std::string, std::string> agentEnvironment; // of both agents
};
// "sText" repeated content of cb bytes into a host file, its folders made.
void        MakeFile(const std::string &sHostPath, uint64_t cb, unsigned nSeed);
std::string ContentOf(const std::string &sHostPath);
