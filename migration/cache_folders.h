// cache_folders.h: which folders a request may have listed or removed.
// A request comes over a pipe that every local user may write to, so what it names is looked at as the file system sees
// it: with "..", links and prefixes resolved.
// Threads  any.
#pragma once

// True for a folder that exists strictly below this machine's ProgramData: only such a folder is ever removed.
bool IsRemovableCache(const char16_t *pszFolder);
// True for a folder that exists and is no whole drive: only such a folder's files are sent.
bool IsListableFolder(const char16_t *pszFolder);
