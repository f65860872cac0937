// local_info.h: what each machine tells the other about itself at the start of a session.
// Thread   the session's.
#pragma once
#include "migration/state_files.h"
#include "net/session_state.h"
#include <cstdint>

extern char16_t g_szProductVersion[STATE_PATH_UNITS]; // from the version resource, once WriteLocalInfo has run

// Writes localinfo.ini anew. 1, or 0 when the progress folder is unavailable. The session's own mapping path is read.
int32_t WriteLocalInfo(SessionRecord *pSession);
// The result of SendNetworkFile for localinfo.ini; 0 when there is no progress folder.
int32_t SendLocalInfo();
// 1 when version a ("%u.%u.%u.%u", missing parts 0) is not lower than b.
int32_t CompareVersion(const char16_t *pszA, const char16_t *pszB);
// Reads the peer's name (may be null) and the session's fields from targetinfo.ini; what it does not say is empty, and
// the version then 1.0.2.0, the last one that did not say it. Session thread.
void ReadTargetInfo(SessionRecord *pSession, char16_t *pszPeerName, uint32_t cchPeerName);
// Forgets the version. Tests only.
void ResetLocalInfo();
