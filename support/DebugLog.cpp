#include "support/DebugLog.h"

// The log file is opened by file access at start-up; until it is, lines have nowhere to go.
void DebugLogWrite(const CHAR16*) {}
