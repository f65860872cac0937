// pair.h: an old and a new machine with a line of ours between them, one request after another, and what came of it.
#pragma once
#include "tests/torture/proxy.h"
#include "tools/driver/machine.h"
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using Environment = std::map<std::string, std::string>;

// What an experiment's runs came to; everything but runs, requests and the notes is a fault.
struct Tally {
    unsigned nRuns = 0, nRequests = 0;
    unsigned nMissing = 0, nDifferent = 0, nTwice = 0, nLeftover = 0, nProgress = 0, nHang = 0, nCrash = 0, nOther = 0;
    std::map<std::string, unsigned> notes;  // what is no fault and worth a count
    std::vector<std::string>        faults; // a line each, for the reader
    unsigned                        Faults() const;
};

struct Pair {
    // bDirect: both meet in one folder, in either role, with no line of ours between them.
    Pair(std::string sWork, const std::string &sPrograms, bool bDirect);
    ~Pair();
    Pair(const Pair &)            = delete;
    Pair &operator=(const Pair &) = delete;

    MachinePtr               old, next; // next is the client, so what is asked for comes from the server
    std::unique_ptr<Proxy>   proxy;
    Environment              environment; // of both agents
    std::vector<std::string> items;       // of the request
    uint64_t                 cbItems = 0; // bytes of the files
    uint64_t                 cbLine  = 0; // bytes of a whole request on the line, once measured
    std::string              sWork;
    Tally                   *pTally = nullptr;
    std::string              sRun; // how the run under way is repeated

    void Fault(unsigned Tally::*pCount, const std::string &sText);
    // An empty target, no state, agents running and linked. False (a fault) when that cannot be had.
    bool Prepare(bool bSingleFiles, const Environment &old = {}, const Environment &next = {});
    bool Start(const MachinePtr &machine, const Environment &extra = {});
    bool Link(int nTries = 4); // by what is stored, else by PIN
    bool Request(bool bAgain);
    // 2 or -2 as the target's service is told; 0 when the link or an agent was lost instead; -100 when nothing came in
    // time.
    int AwaitEnd(unsigned nMilliseconds = 90000);
    // Requests, with restarts and links as they are needed, until the target's service is told 2; then compares.
    void Complete(bool bRequested);
    // The comparison alone. bAltered: content and names may differ (counted as notes).
    void Compare(bool bAltered);
    // The old machine keeps nothing of a request any more, after a moment; true also when its agent does not run.
    bool IsStateGone() const;
    void Unlink(const MachinePtr &machine); // as its service orders it
    void Stop(const MachinePtr &machine);   // in order; a fault when it does not end well
    void Kill(const MachinePtr &machine);

  private:
    bool        StartBoth(const Environment &a, const Environment &b);
    bool        LinkStored(unsigned nMilliseconds);
    bool        LinkByPin();
    void        Clean();
    void        CheckProgress();
    void        CheckLogs();
    bool        m_bLinked = false;
    size_t      m_nAsked  = 0;              // requests since Prepare
    size_t      m_nEnds = 0, m_nBroken = 0; // records heard before the request
    uint64_t    m_cbProgress = 0;
    Environment m_aLast[2];
};

// Waits until it holds; false after so many milliseconds.
bool   Await(const std::function<bool()> &holds, unsigned nMilliseconds);
size_t Heard(const MachinePtr &machine, unsigned nCode, int nParameter);
// Of the machine's agent: open descriptors ("fd"), those of sockets ("socket:"), or a number of its status file.
long                     OfProcess(const MachinePtr &machine, const std::string &sWhat);
std::vector<std::string> Words(const std::string &sText, char chEnd);
// Random bytes.
std::string Junk(std::mt19937_64 &random, size_t cb);
void        WriteBytes(const std::string &sHostPath, const std::string &sBytes);

// One run of the experiment of overlapping requests (pressure.cpp).
void Pressure(Pair *pPair, std::mt19937_64 *pRandom);
