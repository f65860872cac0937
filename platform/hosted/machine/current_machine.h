// current_machine.h: the run/ folder of the machine that this process is on, and the lock of all its processes.
#pragma once
#include <string>

namespace hosted {

// <machine>/run/<pszSub>, made when missing; "" (ERROR_PATH_NOT_FOUND) when the process is on no machine.
std::string RunFolder(const char *pszSub);
// Called by UseMachine before the process is on the new machine, to drop what belonged to the old one (faults, caches,
// limits):
//   static const hosted::OnUseMachine g_Reset([] { ... });
struct OnUseMachine {
    explicit OnUseMachine(void (*pReset)());
};
void DropWhatBelongsToAMachine(); // calls them
// Exclusive among all processes and threads of the machine; short sections only, never held while waiting.
class MachineLock {
  public:
    MachineLock();
    ~MachineLock();
    MachineLock(const MachineLock &)            = delete;
    MachineLock &operator=(const MachineLock &) = delete;
    bool         IsHeld() const { return m_nFd >= 0; }

  private:
    int m_nFd;
};

} // namespace hosted
