// Fuzz target: any option string through the manager's run-time and execute calls. Checks that
// nothing crashes, overruns (AddressSanitizer) or keeps pool memory after the call.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "frame/Dispatch.h"
#include "frame/TestModule.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "fakes/FakeFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  FakeManager manager;
  static VEX_MANAGER_PROTOCOL* link;
  link = &manager.protocol;
  ResetOutputState();
  InitDebugLevel(nullptr, nullptr, &link); // traces on: their formatting is exercised too
  char16_t level[] = u"2";
  SetDebugLevel(level);
  SetSelectedTestNumber(size > 0 ? int8_t(data[0]) % 9 : 0);

  std::u16string options;
  for (size_t i = 1; i + 1 < size; i += 2)
    options += char16_t(data[i] | (data[i + 1] << 8));
  // The number conversion on its own: the end it reports lies within the text.
  for (BOOLEAN hex : {FALSE, TRUE}) {
    const CHAR16* end = nullptr;
    StrToInteger(options.c_str(), &end, hex);
    if (end != nullptr && (end < options.c_str() || end > options.c_str() + options.size()))
      std::abort();
  }
  std::u16string copy = options;
  UINTN runTime = 0, result = 0, error = 0;
  VexGetTestRunTime(0, options.data(), &runTime, &result, &error);
  VexExecuteTest(0, copy.data(), &result, &error);
  if (!fw.pool.empty() || ParsedOptionCount() != 0)
    std::abort(); // a call must leave nothing behind
  ResetOutputState();
  return 0;
}
