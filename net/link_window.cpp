// link_window.cpp: the agreement on a send window, event by event.
#include "net/link_window.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "net/settings.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/text.h"
#include <algorithm>
#include <atomic>

constexpr char     SECTION_LINK[]    = "Link";
constexpr char     KEY_SEND_WINDOW[] = "SendWindow";
constexpr uint32_t NUMBER_BYTES      = 16;

constexpr uint64_t ROW_GAP_MS = 100; // between two files of a walk, at most
constexpr uint32_t ROW_FILES  = 4;   // a single file beside a walk is none

static std::atomic<uint64_t> g_ullLastReceived{0};
static std::atomic<uint32_t> g_nReceivedInRow{0};
static std::atomic<bool>     g_bReceiving{false};

// The link's number (network_link.h) in the upper half, a count of files in the lower: what is noted is whole to a
// reader, and is void on another link.
using LinkNote = std::atomic<uint64_t>;
static LinkNote g_ullPeerWindow{0}; // the peer's number
static LinkNote g_ullSentWindow{0}; // the own, in a machine info that has gone out and is not answered
static LinkNote g_ullOwnWindow{0};  // the own, in one that the peer has stored
static LinkNote g_ullLinkWindow{0}; // what holds

static std::atomic<uint32_t> g_nOwnWindow{1}; // what the own machine info says

static void Note(LinkNote *pNote, uint32_t nFiles)
{
    *pNote = static_cast<uint64_t>(g_dwLinkGeneration) << 32 | nFiles;
}

// 0: nothing was noted on this link.
static uint32_t Noted(const LinkNote &note)
{
    const uint64_t ullNote = note;
    return ullNote >> 32 == g_dwLinkGeneration ? static_cast<uint32_t>(ullNote) : 0;
}

static void Agree()
{
    const uint32_t nFiles = std::min(Noted(g_ullPeerWindow), Noted(g_ullOwnWindow));
    if (nFiles > 1 && IsThreadLinkCurrent()) Note(&g_ullLinkWindow, nFiles);
}

uint32_t ReadOwnWindow()
{
    char szNumber[NUMBER_BYTES];
    ReadSetting(SECTION_LINK, KEY_SEND_WINDOW, szNumber, sizeof(szNumber));
    const int32_t nFiles = szNumber[0] != '\0' ? platform::TextToInt32A(szNumber) : static_cast<int32_t>(OWN_WINDOW);
    g_nOwnWindow         = static_cast<uint32_t>(std::clamp<int32_t>(nFiles, 1, LINK_WINDOW_FILES));
    return g_nOwnWindow;
}

int32_t ReadPeerWindow()
{
    char16_t szFile[STATE_PATH_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szFile); // an empty path reads as a file that says nothing
    return static_cast<int32_t>(platform::GetPrivateProfileIntW(LINK_SECTION, SEND_WINDOW_KEY, 1, szFile));
}

uint32_t GetLinkWindow()
{
    return std::max<uint32_t>(Noted(g_ullLinkWindow), 1);
}

void NotePeerWindow(int32_t nFiles)
{
    Note(&g_ullPeerWindow, static_cast<uint32_t>(std::clamp<int32_t>(nFiles, 1, LINK_WINDOW_FILES)));
    Agree();
}

void NoteInfoSent()
{
    Note(&g_ullSentWindow, g_nOwnWindow);
}

void NoteInfoAnswer(bool bStored)
{
    const uint32_t nOwnFiles = Noted(g_ullSentWindow);
    g_ullSentWindow          = 0;
    if (nOwnFiles == 0 || !bStored) return;
    Note(&g_ullOwnWindow, nOwnFiles);
    Agree();
}

void NoteFileReceived(bool bBegins)
{
    const uint64_t ullNow = platform::GetTickCount64();
    if (bBegins && ullNow - g_ullLastReceived > ROW_GAP_MS) g_nReceivedInRow = 0;
    if (bBegins) ++g_nReceivedInRow;
    g_bReceiving      = bBegins;
    g_ullLastReceived = ullNow;
}

bool IsPeerSending()
{
    if (g_nReceivedInRow < ROW_FILES) return false;
    return g_bReceiving || platform::GetTickCount64() - g_ullLastReceived <= ROW_GAP_MS;
}

void ResetLinkWindow()
{
    g_nReceivedInRow = 0;
    g_bReceiving     = false;
    g_ullPeerWindow = g_ullSentWindow = g_ullOwnWindow = g_ullLinkWindow = 0;
    g_nOwnWindow                                                         = 1;
}
