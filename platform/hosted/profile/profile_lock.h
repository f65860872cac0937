// profile_lock.h: the lock of the machine's INI files, among all its processes and threads.
#pragma once

namespace hosted {

// Held from construction to destruction; short sections only. A holder that dies releases it.
class ProfileLock {
  public:
    ProfileLock();
    ~ProfileLock();
    ProfileLock(const ProfileLock &)            = delete;
    ProfileLock &operator=(const ProfileLock &) = delete;
    bool         IsHeld() const { return m_pMutex != nullptr; }

  private:
    void *m_pMutex;
};

} // namespace hosted
