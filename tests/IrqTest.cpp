// IRQTest: the NIC's PCI interrupt line is set. The procedure is not part of this build yet.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {kRetriesOption, kTestRepeatsOption, kIndexOption, kDeviceIdOption,
                                   kOptionsEnd};
} // namespace

extern const TestInfo kIrqTest = {u"IRQTest",       u"This test verifies the NIC IRQ.", kOptions, nullptr, 10,
                                  TestErrorGroup(6)};
