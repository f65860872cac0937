// special_folders.cpp: the roots, and paths moved from one to another.
// Application data reaches the peer by way of a shared folder: each side's service gathers and applies it in its own
// mapping folder, and neither knows the other's paths.
#include "migration/special_folders.h"
#include "platform/made_once.h"
#include "platform/text.h"
#include "trace/trace_log.h"

using namespace platform;

SpecialFolders        g_SpecialFolders;
std::atomic<uint32_t> g_bSpecialTransfer;

constexpr size_t ROOT_UNITS        = 260;
constexpr size_t TRACED_PATH_UNITS = 1024;

static CRITICAL_SECTION  g_csFolders; // guards g_SpecialFolders
static CRITICAL_SECTION *FoldersLock()
{
    return MadeOnce<&g_csFolders>();
}

void SetSpecialRoot(SpecialRoot eRoot, const char16_t *pszPath)
{
    EnterCriticalSection(FoldersLock());
    char16_t *pszRoot = eRoot == SpecialRoot::AppData       ? g_SpecialFolders.szAppDataRoot
                        : eRoot == SpecialRoot::ProgramData ? g_SpecialFolders.szProgramDataRoot
                                                            : g_SpecialFolders.szSecondAppDataRoot;
    if (!CopyTextW(pszRoot, ROOT_UNITS, pszPath)) pszRoot[0] = u'\0';
    LeaveCriticalSection(FoldersLock());
}

SpecialFolders GetSpecialFolders()
{
    EnterCriticalSection(FoldersLock());
    const SpecialFolders Folders = g_SpecialFolders;
    LeaveCriticalSection(FoldersLock());
    return Folders;
}

void ClearSpecialFolders()
{
    EnterCriticalSection(FoldersLock());
    g_SpecialFolders = {};
    LeaveCriticalSection(FoldersLock());
    g_bSpecialTransfer = 0;
}

// 1 with pszOut := pszTo and what follows pszFrom in the path, else 0 with pszOut := the path.
static int32_t MoveRoot(const char16_t *pszFrom, const char16_t *pszTo, const char16_t *pszPath, char16_t *pszOut,
                        uint32_t cchOut, const char *pszTag)
{
    int32_t      nMoved  = 0;
    const size_t cchFrom = TextLengthW(pszFrom);
    if (cchFrom > 0 && pszTo[0] != u'\0' && CompareTextNoCaseN_W(pszPath, pszFrom, cchFrom) == 0)
        nMoved = FormatTextW(pszOut, cchOut, u"%s%s", pszTo, pszPath + cchFrom) >= 0 ? 1 : 0;
    if (!nMoved) CopyTextW(pszOut, cchOut, pszPath);
    TracePathMapping(pszTag, static_cast<uint32_t>(nMoved), pszPath, pszOut, TRACED_PATH_UNITS);
    return nMoved;
}

int32_t TransferAppDataToProgramData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bFromA)
{
    return MoveRoot(bFromA ? pFolders->szAppDataRoot : pFolders->szSecondAppDataRoot, pFolders->szProgramDataRoot,
                    pszPath, pszOut, cchOut, "TransferAppDataToProgramData");
}

int32_t TransferProgramDataToAppData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bToA)
{
    return MoveRoot(pFolders->szProgramDataRoot, bToA ? pFolders->szAppDataRoot : pFolders->szSecondAppDataRoot,
                    pszPath, pszOut, cchOut, "TransferProgramDataToAppData");
}

int32_t RedirectAppDataPath(char16_t *pszPath)
{
    char16_t             szMoved[ROOT_UNITS];
    const SpecialFolders Folders = GetSpecialFolders();
    if (!TransferAppDataToProgramData(&Folders, pszPath, szMoved, ROOT_UNITS, 1)) return 0;
    CopyTextW(pszPath, ROOT_UNITS, szMoved);
    return 1;
}
