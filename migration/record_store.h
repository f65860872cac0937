// record_store.h: recordinfo.ini: which items of the folder under way have been sent.
// File     UTF-16LE with byte-order mark. A section for each folder, named by its path below the base with a trailing
//          backslash; a key for each item, its name in quotes; value 1 (file) or 2 (folder). Section "WorkingFolder",
//          key "\"Path\"": the base. What the profile format cannot hold is written as a character that no name can
//          have: the base itself is the section "\", '=' in a key is ':', ']' in a section '>', a blank that begins a
//          section '?'.
// Cost     each record is one write at the file's end, whatever was recorded before; a section's header is repeated
//          when the walk comes back to it. Profile functions look at a section's first occurrence alone, so a file
//          with repeated ones is rewritten with each section in one piece when it is closed, and when it is loaded
//          after a kill. Memory: about 11 bytes for each record of the file.
// Case     counts: a folder may hold two names that differ in nothing else. Profile functions do not see it: of two
//          such records they give the first one's value for both.
// Kill     at any moment leaves every record but the one being written; half a line is passed over and removed by the
//          next load.
// Thread   the collection walk's, one walk at a time; no lock.
#pragma once
#include <cstdint>

constexpr int32_t RECORD_NONE        = 0;
constexpr int32_t RECORD_FILE_SENT   = 1;
constexpr int32_t RECORD_FOLDER_SENT = 2;

//   pszBase  with trailing backslash     pszItem  below it, at most 1023 units
// 1 when it is on disk, or 0 when the item is not below the base or the record cannot be kept (GetLastError).
int32_t WriteRecordState(const char16_t *pszBase, const char16_t *pszItem, int32_t bFolder);
// RECORD_NONE (also when the records cannot be read), RECORD_FILE_SENT or RECORD_FOLDER_SENT.
int32_t ReadRecordState(const char16_t *pszBase, const char16_t *pszItem);
// Deletes recordinfo.ini, creates it anew and names the folder that the records belong to from here on. 1 or 0.
int32_t BeginWorkingFolder(const char16_t *pszFolder);
// The folder that was under way, into cch units; empty when none. 1 when not empty. A file that cannot be read is tried
// for a second: without it the walk would send again what the peer has.
int32_t ReadWorkingFolder(char16_t *pszFolder, uint32_t cch);
// Closes the file until the next record: for a walk that is about to be busy with something long. Costs the next record
// an opening, and its section's header is written again.
void RestRecordStore();
// Lets go of recordinfo.ini; what is recorded stays on disk, in a form that profile functions read whole.
void CloseRecordStore();
// Lets go of recordinfo.ini and deletes it. 1 when it is gone, or 0 (GetLastError).
int32_t DeleteRecordStore();
