#include "options/OptionStore.h"
#include "base/Number.h"
#include "base/String.h"
#include "report/Output.h"

static ParsedOption* FindParsedOption(const CHAR16* Name, UINTN Index);
static BOOLEAN IsValueInList(const CHAR16* const* List, const CHAR16* Value);
// Option names compare without regard to case; a name longer than 127 characters matches nothing.
static BOOLEAN OptionNamesEqual(const CHAR16* A, const CHAR16* B);

namespace {
ParsedOption gStore[kParsedOptionCapacity];
UINTN gStoreCount = 0;

// Lower-cased copy into a name buffer; FALSE when the name does not fit.
bool LowerCopy(CHAR16 (&buffer)[kOptionNameChars], const CHAR16* name) {
  if (name == nullptr || !StrCopy(buffer, sizeof(buffer), name))
    return false;
  StrToLower(buffer);
  return true;
}

const CHAR16* ValueText(const ParsedOption& entry) {
  return OptionText(entry.Value);
}

UINT64 TextValue(const CHAR16* text) {
  return UINT64(reinterpret_cast<UINTN>(text));
}

// Converts and range-checks one store entry against its option record. An entry that carries the
// option's default may lack a text (a string option without default); one given in the call may not.
BOOLEAN ValidateEntry(const OptionInfo& option, ParsedOption& entry) {
  const CHAR16* text = ValueText(entry);
  if (entry.IsSet && option.Type != OPTION_TYPE_NONE && text == nullptr) {
    ErrorPrint(u"Missing argument for %s option\r\n", option.Name);
    return FALSE;
  }
  if (option.List != nullptr && !IsValueInList(option.List, text)) {
    ErrorPrint(u"option %s for argument %s is not within list of allowed values\r\n", text, option.Name);
    return FALSE;
  }
  switch (option.Type) {
  case OPTION_TYPE_INTEGER:
  case OPTION_TYPE_INTEGER64: {
    const CHAR16* end = nullptr;
    UINT64 number = StrToInteger(text, &end, FALSE);
    if (end == nullptr || *end != 0) {
      ErrorPrint(u"Integer argument required for %s option ('%s' was given)\r\n", option.Name, text);
      return FALSE;
    }
    entry.Value = number;
    break;
  }
  case OPTION_TYPE_BOOLEAN: {
    BOOLEAN value = FALSE;
    if (EFI_ERROR(ParseBoolean(text, &value))) {
      ErrorPrint(u"Boolean argument required for %s option ('%s' was given)\r\n", option.Name, text);
      return FALSE;
    }
    entry.Value = value;
    break;
  }
  default:
    break;
  }
  entry.Type = option.Type;

  bool below = false;
  bool above = false;
  switch (option.Type) {
  case OPTION_TYPE_INTEGER:
    below = option.Low != nullptr && INT64(entry.Value) < INT64(StrToInteger(option.Low, nullptr, FALSE));
    above = option.High != nullptr && INT64(entry.Value) > INT64(StrToInteger(option.High, nullptr, FALSE));
    break;
  case OPTION_TYPE_INTEGER64:
    below = option.Low != nullptr && entry.Value < StrToInteger(option.Low, nullptr, FALSE);
    above = option.High != nullptr && entry.Value > StrToInteger(option.High, nullptr, FALSE);
    break;
  case OPTION_TYPE_STRING:
    below = option.Low != nullptr && StriCmp(text, option.Low) < 0;
    above = option.High != nullptr && StriCmp(text, option.High) > 0;
    break;
  default:
    break;
  }
  if (below)
    ErrorPrint(u"Option %s argument should be above minimum value of %s\r\n", option.Name, option.Low);
  if (above)
    ErrorPrint(u"Option %s argument should be below maximum value of %s\r\n", option.Name, option.High);
  return (below || above) ? FALSE : TRUE;
}
} // namespace

static BOOLEAN OptionNamesEqual(const CHAR16* A, const CHAR16* B) {
  CHAR16 a[kOptionNameChars];
  CHAR16 b[kOptionNameChars];
  if (!LowerCopy(a, A) || !LowerCopy(b, B))
    return FALSE;
  return StrEq(a, b) ? TRUE : FALSE;
}

ParsedOption* AddParsedOption(const CHAR16* Name, const CHAR16* Value, BOOLEAN IsSet) {
  if (gStoreCount >= kParsedOptionCapacity)
    return nullptr;
  ParsedOption& entry = gStore[gStoreCount++];
  entry.Name = Name;
  entry.Type = OPTION_TYPE_NONE;
  entry.Value = TextValue(Value);
  entry.IsSet = IsSet;
  return &entry;
}

void ClearParsedOptions() {
  gStoreCount = 0;
}
UINTN ParsedOptionCount() {
  return gStoreCount;
}

static ParsedOption* FindParsedOption(const CHAR16* Name, UINTN Index) {
  for (UINTN i = 0; i < gStoreCount; ++i) {
    if (OptionNamesEqual(gStore[i].Name, Name)) {
      if (Index == 0)
        return &gStore[i];
      --Index;
    }
  }
  return nullptr;
}

