// The module descriptor, the test table, the option tables and the type names. Everything the
// module says about itself (usage, catalog, accepted options) comes from these constant tables.
#pragma once
#include "uefi/Base.h"

enum OptionType : UINT32 {
  OPTION_TYPE_NONE = 0,
  OPTION_TYPE_STRING = 1,
  OPTION_TYPE_INTEGER = 2,
  OPTION_TYPE_INTEGER64 = 3,
  OPTION_TYPE_BOOLEAN = 4,
};
constexpr UINTN kOptionTypeCount = 5;

struct OptionInfo {
  const CHAR16* Name; // with its leading "-"; null ends the table
  const CHAR16* Description;
  OptionType Type;
  const CHAR16* Default;
  const CHAR16* Low;
  const CHAR16* High;
  const CHAR16* const* List;
  BOOLEAN Required;
};

struct TestInfo {
  const CHAR16* Name; // null ends the table
  const CHAR16* Description;
  const OptionInfo* Options;
};

constexpr UINTN kVersionChars = 256;

struct ModuleInfo {
  const CHAR16* Name;
  const CHAR16* FileName;
  CHAR16 Version[kVersionChars];
  const TestInfo* Tests;
};

// Test numbers: positions in the test table.
enum TestNumber : INT32 {
  TEST_PING = 0,
  TEST_DETECT_CABLE = 1,
  TEST_INTERACTIVE_NETWORK = 2,
  TEST_MAC_ADDRESS = 3,
  TEST_SPEED = 4,
  TEST_NIC_SPEED = 5,
  TEST_IRQ = 6,
};
constexpr UINTN kTestCount = 7;

extern ModuleInfo gModuleInfo;
extern const TestInfo kTestTable[kTestCount + 1];
extern const OptionInfo kGlobalOptions[];
extern const CHAR16* const kCatalogTypeNames[kOptionTypeCount];
extern const CHAR16* const kUsageTypeNames[kOptionTypeCount];

// The name a type table gives a type; an out-of-range type gets the empty name of type 0.
inline const CHAR16* TypeName(const CHAR16* const (&Table)[kOptionTypeCount], OptionType Type) {
  return Table[UINTN(Type) < kOptionTypeCount ? UINTN(Type) : 0];
}

inline const CHAR16* ModuleName() {
  return gModuleInfo.Name;
}
