// incoming_file.h: a file from the peer on this machine's disk, from its first byte to its name.
// Part     A file whose name is free grows under that name with RECEIVING_SUFFIX behind it (a name too long for that,
//          or whose part is in use: under the suffix alone) and gets its name when it is whole: if this process dies
//          half-way, no broken file has the name, for which the resumed send would have to take another. Where no part
//          can be made, and where the file replaces an existing one, the destination itself is written.
// Again    A file that an earlier, broken-off request of this migration has stored already (receipt_journal.h) is
//          compared as it comes. When every byte is the same, the stored one stays as it is and the new one goes.
// Thread   the link's listener.
#pragma once
#include "platform/files.h"
#include "platform/path.h"
#include <cstddef>
#include <cstdint>

constexpr size_t   INCOMING_PATH_UNITS = 1026; // the wire's field and a terminator, which the peer does not promise
constexpr char16_t RECEIVING_SUFFIX[]  = u".~VornTramsa-5c12a73e.part"; // no user's file has it
constexpr uint32_t STORED_COPIES_MAX   = 4; // of one destination that are compared with a file that comes again

struct IncomingFile {
    char16_t szWanted[INCOMING_PATH_UNITS];      // the destination as it was asked for; empty: nothing may be stored
    char16_t szPath[INCOMING_PATH_UNITS];        // where the file is stored: the same, or with a number in its name
    char16_t szLocal[platform::LONG_PATH_UNITS]; // szPath in the form in which it is opened
    bool     bOverwrite; // an existing file is replaced; else a free name is taken and no file is ever overwritten
    bool     bJournal;   // the receipt journal knows this file, or learns of it
    uint32_t dwError;    // why nothing can be stored, or could not; a system error, 0: none

    // From CreateIncomingFile to the end.
    platform::HANDLE hFile;                             // INVALID_HANDLE_VALUE: bytes are discarded
    char16_t         szPart[platform::LONG_PATH_UNITS]; // what is written meanwhile; empty: szLocal
    uint32_t         nNumber;                           // of szPath's name, 1: szWanted itself
    bool             bCreated;                          // by us, so that a failure deletes it
    int64_t          cbSize;                            // as announced
    platform::HANDLE ahCopies[STORED_COPIES_MAX];       // stored ones, equal so far; INVALID_HANDLE_VALUE: none
    uint32_t         anCopies[STORED_COPIES_MAX];       // and their numbers
    bool             abCopyCounted[STORED_COPIES_MAX];
    bool             bKept;    // set at the end: the file was here already
    bool             bCounted; // and has been counted as progress
};

// Begins with an empty record: the destination, nothing open.
void SetIncomingFile(IncomingFile *pFile, const char16_t *pszWanted, bool bOverwrite);
// Opens what is written, in its folder, which is made when it is not there; with dwError set already, nothing. False:
// dwError says why.
bool CreateIncomingFile(IncomingFile *pFile, int64_t cbSize);
// False: dwError says why, and further bytes are discarded. True also while bytes are discarded.
bool WriteIncomingFile(IncomingFile *pFile, const void *pBytes, uint32_t cb);
// The file is whole: closes it and gives it its name, for which it tries about five seconds (a scanner may hold a new
// file, a name may be taken meanwhile). szPath and szLocal are where it is then. False: dwError says why.
bool FinishIncomingFile(IncomingFile *pFile);
// Closes everything; further bytes are discarded.
void CloseIncomingFile(IncomingFile *pFile);
// Closes everything and deletes what was created. An existing file that was opened to be replaced has lost its content.
void DropIncomingFile(IncomingFile *pFile);

// True for the name of a part: a file that is being received, or was when its receiver died. It is nobody's file, and
// no walk sends it.
bool IsPartName(const char16_t *pszName);
// Deletes parts that a killed process left in the folder; one that is in use stays. Looks once into each folder until
// ForgetSweptFolders, as far as they can be remembered.
//   pszFolder  in the form in which it is opened, without trailing backslash
void SweepParts(const char16_t *pszFolder);
void ForgetSweptFolders();
