// The module descriptor, the test table, the option tables and the type names. Everything the
// module says about itself (usage, catalog, accepted options) comes from these constant tables.
#pragma once
#include "report/Results.h"
#include "uefi/Base.h"

enum OptionType : UINT32 {
  OPTION_TYPE_NONE = 0,
  OPTION_TYPE_STRING = 1,
  OPTION_TYPE_INTEGER = 2,
  OPTION_TYPE_INTEGER64 = 3,
  OPTION_TYPE_BOOLEAN = 4,
};
constexpr UINTN kOptionTypeCount = 5;

// A row of an option table; a row written with designated initializers leaves out what it has not.
struct OptionInfo {
  const CHAR16* Name = nullptr; // with its leading "-"; null ends the table
  const CHAR16* Description = nullptr;
  OptionType Type = OPTION_TYPE_NONE;
  const CHAR16* Default = nullptr;
  const CHAR16* Low = nullptr;
  const CHAR16* High = nullptr;
  const CHAR16* const* List = nullptr;
  BOOLEAN Required = FALSE;
};

// A test procedure: writes the result and the error code and returns whether its code worked.
using TestProcedure = EFI_STATUS (*)(UINTN* Result, UINTN* ErrorCode);

// Everything the module knows about one test. Each test's file in tests/ defines its record; the
// test table (tests/TestTable.cpp) lists them, and a test's number is its position there.
struct TestInfo {
  const CHAR16* Name;
  const CHAR16* Description;
  const OptionInfo* Options;
  TestProcedure Procedure;    // null while the test has no procedure in this build
  UINTN RunTime;              // seconds, as the run-time operation reports them
  UINTN ErrorGroup;           // 0x8016TT00: the test's own error codes are ErrorGroup + NN
  const ErrorMeaning* Errors; // those codes and what each means (codes every test shares aside)
};

// The error-code group of the test with this number: TT is the number plus one.
constexpr UINTN TestErrorGroup(UINTN Number) {
  return 0x80160000 + ((Number + 1) << 8);
}

// The module's version, in the one place every text of it comes from.
constexpr UINTN kModuleMajor = 1;
constexpr UINTN kModuleMinor = 1;
constexpr const CHAR16* kModuleBuild = u"";
constexpr const CHAR8* kModuleBuildTimeStamp = "Jan  3 2024 16:39:14";

constexpr UINTN kVersionChars = 256;

struct ModuleInfo {
  const CHAR16* Name;
  const CHAR16* FileName;
  CHAR16 Version[kVersionChars];
  const TestInfo* const* Tests; // ends with a null entry
};

extern const OptionInfo kGlobalOptions[];
extern const CHAR16* const kCatalogTypeNames[kOptionTypeCount];
extern const CHAR16* const kUsageTypeNames[kOptionTypeCount];

// The name a type table gives a type; an out-of-range type gets the empty name of type 0.
inline const CHAR16* TypeName(const CHAR16* const (&Table)[kOptionTypeCount], OptionType Type) {
  return Table[UINTN(Type) < kOptionTypeCount ? UINTN(Type) : 0];
}
