// process.cpp: posix_spawn with two pipes; every child leads a process group of its own, so that what it starts ends
// with it.
#include "tools/driver/process.h"
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

struct ChildProcess {
    pid_t                                    nPid    = -1;
    int                                      fdInput = -1;
    std::thread                              reader, waiter;
    std::function<void(const std::string &)> onLine;
    std::mutex                               lock;
    std::condition_variable                  ended;
    bool                                     bEnded = false;
    int                                      nExit  = 0;

    ~ChildProcess()
    {
        if (nPid > 0) kill(-nPid, SIGKILL);
        if (fdInput >= 0) close(fdInput);
        if (waiter.joinable()) waiter.join();
        if (reader.joinable()) reader.join();
    }
};

static std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string> &environment)
{
    std::vector<std::string> merged;
    for (char **ppsz = environ; *ppsz != nullptr; ppsz++) {
        const std::string sEntry = *ppsz;
        if (environment.count(sEntry.substr(0, sEntry.find('='))) == 0) merged.push_back(sEntry);
    }
    for (const auto &[sName, sValue] : environment) merged.push_back(sName + "=" + sValue);
    return merged;
}

static std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &sText : texts) pointers.push_back(sText.data());
    pointers.push_back(nullptr);
    return pointers;
}

static void ReadLines(int fd, const std::function<void(const std::string &)> &onLine)
{
    std::string sPending;
    char        aBuffer[65536];
    for (ssize_t cb; (cb = read(fd, aBuffer, sizeof(aBuffer))) > 0;) {
        sPending.append(aBuffer, static_cast<size_t>(cb));
        size_t nStart = 0;
        for (size_t n; (n = sPending.find('\n', nStart)) != std::string::npos; nStart = n + 1) {
            std::string sLine = sPending.substr(nStart, n - nStart);
            if (!sLine.empty() && sLine.back() == '\r') sLine.pop_back();
            if (onLine) onLine(sLine);
        }
        sPending.erase(0, nStart);
    }
    if (!sPending.empty() && onLine) onLine(sPending);
    close(fd);
}

Child StartChild(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment,
                 std::function<void(const std::string &)> onLine, const std::string &sErrorLog)
{
    int aIn[2], aOut[2];
    if (pipe2(aIn, O_CLOEXEC) != 0) return nullptr;
    if (pipe2(aOut, O_CLOEXEC) != 0) {
        close(aIn[0]);
        close(aIn[1]);
        return nullptr;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, aIn[0], 0);
    // What a child starts in its turn may outlive it and keep its output open: without a reader there is no pipe to
    // wait for.
    if (onLine) posix_spawn_file_actions_adddup2(&actions, aOut[1], 1);
    else posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, sErrorLog.empty() ? "/dev/null" : sErrorLog.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    std::vector<std::string> argumentTexts = arguments, environmentTexts = MergedEnvironment(environment);
    pid_t                    nPid = -1;
    const int nError = posix_spawnp(&nPid, arguments[0].c_str(), &actions, &attributes, Pointers(argumentTexts).data(),
                                    Pointers(environmentTexts).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(aIn[0]);
    close(aOut[1]);
    if (nError != 0) {
        close(aIn[1]);
        close(aOut[0]);
        return nullptr;
    }
    auto child     = std::make_shared<ChildProcess>();
    child->nPid    = nPid;
    child->fdInput = aIn[1];
    child->onLine  = std::move(onLine);
    if (child->onLine) child->reader = std::thread([raw = child.get(), fd = aOut[0]] { ReadLines(fd, raw->onLine); });
    else close(aOut[0]);
    child->waiter = std::thread([raw = child.get()] {
        int nStatus = 0;
        while (waitpid(raw->nPid, &nStatus, 0) < 0 && errno == EINTR) {
        }
        const std::lock_guard<std::mutex> guard(raw->lock);
        raw->nExit  = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
        raw->bEnded = true;
        raw->ended.notify_all();
    });
    return child;
}

bool WriteToChild(const Child &child, const std::string &sText)
{
    for (size_t nDone = 0; nDone < sText.size();) {
        const ssize_t cb = write(child->fdInput, sText.data() + nDone, sText.size() - nDone);
        if (cb < 0 && errno == EINTR) continue;
        if (cb <= 0) return false;
        nDone += static_cast<size_t>(cb);
    }
    return true;
}

void CloseChildInput(const Child &child)
{
    if (child->fdInput >= 0) close(child->fdInput);
    child->fdInput = -1;
}

void KillChild(const Child &child)
{
    kill(-child->nPid, SIGKILL);
    std::unique_lock<std::mutex> lock(child->lock);
    child->ended.wait(lock, [&] { return child->bEnded; });
}

bool WaitForChild(const Child &child, std::chrono::milliseconds timeout, int *pnExitCode)
{
    std::unique_lock<std::mutex> lock(child->lock);
    if (!child->ended.wait_for(lock, timeout, [&] { return child->bEnded; })) return false;
    if (pnExitCode != nullptr) *pnExitCode = child->nExit;
    return true;
}

bool IsChildRunning(const Child &child)
{
    return child && !WaitForChild(child, std::chrono::milliseconds(0), nullptr);
}

long ChildPid(const Child &child)
{
    return child->nPid;
}

long PeakMemoryKiB(const Child &child)
{
    std::ifstream file("/proc/" + std::to_string(child->nPid) + "/status");
    for (std::string sLine; std::getline(file, sLine);) {
        if (sLine.rfind("VmHWM:", 0) == 0) return std::strtol(sLine.c_str() + 6, nullptr, 10);
    }
    return 0;
}

int RunProgram(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment,
               std::string *psOutput)
{
    char      szLog[] = "/tmp/vorn-output-XXXXXX";
    const int fdLog   = psOutput != nullptr ? mkstemp(szLog) : -1;
    if (fdLog >= 0) close(fdLog);
    const std::string sLog = fdLog >= 0 ? szLog : "";
    std::string       sOut;
    int               nExit = -1;
    {
        const Child child = StartChild(
            arguments, environment, [&sOut](const std::string &sLine) { sOut += sLine + "\n"; }, sLog);
        if (!child) return -1;
        CloseChildInput(child);
        WaitForChild(child, std::chrono::minutes(5), &nExit);
    } // the reader thread has ended here
    if (psOutput != nullptr) {
        std::ifstream file(sLog);
        *psOutput = sOut + std::string(std::istreambuf_iterator<char>(file), {});
        if (!sLog.empty()) std::remove(sLog.c_str());
    }
    return nExit;
}
