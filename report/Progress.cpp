#include "report/Progress.h"
#include "base/String.h"
#include "report/Output.h"
#include "support/FileIo.h"

namespace {
constexpr UINTN kPromptPathChars = 512;
}

EFI_STATUS ProgressUpdate(UINTN Percent, UINTN SecondsRemaining, UINTN* Interrupt) {
  if (VEX_MANAGER_PROTOCOL* manager = Manager())
    manager->Progress(Percent, SecondsRemaining, Interrupt);
  return EFI_SUCCESS;
}

EFI_STATUS PromptMessage(UINTN MessageId, const CHAR16* MessageFile) {
  ConsolePrint(u"PromptMessage(380) - %d - %s \r\n", MessageId, MessageFile);
  CHAR16 path[kPromptPathChars];
  StrCopy(path, sizeof(path), MessageFile);
  FileIoResolveModulePath(path, sizeof(path));
  ConsolePrint(u"PromptMessage(386) - %d - %s \r\n", MessageId, MessageFile);
  VEX_MANAGER_PROTOCOL* manager = Manager();
  if (manager == nullptr)
    return EFI_NOT_READY;
  return manager->Prompt(MessageId, path);
}
