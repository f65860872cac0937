// faults.h: the start of every public function: FailsNow("ItsName").
// Rules    nothing calls another public function inside: a fault and a count belong to the caller's own calls.
//          Globals are constant-initialised or leaked on purpose (function-local `static auto &x = *new ...`): threads
//          may still run while the process ends.
#pragma once
#include <cstdint>

namespace hosted {

// Counts the call; true when it must fail now, with the error set (*pdwError too, when given). Reads the environment on
// first use.
bool FailsNow(const char *pszCall, uint32_t *pdwError = nullptr);
// control.cpp: reads the environment once. A call that comes from inside returns at once.
void Start();

} // namespace hosted
