// The debug log file (Debug.log beside the module, or the file named by DEBUGLOGPATH).
#pragma once
#include "uefi/Base.h"

// Records one line of output in the debug log when the log is active.
void DebugLogWrite(const CHAR16* Line);