const TestInfo* FindTestInfo(const TestInfo* const* Table, const CHAR16* Name) {
  for (const TestInfo* const* t = Table; t != nullptr && *t != nullptr; ++t)
    if (OptionNamesEqual((*t)->Name, Name))
      return *t;
  return nullptr;
}

const OptionInfo* FindOptionInfo(const OptionInfo* Table, const CHAR16* Name) {
  for (const OptionInfo* o = Table; o != nullptr && o->Name != nullptr; ++o)
    if (OptionNamesEqual(o->Name, Name))
      return o;
  return nullptr;
}

static BOOLEAN IsValueInList(const CHAR16* const* List, const CHAR16* Value) {
  for (const CHAR16* const* p = List; p != nullptr && *p != nullptr; ++p)
    if (OptionNamesEqual(*p, Value))
      return TRUE;
  return FALSE;
}

BOOLEAN ValidateTestOptions(const ModuleInfo* Module, const CHAR16* TestName) {
  if (Module == nullptr || TestName == nullptr)
    return FALSE;
  const TestInfo* test = FindTestInfo(Module->Tests, TestName);
  if (test == nullptr) {
    ErrorPrint(u"Unknown Test %s selected\r\n", TestName);
    return FALSE;
  }
  if (test->Options == nullptr) {
    TracePrint(u"test %s carries no known arguments\r\n", TestName);
    return TRUE;
  }
  for (const OptionInfo* option = test->Options; option->Name != nullptr; ++option) {
    for (UINTN k = 0;; ++k) {
      ParsedOption* entry = FindParsedOption(option->Name, k);
      if (entry == nullptr) {
        if (k > 0)
          break;
        if (option->Required) {
          ErrorPrint(u"Missing mandatory option %s\r\n", option->Name);
          return FALSE;
        }
        entry = AddParsedOption(option->Name, option->Default, FALSE);
        if (entry == nullptr) {
          ErrorPrint(u"Too many options: no room left for the default of %s\r\n", option->Name);
          return FALSE;
        }
      }
      if (!ValidateEntry(*option, *entry))
        return FALSE;
    }
  }
  return TRUE;
}

void DumpTestOptions() {
  TracePrint(u"test options (%d):\r\n", gStoreCount);
  for (UINTN i = 0; i < gStoreCount; ++i) {
    const ParsedOption& e = gStore[i];
    const CHAR16* how = e.IsSet ? u"set" : u"dflt";
    switch (e.Type) {
    case OPTION_TYPE_STRING: {
      const CHAR16* text = ValueText(e);
      TracePrint(u"%s = \"%s\" (str) (%s)\r\n", e.Name, text != nullptr ? text : u"NULL", how);
      break;
    }
    case OPTION_TYPE_INTEGER:
      TracePrint(u"%s = %d (int) (%s)\r\n", e.Name, e.Value, how);
      break;
    case OPTION_TYPE_INTEGER64:
      TracePrint(u"%s = %d (uint64) (%s)\r\n", e.Name, e.Value, how);
      break;
    case OPTION_TYPE_BOOLEAN:
      TracePrint(u"%s = %d (bool) (%s)\r\n", e.Name, UINT8(e.Value) ? 1 : 0, how);
      break;
    default:
      TracePrint(u"%s (no arg) (%s)\r\n", e.Name, how);
      break;
    }
  }
}

EFI_STATUS ParseBoolean(const CHAR16* Text, BOOLEAN* Value) {
  if (Value == nullptr)
    return EFI_INVALID_PARAMETER;
  if (Text == nullptr || Text[0] == 0) {
    *Value = FALSE;
    return EFI_INVALID_PARAMETER;
  }
  if (StriEq(Text, u"false") || StriEq(Text, u"0") || StriEq(Text, u"no")) {
    *Value = FALSE;
    return EFI_SUCCESS;
  }
  if (StriEq(Text, u"true") || StriEq(Text, u"1") || StriEq(Text, u"yes")) {
    *Value = TRUE;
    return EFI_SUCCESS;
  }
  return EFI_INVALID_PARAMETER;
}

EFI_STATUS GetOptionValueAt(const CHAR16* Name, UINTN Index, UINT64* Value, BOOLEAN* IsSet) {
  if (Name == nullptr || Value == nullptr)
    return EFI_INVALID_PARAMETER;
  ParsedOption* entry = FindParsedOption(Name, Index);
  if (entry == nullptr) {
    if (Index == 0)
      ErrorPrint(u"could not find the %s option\r\n", Name);
    else
      TracePrint(u"could not find the %s option at index %d\r\n", Name, Index);
    return EFI_NOT_READY;
  }
  *Value = entry->Value;
  if (IsSet != nullptr)
    *IsSet = entry->IsSet;
  return EFI_SUCCESS;
}

EFI_STATUS GetOptionBooleanAt(const CHAR16* Name, UINTN Index, BOOLEAN* Value, BOOLEAN* IsSet) {
  if (Value == nullptr)
    return EFI_INVALID_PARAMETER;
  UINT64 raw = 0;
  EFI_STATUS status = GetOptionValueAt(Name, Index, &raw, IsSet);
  if (!EFI_ERROR(status))
    *Value = UINT8(raw); // a boolean sits in the low byte
  return status;
}
