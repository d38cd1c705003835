// This module's descriptor: its name, file name, version text and the test table.
#pragma once
#include "options/Catalog.h"

// Start-up writes the version text.
extern ModuleInfo gModuleInfo;

// The test with this number, or null when the table has none.
const TestInfo* TestAt(INT64 Number);

// What an error code of this module means: a test's own code (its group names the test) from that
// test's table, any other from the codes every test shares.
const CHAR16* ErrorMeaningOf(UINTN Code);

inline const CHAR16* ModuleName() {
  return gModuleInfo.Name;
}
