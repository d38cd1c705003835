// Test results and error codes: what a run found and why, handed to the manager beside the status.
#pragma once
#include "uefi/Base.h"

enum TestResult : UINTN {
  TEST_RESULT_IN_PROGRESS = 0, // also: not yet decided
  TEST_RESULT_PASSED = 1,
  TEST_RESULT_CANCELLED = 2,
  TEST_RESULT_FAILED = 3,
  TEST_RESULT_SKIPPED = 4,
  TEST_RESULT_NOT_AVAILABLE = 5,
  TEST_RESULT_NOT_INSTALLED = 6,
  TEST_RESULT_WARNING = 7,
  TEST_RESULT_SOFTWARE_ERROR = 8,
};

// Error codes beside the result. Test-specific codes are 0x8016TTNN: TT is the owning test's
// number plus one, NN counts from 01.
constexpr UINTN ERROR_CODE_NONE = 0;
constexpr UINTN ERROR_CODE_OPERATOR_ABORT = 0x80000001;  // failed or cancelled by the operator
constexpr UINTN ERROR_CODE_INVALID_OPTIONS = 0x80000002; // option string refused
constexpr UINTN ERROR_CODE_SOFTWARE = 0x800000FF;        // the module itself failed

// The two codes of the first test's group that every NIC test reports.
constexpr UINTN ERROR_CODE_NO_NIC = 0x80160103;        // no NIC, or no managed-network service binding
constexpr UINTN ERROR_CODE_NIC_NOT_FOUND = 0x80160104; // the NIC asked for by index, path or ID is not there

// What an error code says, for the lines and files that carry a result to people and dashboards.
struct ErrorMeaning {
  UINTN Code;
  const CHAR16* Meaning;
};
// The meaning of Code: from the test's own table (ended by an entry without a meaning; none when
// null), else from the codes every test shares; null for a code nobody defines.
const CHAR16* ErrorCodeMeaning(const ErrorMeaning* TestCodes, UINTN Code);

// How a test names the cause of a failure status: the statuses it knows, each with its code.
struct StatusErrorCode {
  EFI_STATUS Status;
  UINTN ErrorCode;
};
// The error code of a failure status; a status the list does not know is the module's own failure.
template <UINTN N> constexpr UINTN ErrorCodeFor(EFI_STATUS Status, const StatusErrorCode (&Known)[N]) {
  for (const StatusErrorCode& k : Known)
    if (k.Status == Status)
      return k.ErrorCode;
  return ERROR_CODE_SOFTWARE;
}
