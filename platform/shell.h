// shell.h: known folders, the command line, shell links, system folders.
#pragma once
#include "platform/types.h"

namespace platform {

constexpr int32_t CSIDL_COMMON_APPDATA = 35;
constexpr HRESULT S_OK                 = 0;

inline constexpr GUID FOLDERID_Windows = {0xF38BF404, 0x1D43, 0x42F2, {0x93, 0x05, 0x67, 0xDE, 0x0B, 0x28, 0xFC, 0x23}};
inline constexpr GUID FOLDERID_ProgramFilesX86 = {
    0x7C5A40EF, 0xA0FB, 0x4BFC, {0x87, 0x4A, 0xC0, 0xF2, 0xE0, 0xB9, 0xFA, 0x8E}};
inline constexpr GUID FOLDERID_ProgramFilesX64 = {
    0x6D809377, 0x6AF0, 0x444B, {0x89, 0x57, 0xA3, 0x77, 0x3F, 0x02, 0x20, 0x0E}};
inline constexpr GUID FOLDERID_ProgramData = {
    0x62AB5D82, 0xFDC1, 0x4DC3, {0xA9, 0xDD, 0x07, 0x0D, 0x1D, 0x49, 0x5D, 0x97}};
inline constexpr GUID FOLDERID_Public  = {0xDFDF76A2, 0xC82A, 0x4D63, {0x90, 0x6A, 0x56, 0x44, 0xAC, 0x45, 0x73, 0x85}};
inline constexpr GUID FOLDERID_Profile = {0x5E6C858F, 0x0E22, 0x4760, {0x9A, 0xFE, 0xEA, 0x33, 0x17, 0xB6, 0x71, 0x73}};
inline constexpr GUID FOLDERID_UserProfiles = {
    0x0762D272, 0xC50A, 0x4BB0, {0xA3, 0x82, 0x69, 0x7D, 0xCD, 0x72, 0x9B, 0x80}};
inline constexpr GUID FOLDERID_Desktop = {0xB4BFCC3A, 0xDB2C, 0x424C, {0xB0, 0x29, 0x7F, 0xE9, 0x9A, 0x87, 0xC6, 0x41}};
inline constexpr GUID FOLDERID_Documents = {
    0xFDD39AD0, 0x238F, 0x46AF, {0xAD, 0xB4, 0x6C, 0x85, 0x48, 0x03, 0x69, 0xC7}};
inline constexpr GUID FOLDERID_Pictures = {
    0x33E28130, 0x4E1E, 0x4676, {0x83, 0x5A, 0x98, 0x39, 0x5C, 0x3B, 0xC3, 0xBB}};

// pszPath holds MAX_PATH bytes. FALSE on failure.
BOOL SHGetSpecialFolderPathA(HWND hWnd, char *pszPath, int32_t nCsidl, BOOL bCreate);
// *ppszPath is freed with CoTaskMemFree, also after a failure. A negative result is a failure.
HRESULT SHGetKnownFolderPath(const GUID &rfid, uint32_t dwFlags, HANDLE hToken, char16_t **ppszPath);
void    CoTaskMemFree(void *pMem);
// Marks a folder as a system folder (its desktop.ini counts). FALSE on failure.
BOOL PathMakeSystemFolderW(const char16_t *pszPath);

const char16_t *GetCommandLineW();
// One block, freed with LocalFree (errors.h).
char16_t **CommandLineToArgvW(const char16_t *pszCommandLine, int32_t *pnArgs);

// *pcch: in the capacity, out the length without the terminator.
BOOL GetComputerNameW(char16_t *pszBuffer, uint32_t *pcch);

// One shell link (.lnk file), loaded from disk. Thread: the one that called InitializeShellLinks, from load to release.
struct ShellLink;
// CoInitializeEx(apartment threaded) and a test that links can be made. False: nothing to uninitialise.
bool InitializeShellLinks();
void UninitializeShellLinks();
// IPersistFile::Load(STGM_READWRITE). Null on failure.
ShellLink *LoadShellLink(const char16_t *pszPath);
// IShellLinkW::GetPath / SetPath / GetWorkingDirectory / SetWorkingDirectory; cch in UTF-16 units.
bool GetShellLinkPath(ShellLink *pLink, char16_t *pszPath, int32_t cch);
bool SetShellLinkPath(ShellLink *pLink, const char16_t *pszPath);
bool GetShellLinkWorkingDirectory(ShellLink *pLink, char16_t *pszPath, int32_t cch);
bool SetShellLinkWorkingDirectory(ShellLink *pLink, const char16_t *pszPath);
// IPersistFile::Save; null keeps the file it was loaded from.
bool SaveShellLink(ShellLink *pLink, const char16_t *pszPath);
void ReleaseShellLink(ShellLink *pLink);

} // namespace platform
