#include "report/Output.h"
#include "base/Cxx.h"
#include "base/Globals.h"
#include "base/String.h"
#include "support/DebugLog.h"

namespace {
UINT64 gDebugLevel = DEBUG_LEVEL_OFF;
BOOLEAN gConsoleOn = TRUE;
VEX_MANAGER_PROTOCOL** gManagerLink = nullptr;

constexpr UINTN kDiagDebugNameBytes = 1024;
constexpr UINTN kDiagDebugValueBytes = 64;

void Show(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out, const CHAR16* line, UINTN attribute) {
  if (out == nullptr)
    return;
  if (attribute != 0)
    out->SetAttribute(out, attribute);
  out->OutputString(out, line);
  if (attribute != 0)
    out->SetAttribute(out, EFI_LIGHTGRAY);
}

void FormatAndWrite(const CHAR16* format, const PrintArg* args, UINTN count, BOOLEAN toConsole,
                    BOOLEAN toError, UINTN attribute) {
  CHAR16 line[kLineBufferBytes / sizeof(CHAR16)];
  FormatV(line, sizeof(line), format, args, count);
  WriteOutput(line, FALSE, toConsole, toError, attribute);
}
} // namespace

VEX_MANAGER_PROTOCOL* Manager() {
  return gManagerLink != nullptr ? *gManagerLink : nullptr;
}

void WriteOutput(const CHAR16* Text, BOOLEAN Flag, BOOLEAN ToConsole, BOOLEAN ToError, UINTN Attribute) {
  if (VEX_MANAGER_PROTOCOL* manager = Manager()) {
    manager->Output(const_cast<CHAR16*>(Text != nullptr ? Text : u""), Flag, ToConsole, ToError);
    return;
  }
  CHAR16 line[kLineBufferBytes / sizeof(CHAR16)];
  StrCopy(line, sizeof(line), Text);
  if (ToError && gST != nullptr) {
    if (gST->StdErr != nullptr)
      Show(gST->StdErr, line, Attribute);
    else
      ToConsole = TRUE;
  }
  if (ToConsole && gST != nullptr)
    Show(gST->ConOut, line, Attribute);
  DebugLogWrite(line);
}

void TracePrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  if (gDebugLevel == DEBUG_LEVEL_OFF)
    return;
  FormatAndWrite(Format, Args, Count, gConsoleOn && gDebugLevel > DEBUG_LEVEL_LOG, FALSE, EFI_BROWN);
}

void LogPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  FormatAndWrite(Format, Args, Count, FALSE, FALSE, 0);
}

void ConsolePrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  FormatAndWrite(Format, Args, Count, gConsoleOn, FALSE, 0);
}

void ConsolePrintAttrV(UINTN Attribute, const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  FormatAndWrite(Format, Args, Count, gConsoleOn, FALSE, Attribute);
}

void ErrorPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  FormatAndWrite(Format, Args, Count, FALSE, gConsoleOn, EFI_LIGHTRED);
}

void SetDebugLevel(CHAR16* Text) {
  if (Text == nullptr || Text[0] == 0) {
    gDebugLevel = DEBUG_LEVEL_CONSOLE;
    return;
  }
  StrLwrAscii(Text);
  if (StrEq(Text, u"false") || StrEq(Text, u"off") || StrEq(Text, u"no") || StrEq(Text, u"0"))
    gDebugLevel = DEBUG_LEVEL_OFF;
  else if (StrEq(Text, u"log") || StrEq(Text, u"1"))
    gDebugLevel = DEBUG_LEVEL_LOG;
  else
    gDebugLevel = DEBUG_LEVEL_CONSOLE;
}

UINT64 GetDebugLevel() {
  return gDebugLevel;
}

EFI_STATUS InitDebugLevel(EFI_HANDLE, EFI_SYSTEM_TABLE* SystemTable,
                          VEX_MANAGER_PROTOCOL** ManagerPointerAddress) {
  gManagerLink = ManagerPointerAddress;
  if (SystemTable == nullptr || SystemTable->RuntimeServices == nullptr)
    return EFI_SUCCESS;
  EFI_RUNTIME_SERVICES* rt = SystemTable->RuntimeServices;

  // The variable may sit under any vendor GUID: walk the names until DIAG_DEBUG turns up.
  CHAR16 name[kDiagDebugNameBytes / sizeof(CHAR16)] = {};
  EFI_GUID vendor = {};
  for (;;) {
    UINTN size = sizeof(name);
    if (EFI_ERROR(rt->GetNextVariableName(&size, name, &vendor)))
      return EFI_SUCCESS;
    name[wc::ArrayCount(name) - 1] = 0;
    if (StrEq(name, u"DIAG_DEBUG"))
      break;
  }
  // One character more than the variable can fill, so the text is always terminated.
  CHAR16 value[kDiagDebugValueBytes / sizeof(CHAR16) + 1] = {};
  UINTN size = kDiagDebugValueBytes;
  if (EFI_ERROR(rt->GetVariable(name, &vendor, nullptr, &size, value)))
    return EFI_SUCCESS; // too long or unreadable: treated as absent
  value[wc::Min<UINTN>(size / sizeof(CHAR16), kDiagDebugValueBytes / sizeof(CHAR16))] = 0;
  SetDebugLevel(value);
  return EFI_SUCCESS;
}

void SetConsoleOutput(BOOLEAN On) {
  gConsoleOn = On;
}
BOOLEAN GetConsoleOutput() {
  return gConsoleOn;
}

void ResetOutputState() {
  gDebugLevel = DEBUG_LEVEL_OFF;
  gConsoleOn = TRUE;
  gManagerLink = nullptr;
}
