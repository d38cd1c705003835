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

constexpr UINTN PingErrorCode(UINTN n) {
  return 0x80160100 + n;
}
constexpr UINTN ERROR_CODE_PING_CONFIG_FAILED = PingErrorCode(1);
constexpr UINTN ERROR_CODE_PING_TIMEOUT = PingErrorCode(2);
constexpr UINTN ERROR_CODE_NO_NIC = PingErrorCode(3);
constexpr UINTN ERROR_CODE_NIC_NOT_FOUND = PingErrorCode(4);
constexpr UINTN ERROR_CODE_PING_KIND_UNSUPPORTED = PingErrorCode(5);
constexpr UINTN ERROR_CODE_DHCP_REFUSED = PingErrorCode(6);
constexpr UINTN ERROR_CODE_NO_CABLE = PingErrorCode(7);
constexpr UINTN ERROR_CODE_INTERACTIVE_NO_CABLE = 0x80160301;
constexpr UINTN ERROR_CODE_INTERACTIVE_CONFIG_FAILED = 0x80160302;
constexpr UINTN ERROR_CODE_INTERACTIVE_NO_REPLY = 0x80160303;
constexpr UINTN ERROR_CODE_MAC_TEST_FAILED = 0x80160402;
constexpr UINTN ERROR_CODE_SPEED_TEST_FAILED = 0x80160501;
constexpr UINTN ERROR_CODE_NIC_SPEED_TEST_FAILED = 0x80160601;
constexpr UINTN ERROR_CODE_IRQ_TEST_FAILED = 0x80160701;
