// process.h: child processes of the demo and the end-to-end tests, with their output read line by line.
// This program and its children run on the Linux that hosts both kinds of machine; it is no part of the product.
#pragma once
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct ChildProcess;
using Child = std::shared_ptr<ChildProcess>; // the last owner kills what still runs

// Starts a program with the given variables on top of this process's own. onLine is called on a reader thread for each
// line of its standard output (null: output is dropped). Standard error goes to sErrorLog (appended) or is dropped when
// empty. Null on failure.
Child StartChild(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment,
                 std::function<void(const std::string &)> onLine, const std::string &sErrorLog);
bool  WriteToChild(const Child &child, const std::string &sText);
void  CloseChildInput(const Child &child);
void  KillChild(const Child &child); // SIGKILL to its process group, and waits
// The exit code once it has ended, -signal when a signal ended it; false when it still runs after the time.
bool WaitForChild(const Child &child, std::chrono::milliseconds timeout, int *pnExitCode);
bool IsChildRunning(const Child &child);
long ChildPid(const Child &child);
// Peak resident memory in KiB as the kernel tells it of a running child, 0 when unknown.
long PeakMemoryKiB(const Child &child);
// Runs to the end, output and errors together in *psOutput (may be null). The exit code, or -1.
int RunProgram(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment,
               std::string *psOutput);
