// Progress reports and operator prompts, handed to the diagnostics manager.
#pragma once
#include "uefi/Base.h"

// Reports progress; the manager may set *Interrupt to Cancelled or Failed (Interrupt may be null).
EFI_STATUS ProgressUpdate(UINTN Percent, UINTN SecondsRemaining, UINTN* Interrupt);
// Shows message MessageId of the message file beside the module and waits for the operator.
EFI_STATUS PromptMessage(UINTN MessageId, const CHAR16* MessageFile);
