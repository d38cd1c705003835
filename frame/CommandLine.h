// Option strings: splitting into words and answering the global options.
#pragma once
#include "options/Catalog.h"

// Verdict of the test-option handler: 0 accepted, 1 unknown option, 2 unknown value.
using TestOptionHandlerFn = UINTN (*)(CHAR16* Name, CHAR16* Value, CHAR16** TestName);

EFI_STATUS ProcessLoadOptions(const CHAR16* Text, UINTN* Count, CHAR16*** Words);
void ParseCLIOptions(const CHAR16* Options, const ModuleInfo* Module, TestOptionHandlerFn Handler,
                     UINTN* Result, UINTN* ErrorCode);
// Frees the words of the current call's parse and resets their count.
void FreeOptionWords();
