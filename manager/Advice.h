// What an error code tells the technician: for every code the tests define, the tests that set it,
// what happened and what to check. The one source of the README's troubleshooting table (a host
// test compares them) and of the advice the menu's result screen shows.
#pragma once
#include "uefi/Base.h"

struct AdviceRow {
  UINTN Code;
  const CHAR16* Label; // the code as the table writes it: "0x80160301 (Warning)"
  const CHAR16* Tests;
  const CHAR16* Happened;
  const CHAR16* Check; // may begin "as 0x...": the advice of that code applies
};

// The rows in the README's order.
const AdviceRow* AdviceRows(UINTN* Count);
// The row of a code; null for a code without one (0, say).
const AdviceRow* AdviceFor(UINTN Code);
// What to check for a code as the screen shows it: a reference "as 0x..." followed by the referred
// row's advice, backquotes of the table's code spans left out. Empty for a code without a row.
void AdviceText(UINTN Code, CHAR16* Out, UINTN OutSize);
