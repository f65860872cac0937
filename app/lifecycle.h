// lifecycle.h: start-up and shut-down of the agent, in their order and with their bounds.
#pragma once
#include "platform/types.h"
#include <cstdint>

constexpr char16_t APP_EVENT_NAME[]          = u"VORN Migration Network Application Event";
constexpr char16_t SERVICE_EXIT_EVENT_NAME[] = u"Global\\VORN VornMigrationService App ExitEvent";

// Bounds in milliseconds.
constexpr uint32_t PREVIOUS_INSTANCE_WAIT_MS = 3500; // for an instance that is shutting down
constexpr uint32_t PREVIOUS_INSTANCE_STEP_MS = 50;
constexpr uint32_t PIPE_READY_WAIT_MS        = 500;
constexpr uint32_t THREAD_END_WAIT_MS        = 2500; // for each of the two service threads
constexpr uint32_t TRANSFERS_END_WAIT_MS     = 2500;
constexpr uint32_t TRANSFERS_END_STEP_MS     = 100;

// The service's exit event, opened at start-up; null when the service has none. Main thread: the service-exit watcher
// has a handle of its own.
extern platform::HANDLE g_hServiceExitEvent;

// True when the second argument of a command line (the program's name being the first) is exactly "-uninstall".
bool IsUninstallCommandLine(const char16_t *pszCommandLine);

// Everything between process entry and exit, on the main thread, which becomes the owner of the window. Result: the
// exit code, always 0: nobody looks at it, and nothing is shown to the user.
int32_t RunAgent(platform::HINSTANCE hInstance);
