// child_process_hosted.cpp: a child runs its role when the test program's environment is set up, and ends there.
#include "tests/support/child_process_hosted.h"
#include "platform/hosted/control.h"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::map<std::string, int (*)(const std::string &)> &Roles()
{
    static std::map<std::string, int (*)(const std::string &)> s_Roles;
    return s_Roles;
}

class RoleEnvironment : public ::testing::Environment {
  public:
    void SetUp() override
    {
        const char *pszRole = std::getenv("VORN_TEST_ROLE");
        if (pszRole == nullptr) return;
        const auto it = Roles().find(pszRole);
        if (it == Roles().end()) {
            std::fprintf(stderr, "no role \"%s\"\n", pszRole);
            exit(127);
        }
        const int nResult = it->second(std::getenv("VORN_TEST_ARGUMENT"));
        exit(::testing::Test::HasFailure() ? 126 : nResult);
    }
};

::testing::Environment *const g_pEnvironment = ::testing::AddGlobalTestEnvironment(new RoleEnvironment);

} // namespace

ChildRole::ChildRole(const char *pszName, int (*pRun)(const std::string &))
{
    Roles()[pszName] = pRun;
}

ChildProcess::ChildProcess(const char *pszRole, const std::string &sArgument,
                           const std::vector<std::string> &aEnvironment, const std::vector<std::string> &aCommandLine)
    : m_nPid(-1)
{
    std::vector<std::string> aVariables = aEnvironment;
    aVariables.push_back(std::string("VORN_MACHINE=") + hosted::MachineFolder());
    aVariables.push_back(std::string("VORN_TEST_ROLE=") + pszRole);
    aVariables.push_back("VORN_TEST_ARGUMENT=" + sArgument);
    std::vector<char *> apVariables;
    for (std::string &sVariable : aVariables) apVariables.push_back(sVariable.data());
    for (char **pp = environ; *pp != nullptr; pp++) apVariables.push_back(*pp);
    apVariables.push_back(nullptr);
    char                     szProgram[] = "/proc/self/exe";
    std::vector<std::string> aWords      = aCommandLine;
    std::vector<char *>      apArguments = {szProgram};
    for (std::string &sWord : aWords) apArguments.push_back(sWord.data());
    apArguments.push_back(nullptr);
    if (posix_spawn(&m_nPid, szProgram, nullptr, nullptr, apArguments.data(), apVariables.data()) != 0) m_nPid = -1;
    EXPECT_GT(m_nPid, 0) << "cannot start a child";
}

ChildProcess::~ChildProcess()
{
    Kill();
}

int ChildProcess::Wait()
{
    int nStatus = 0;
    if (m_nPid <= 0 || waitpid(m_nPid, &nStatus, 0) != m_nPid) return -1;
    m_nPid = -1;
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

void ChildProcess::Kill()
{
    if (m_nPid <= 0) return;
    kill(m_nPid, SIGKILL);
    Wait();
}
