// NicSpeedTest: the NIC's PCI identity is rated for the expected speed. The procedure is not part
// of this build yet.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {kRetriesOption,  kTestRepeatsOption,  kIndexOption,
                                   kDeviceIdOption, kNetworkSpeedOption, kOptionsEnd};
} // namespace

extern const TestInfo kNicSpeedTest = {
    u"NicSpeedTest", u"This test verifies the NIC speed.", kOptions, nullptr, 10, TestErrorGroup(5)};
