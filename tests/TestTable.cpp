// The test table: one line per test, in test-number order. A test's file in tests/ defines its
// record (name, description, options, procedure, run time, error-code group); listing the record
// here is all it takes to make the test selectable, shown in usage and catalog, and dispatched.
#include "tests/TestTable.h"

#define WIRECHECK_TESTS(TEST)                                                                                \
  TEST(kPingTest)               /* 0 pingtest */                                                             \
  TEST(kDetectCableTest)        /* 1 detectcable */                                                          \
  TEST(kInteractiveNetworkTest) /* 2 interactivenetworktest */                                               \
  TEST(kMacAddressTest)         /* 3 macaddresstest */                                                       \
  TEST(kSpeedTest)              /* 4 SpeedTest */                                                            \
  TEST(kNicSpeedTest)           /* 5 NicSpeedTest */                                                         \
  TEST(kIrqTest)                /* 6 IRQTest */                                                              \
  TEST(kPing6Test)              /* 7 ping6test */                                                            \
  TEST(kDownloadTest)           /* 8 downloadtest */

#define DECLARE_TEST(record) extern const TestInfo record;
#define LIST_TEST(record) &record,

WIRECHECK_TESTS(DECLARE_TEST)

constinit const TestInfo* const kTestTable[] = {WIRECHECK_TESTS(LIST_TEST) nullptr};
