// state_files.h: the progress folder, its files, and what they tell of a migration.
//   progressinfo.ini   [Collection] "Size" (the service writes it), "ProgressSize" (the receiver of files), "Complete"
//   (the walk)
//   recordinfo.ini     items of the folder under way: record_store.h
//   completeinfo.ini   no INI but lines: what the walk has done with, a folder's path with a trailing backslash
//   collectioninfo.ini lines too: whose records these are, and which items did not arrive: failed_items.h
//   localinfo.ini      this machine's machine info, rewritten for each session; targetinfo.ini: the peer's
// Threads  any; one profile call is whole against others, a sequence of them is not. AppendCompleteInfo: the walk's
// thread.
#pragma once
#include "migration/string_list.h"
#include <cstdint>

constexpr size_t STATE_PATH_UNITS = 260;

// Built on first use and never changed afterwards; read it after GetProgressFolder has given 1.
extern char16_t g_szProgressFolder[STATE_PATH_UNITS];

constexpr char16_t PROGRESS_INFO_FILE[]   = u"progressinfo.ini";
constexpr char16_t RECORD_INFO_FILE[]     = u"recordinfo.ini";
constexpr char16_t COMPLETE_INFO_FILE[]   = u"completeinfo.ini";
constexpr char16_t COLLECTION_INFO_FILE[] = u"collectioninfo.ini";
constexpr char16_t LOCAL_INFO_FILE[]      = u"localinfo.ini";
constexpr char16_t TARGET_INFO_FILE[]     = u"targetinfo.ini";

// Names in progressinfo.ini; the quotes are part of the keys.
constexpr char16_t COLLECTION_SECTION[] = u"Collection";
constexpr char16_t TOTAL_SIZE_KEY[]     = u"\"Size\"";
constexpr char16_t PROGRESS_SIZE_KEY[]  = u"\"ProgressSize\"";
constexpr char16_t COMPLETE_KEY[]       = u"\"Complete\"";

// Others look at these files too (the service, a virus scanner), each for a moment: what cannot be done without loss is
// tried for a second before it is given up.
constexpr uint32_t STATE_FILE_TRIES    = 20;
constexpr uint32_t STATE_FILE_PAUSE_MS = 50;

constexpr uint32_t PATH_LINE_UNITS     = 1024;      // the longest line of a path list, and the room of its entries
constexpr int64_t  PATH_LIST_BYTES_MAX = 256 << 20; // a longer list is not read

// 1 when the path is known (and the folder was created if it could be), 0 when ProgramData cannot be resolved.
int32_t GetProgressFolder();
// The full path of a file of the progress folder into 260 units. 1, or 0 with the path empty.
int32_t GetProgressFile(const char16_t *pszName, char16_t *pszPath);
// The mapping folder's path into 260 units; the folder is the service's. 1, or 0 with the path empty.
int32_t GetMappingFolder(char16_t *pszPath);
// After the nTry-th try (from 1 on) at a state file has failed with dwErr: false when another one is of no use;
// otherwise it is time for it.
bool AwaitStateFileTry(uint32_t nTry, uint32_t dwErr);
// Deletes the file and creates it anew, Everyone may change it, holding only the UTF-16 byte-order mark, which makes
// the profile functions keep it in UTF-16. Somebody who holds it is waited for. 1, or 0 (GetLastError).
int32_t CreateStateFile(const char16_t *pszPath);
// Bytes; bTotal 1: all, 0: received so far. 0 when not known.
uint64_t GetProgressSize(int32_t bTotal);
// Deletes a file of the progress folder; somebody who holds it is waited for. What stays behind is traced.
void DeleteStateFile(const char16_t *pszName);
// 1 when the line is in the file of paths (created when missing); 0 when it is not (GetLastError), also for a path that
// no line has room for. What a process that was killed half-way through a line left behind never becomes one. Somebody
// who holds the file is waited for; after one wait in vain, only until a line could be written again.
int32_t AppendPathLine(const char16_t *pszName, const char16_t *pszPath, int32_t bFolder);
// The same for completeinfo.ini.
int32_t AppendCompleteInfo(const char16_t *pszPath, int32_t bFolder);
// Splits lines (UTF-16LE, with or without byte-order mark) into folders (trailing backslash removed) and files. A line
// that does not end in CR LF, names nothing, or could not be kept whole is passed over.
// 1, or 0 when the file cannot be opened or read, is too long (ERROR_FILE_TOO_LARGE) or finds no memory
// (ERROR_NOT_ENOUGH_MEMORY); the lists then hold what was read until then.
int32_t ReadPathLines(const char16_t *pszFile, StringList *pFolders, StringList *pFiles);
// Forgets the cached folder. Tests only.
void ResetStateFiles();
