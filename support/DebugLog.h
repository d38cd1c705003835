// The debug log file: Debug.log beside the module, or the file named by the UEFI variable
// DEBUGLOGPATH. One time-stamped 8-bit line for every text handed to it.
#pragma once
#include "base/Print.h"

constexpr EFI_GUID DEBUG_LOG_PATH_VARIABLE_GUID = {
    0x59D1C24F, 0x50F1, 0x401A, {0xB1, 0x01, 0xF3, 0x3E, 0x0D, 0xAE, 0xD4, 0x43}};

// The log restarts empty before a line that would be written to a file already larger than this.
constexpr UINT64 kDebugLogRestartSize = 5000000;

// Sets the log path from DEBUGLOGPATH or the module directory, and takes file access's notes about
// its own failures. Runs right after file-access start-up.
void DebugLogInitialize(const CHAR16* ModuleDirectory);
// Records one text in the log file; the status of the file write.
EFI_STATUS DebugLogWrite(const CHAR16* Text);
EFI_STATUS DebugLogPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count);
// The log path in use (empty before start-up).
const CHAR16* DebugLogPath();
void DebugLogReset();

template <class... A> EFI_STATUS DebugLogPrint(const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  return DebugLogPrintV(Format, list, sizeof...(A));
}
