// Usage text, version line and the XML catalog, produced from the constant tables.
#pragma once
#include "options/Catalog.h"

struct EFI_FILE_PROTOCOL;

void PrintUsage(const ModuleInfo* Module, const CHAR16* TestName);
BOOLEAN PrintTestUsage(const ModuleInfo* Module, const CHAR16* TestName);
CHAR16* FormatTestSyntax(const TestInfo* Test, UINTN BufferSize, CHAR16* Buffer);
CHAR16* FormatOptionSyntax(const OptionInfo* Option, UINTN BufferSize, CHAR16* Buffer);
CHAR16* FormatOptionHelp(const OptionInfo* Option, UINTN BufferSize, CHAR16* Buffer);
void PrintVersion(const ModuleInfo* Module);
// TRUE when the catalog went to the console.
BOOLEAN PrintCatalog(const ModuleInfo* Module, const CHAR16* Path);
