// The five print operations and the common writer. Under the diagnostics manager every line goes
// to the manager's output operation; before the manager is found (early start-up) lines go to the
// console, the standard-error console and the debug log.
#pragma once
#include "base/Print.h"
#include "uefi/SystemTable.h"
#include "uefi/protocol/Vex.h"

constexpr UINTN kLineBufferBytes = 2000; // 999 characters and the terminator

enum DebugLevel : UINT64 { DEBUG_LEVEL_OFF = 0, DEBUG_LEVEL_LOG = 1, DEBUG_LEVEL_CONSOLE = 2 };

void WriteOutput(const CHAR16* Text, BOOLEAN Flag, BOOLEAN ToConsole, BOOLEAN ToError, UINTN Attribute);
void SetDebugLevel(CHAR16* Text);
UINT64 GetDebugLevel();
EFI_STATUS InitDebugLevel(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable,
                          VEX_MANAGER_PROTOCOL** ManagerPointerAddress);
// The manager protocol that output, progress and prompts go to: the pointer linked at start-up, or
// null before the manager is found.
VEX_MANAGER_PROTOCOL* Manager();
void SetConsoleOutput(BOOLEAN On);
BOOLEAN GetConsoleOutput();
// Clears the module-wide output state (debug level, console switch, manager link) as at image load.
void ResetOutputState();

void TracePrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count);
void LogPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count);
void ConsolePrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count);
void ConsolePrintAttrV(UINTN Attribute, const CHAR16* Format, const PrintArg* Args, UINTN Count);
void ErrorPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count);

template <class... A> void TracePrint(const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  TracePrintV(Format, list, sizeof...(A));
}
template <class... A> void LogPrint(const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  LogPrintV(Format, list, sizeof...(A));
}
// LogPrint for a message a caller's table may leave out (null: nothing to say at this step).
template <class... A> void LogPrintGiven(const CHAR16* Format, const A&... args) {
  if (Format != nullptr)
    LogPrint(Format, args...);
}
template <class... A> void ConsolePrint(const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  ConsolePrintV(Format, list, sizeof...(A));
}
template <class... A> void ConsolePrintAttr(UINTN Attribute, const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  ConsolePrintAttrV(Attribute, Format, list, sizeof...(A));
}
template <class... A> void ErrorPrint(const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  ErrorPrintV(Format, list, sizeof...(A));
}
