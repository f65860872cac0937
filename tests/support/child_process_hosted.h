// child_process_hosted.h: this test program once more, as another process of the current machine.
#pragma once
#include <string>
#include <vector>

// What a child does instead of the tests; its result is the exit code.
//   static const ChildRole g_Role("hold a mutex", [](const std::string &sArgument) { ...; return 0; });
struct ChildRole {
    ChildRole(const char *pszName, int (*pRun)(const std::string &sArgument));
};

class ChildProcess {
  public:
    // aEnvironment: "NAME=value" beside the machine's. aCommandLine: the arguments behind the program's name.
    explicit ChildProcess(const char *pszRole, const std::string &sArgument = "",
                          const std::vector<std::string> &aEnvironment = {},
                          const std::vector<std::string> &aCommandLine = {});
    ~ChildProcess(); // kills it when it still runs
    ChildProcess(const ChildProcess &)            = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;
    int           Wait(); // the exit code; -1 when a signal ended it
    void          Kill(); // at once, without any clean-up of its own; returns when it has gone
    int           Pid() const { return m_nPid; }

  private:
    int m_nPid;
};
