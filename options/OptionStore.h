// The parsed-option store of one manager call, validation against the selected test's option
// table, number and boolean conversion, and the getters the test procedures read options with.
#pragma once
#include "base/Number.h"
#include "options/Catalog.h"

struct ParsedOption {
  const CHAR16* Name;
  OptionType Type;
  UINT64 Value; // text pointer before validation; number, BOOLEAN or text pointer after
  BOOLEAN IsSet;
};

constexpr UINTN kParsedOptionCapacity = 64;
constexpr UINTN kOptionNameChars = 128;

ParsedOption* AddParsedOption(const CHAR16* Name, const CHAR16* Value, BOOLEAN IsSet);
void ClearParsedOptions();
UINTN ParsedOptionCount();
const TestInfo* FindTestInfo(const TestInfo* const* Table, const CHAR16* Name);
const OptionInfo* FindOptionInfo(const OptionInfo* Table, const CHAR16* Name);
BOOLEAN ValidateTestOptions(const ModuleInfo* Module, const CHAR16* TestName);
void DumpTestOptions();
EFI_STATUS ParseBoolean(const CHAR16* Text, BOOLEAN* Value);

EFI_STATUS GetOptionValueAt(const CHAR16* Name, UINTN Index, UINT64* Value, BOOLEAN* IsSet);
EFI_STATUS GetOptionBooleanAt(const CHAR16* Name, UINTN Index, BOOLEAN* Value, BOOLEAN* IsSet);
inline EFI_STATUS GetOptionValue(const CHAR16* Name, UINT64* Value, BOOLEAN* IsSet) {
  return GetOptionValueAt(Name, 0, Value, IsSet);
}
inline EFI_STATUS GetOptionBoolean(const CHAR16* Name, BOOLEAN* Value, BOOLEAN* IsSet) {
  return GetOptionBooleanAt(Name, 0, Value, IsSet);
}
// A string option's value as GetOptionValue hands it back: the text's address (null: no text).
inline const CHAR16* OptionText(UINT64 Value) {
  return reinterpret_cast<const CHAR16*>(static_cast<UINTN>(Value));
}
