// machine_text.h: texts, small files and folders of this machine, as migrate uses them: UTF-8 within, UTF-16 at the
// seam.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// A path in the form in which it can be opened, however long it is.
std::u16string OpenForm(const std::string &sPath);
// Lower-cased as the system compares names.
std::string FoldName(const std::string &sText);
bool        SameName(const std::string &sLeft, const std::string &sRight);
// "C:\a\b" for ("C:\a\", "b").
std::string JoinPath(const std::string &sFolder, const std::string &sName);
std::string ParentOf(const std::string &sPath);
std::string BaseName(const std::string &sPath);
std::string WithoutBackslash(std::string sPath);
// "X:\..." without "." and ".." parts and without the characters that no name has.
bool IsPlainPath(const std::string &sPath);

// False: not there, or larger than cbMost.
bool ReadSmallFile(const std::string &sPath, uint64_t cbMost, std::string *psContent);
// Its folder is made when it is missing. False on failure.
bool WriteSmallFile(const std::string &sPath, const std::string &sContent);
void DeleteSmallFile(const std::string &sPath);
// UTF-16 with byte-order mark, each line ended by CR LF.
bool WriteLines(const std::string &sPath, const std::vector<std::string> &lines);

bool        PathExists(const std::string &sPath, bool *pbFolder = nullptr);
std::string ProgressFolder(); // "" when it cannot be had
std::string MappingFolder();
std::string ExchangeFile(const std::string &sName); // where the two migrates leave files for one another
std::string ApplicationDataRoot();                  // of this user
std::string PeerName();                             // as the peer told it when the link began
