// shell_links.cpp: shell links through COM. The caller's thread is one apartment from InitializeShellLinks on, and
// every link lives and dies in it.
#include "platform/tool_seam.h"
#include "platform/windows/sdk.h"

#include <new>
#include <objbase.h>
#include <objidl.h>
#include <shlobj.h>

namespace platform {

struct ShellLink {
    IShellLinkW  *pLink;
    IPersistFile *pFile;
};

static bool CreateLinkObjects(ShellLink *pObjects)
{
    *pObjects = {};
    if (FAILED(::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                  reinterpret_cast<void **>(&pObjects->pLink))))
        return false;
    if (FAILED(pObjects->pLink->QueryInterface(IID_IPersistFile, reinterpret_cast<void **>(&pObjects->pFile)))) {
        pObjects->pLink->Release();
        return false;
    }
    return true;
}

bool InitializeShellLinks()
{
    ShellLink trial;
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return false;
    if (!CreateLinkObjects(&trial)) {
        ::CoUninitialize();
        return false;
    }
    trial.pFile->Release();
    trial.pLink->Release();
    return true;
}

void UninitializeShellLinks()
{
    ::CoUninitialize();
}

ShellLink *NewShellLink()
{
    auto *pLink = new (std::nothrow) ShellLink();
    if (pLink != nullptr && !CreateLinkObjects(pLink)) {
        delete pLink;
        pLink = nullptr;
    }
    return pLink;
}

ShellLink *LoadShellLink(const char16_t *pszPath)
{
    ShellLink *pLink = NewShellLink();
    if (pLink != nullptr && FAILED(pLink->pFile->Load(AsWide(pszPath), STGM_READWRITE))) {
        ReleaseShellLink(pLink);
        pLink = nullptr;
    }
    return pLink;
}

// GetPath answers S_FALSE, with an empty text, when the link has no path; it is then no path to hand on.
bool GetShellLinkPath(ShellLink *pLink, char16_t *pszPath, int32_t cch)
{
    return pLink->pLink->GetPath(AsWide(pszPath), cch, nullptr, 0) == S_OK;
}

bool SetShellLinkPath(ShellLink *pLink, const char16_t *pszPath)
{
    return SUCCEEDED(pLink->pLink->SetPath(AsWide(pszPath)));
}

bool GetShellLinkWorkingDirectory(ShellLink *pLink, char16_t *pszPath, int32_t cch)
{
    return SUCCEEDED(pLink->pLink->GetWorkingDirectory(AsWide(pszPath), cch));
}

bool SetShellLinkWorkingDirectory(ShellLink *pLink, const char16_t *pszPath)
{
    return SUCCEEDED(pLink->pLink->SetWorkingDirectory(AsWide(pszPath)));
}

bool SaveShellLink(ShellLink *pLink, const char16_t *pszPath)
{
    return SUCCEEDED(pLink->pFile->Save(AsWide(pszPath), TRUE));
}

void ReleaseShellLink(ShellLink *pLink)
{
    if (pLink == nullptr) return;
    pLink->pFile->Release();
    pLink->pLink->Release();
    delete pLink;
}

} // namespace platform
