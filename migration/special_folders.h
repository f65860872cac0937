// special_folders.h: the roots between which application data moves.
// Roots    A, B and P as the functions below call them: the own application data (A), the peer's mapping folder (B) and
//          the own mapping folder below ProgramData (P). Paths are moved between them before they go to the peer.
#pragma once
#include <atomic>
#include <cstdint>

// Set by the dispatcher and by session control before workers start, cleared with the session.
struct SpecialFolders {
    char16_t szAppDataRoot[260];       // A: the service's request 4129
    char16_t szProgramDataRoot[260];   // P: the start of a session
    char16_t szSecondAppDataRoot[260]; // B: the peer's machine info
};
extern SpecialFolders g_SpecialFolders; // read and written through the three functions below only
// 1: files of 0x2430 go as type 6. Set by the pipe server, cleared by ClearSpecialFolders.
extern std::atomic<uint32_t> g_bSpecialTransfer;
// One root, under the lock that keeps a copy whole. Any thread; no other lock is taken under it. Null counts as empty,
// and a path that does not fit leaves the root empty: a cut root would move files elsewhere.
enum class SpecialRoot { AppData, ProgramData, SecondAppData };
void           SetSpecialRoot(SpecialRoot eRoot, const char16_t *pszPath);
SpecialFolders GetSpecialFolders();
void           ClearSpecialFolders(); // roots and flag

// 1 with the path moved from A (bFromA 1) or B (0) to P in pszOut; 0 with the path as it is when a root is not set, the
// path does not begin with the root, or the result does not fit. A root is a prefix of text: whether it ends with a
// backslash decides if "...\AppDataX" begins with "...\AppData".
int32_t TransferAppDataToProgramData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bFromA);
// The way back: from P to A (bToA 1) or B (0).
int32_t TransferProgramDataToAppData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bToA);
// pszPath: 260 units, in place, from A to P. 1 when changed.
int32_t RedirectAppDataPath(char16_t *pszPath);
