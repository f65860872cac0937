// answer_queue.h: which files the peer has still to answer, on a link with a send window (net/link_window.h).
// Wire     the receiver closes every "SendFile" with one word, "FileDone" or "FileNone", in the order of the files;
//          error words come before it. So a word belongs to the oldest file that has not been closed.
// Owners   who sends a file holds a ticket for it until it has taken the outcome or given up. A file that was given up
//          keeps its place until its word has come: the words behind it stay in step.
// Link     a ticket of a former link is void, and so are the words for it.
// Lock     the queue's own, a leaf: taken inside each function for a few statements, also under g_csNetSocket.
// Threads  any; NoteAnswer is the listener's.
#pragma once
#include "platform/kernel.h"
#include <cstdint>

constexpr uint32_t ANSWER_WAIT_MS = 10000; // for a file's closing word, from when it is its turn

// What the peer has said of one file.
struct FileOutcome {
    bool bError;
    bool bDone;
    bool bFull;
    bool bAllFull;
    bool bTypeUnknown;
};
enum class AnswerWord { Done, None, Error, Full, AllFull, TypeUnknown };

struct FileTicket {
    uint32_t dwLink;
    uint32_t nNumber; // of the link's files
};

// [g_csNetSocket] A place for the file that is about to be sent, which is "under way" until EndStream. False: there is
// none, since the peer has left too many files unanswered.
bool OpenAnswer(FileTicket *pTicket);
// [g_csNetSocket] The file has gone out as far as it will. bSent false: nothing of it has, so no word will come.
void EndStream(const FileTicket *pTicket, bool bSent);
// What has been said of the file under way; of a link without window what the outcome flags of command_channel.h say.
FileOutcome GetCurrentOutcome();

enum class AnswerState {
    Owed,
    Overdue, // its turn has lasted ANSWER_WAIT_MS: the file before it was closed or given up, and it has gone out
    Closed,
    LinkGone
};
// hWake: null, or the event to be set when this file is closed.
AnswerState LookAtAnswer(const FileTicket *pTicket, platform::HANDLE hWake, FileOutcome *pOutcome);
// The owner has what it wants of it.
void DropTicket(const FileTicket *pTicket);

// False: no file is owed a word, so it belongs to none.
bool NoteAnswer(AnswerWord eWord);
// True while somebody waits for a word.
bool IsAnswerOwed();
void ResetAnswerQueue(); // tests only
