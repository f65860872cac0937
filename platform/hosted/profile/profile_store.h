// profile_store.h: INI files on disk, with what was read of them kept as long as nobody changes them.
// Threads  any; each call holds the store's lock, and a change the machine's profile lock, from look-up to write.
#pragma once
#include "platform/hosted/profile/profile_text.h"
#include <functional>

namespace hosted {

// Hands the text of a file to use(). 0, or the error that kept the file from being read.
uint32_t ReadProfile(const char16_t *pszFile, const std::function<void(const ProfileText &)> &use);
// Lets change() alter the text and writes it when it says so. bMake: a missing file is made; without it, there is
// nothing to do.
uint32_t ChangeProfile(const char16_t *pszFile, bool bMake, const std::function<bool(ProfileText *)> &change);

} // namespace hosted
