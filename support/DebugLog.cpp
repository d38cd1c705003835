#include "support/DebugLog.h"
#include "base/Cxx.h"
#include "base/Globals.h"
#include "base/String.h"
#include "support/FileIo.h"

namespace {

constexpr UINTN kLineChars = 1024;
constexpr UINTN kStampChars = 256;
constexpr UINTN kPathBytes = 1024;

constinit CHAR16 gLogPath[kFileIoPathChars] = {};
// A log write that fails inside file access may log about it; that line is dropped instead of
// recursing into another write.
constinit bool gWriting = false;

void TimeStamp(CHAR16 (&stamp)[kStampChars]) {
  EFI_TIME now = {};
  if (gRT == nullptr || EFI_ERROR(gRT->GetTime(&now, nullptr))) {
    StrCopy(stamp, sizeof(stamp), u"Clock not functional");
    return;
  }
  SPrint(stamp, sizeof(stamp), u"%04d-%02d-%02d %02d:%02d:%02d", now.Year, now.Month, now.Day, now.Hour,
         now.Minute, now.Second);
}

} // namespace

void DebugLogInitialize(const CHAR16* ModuleDirectory) {
  FileIoSetNoteWriter(DebugLogWrite);
  // One character more than the variable may fill, so the path always ends within the buffer.
  CHAR16 path[kPathBytes / sizeof(CHAR16) + 1] = {};
  UINTN size = kPathBytes;
  if (gRT != nullptr &&
      !EFI_ERROR(gRT->GetVariable(u"DEBUGLOGPATH", &DEBUG_LOG_PATH_VARIABLE_GUID, nullptr, &size, path)) &&
      path[0] != 0) {
    path[wc::Min<UINTN>(size / sizeof(CHAR16), kPathBytes / sizeof(CHAR16))] = 0;
    StrCopy(gLogPath, sizeof(gLogPath), path);
    return;
  }
  SPrint(gLogPath, sizeof(gLogPath), u"%sDebug.log", ModuleDirectory);
}

const CHAR16* DebugLogPath() {
  return gLogPath;
}

void DebugLogReset() {
  gLogPath[0] = 0;
  gWriting = false;
}

EFI_STATUS DebugLogWrite(const CHAR16* Text) {
  if (gLogPath[0] == 0)
    return EFI_NOT_READY;
  if (gWriting)
    return EFI_ACCESS_DENIED;
  CHAR16 stamp[kStampChars];
  TimeStamp(stamp);
  CHAR16 line[kLineChars];
  UINTN length = SPrint(line, sizeof(line), u"%s  %s", stamp, Text != nullptr ? Text : u"");
  CHAR8 bytes[kLineChars];
  for (UINTN i = 0; i < length; ++i)
    bytes[i] = CHAR8(line[i] & 0xFF);
  gWriting = true;
  EFI_STATUS status = FileIoWriteFile(gLogPath, bytes, length, kFileIoEndOfFile, kDebugLogRestartSize);
  gWriting = false;
  return status;
}

EFI_STATUS DebugLogPrintV(const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  CHAR16 text[kLineChars];
  FormatV(text, sizeof(text), Format, Args, Count);
  return DebugLogWrite(text);
}
