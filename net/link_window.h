// link_window.h: how many files may be on the way unanswered on the current link.
// Agreement  each side names its own number in its machine info ([Link] "SendWindow", 2 to 64; no key: 1). It holds
//            once the peer's machine info has come and the own has been answered "FileDone": on the client that is the
//            moment in which it answers the server's, on the server the moment in which it reads that answer. Both
//            stand at the same place of the stream from client to server, so both sides begin at the same file. From
//            there on the lower number counts for both, and the receiver of files closes each one with exactly one
//            word. Where either number is 1 the wire is that of peers which know nothing of this.
// Threads    the listener notes, any thread asks. What was noted on a former link counts for nothing.
#pragma once
#include <cstdint>

constexpr uint32_t LINK_WINDOW_FILES = 64; // the most that is said and believed
constexpr uint32_t OWN_WINDOW        = 64; // the own number, unless Socket.dat tells another

// Names in the machine info. Quotes belong to the key, and round the value.
constexpr char16_t LINK_SECTION[]    = u"Link";
constexpr char16_t SEND_WINDOW_KEY[] = u"\"SendWindow\"";

// The own number, 1 to 64, for the machine info that is about to be written: Socket.dat's [Link] SendWindow, which is
// read here, or OWN_WINDOW. Session thread.
uint32_t ReadOwnWindow();
// What the peer's machine info says, as it stands there: 1 when nothing. Listener.
int32_t ReadPeerWindow();
// Files that may be unanswered: 1 until an agreement holds.
uint32_t GetLinkWindow();

// A number from the peer, whatever it is: below 2 means 1, above 64 means 64. The caller holds g_csNetSocket and has
// answered, or is about to answer, the file that named it. Listener.
void NotePeerWindow(int32_t nFiles);
// [g_csNetSocket] The own machine info goes out now, with the number that was read last.
void NoteInfoSent();
// The peer has answered the file under way, on a link without agreement. Listener.
void NoteInfoAnswer(bool bStored);

// Both directions full of files, with each listener waiting for its side's lock to answer, would hold each other up: a
// window is for one direction at a time. A file from the peer begins (bBegins) or ends. Listener.
void NoteFileReceived(bool bBegins);
// True while the peer sends one file after the other.
bool IsPeerSending();
void ResetLinkWindow(); // tests only
