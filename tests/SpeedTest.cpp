// SpeedTest: transmit throughput of one NIC through the managed network. The procedure is not
// part of this build yet.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {
    kRetriesOption,
    kTestRepeatsOption,
    kIndexOption,
    kDeviceIdOption,
    kNetworkSpeedOption,
    {u"-PacketsCount", u"Count of packets to send.", OPTION_TYPE_INTEGER, u"5000", u"1000", u"99999", nullptr,
     FALSE},
    kOptionsEnd,
};
} // namespace

extern const TestInfo kSpeedTest = {
    u"SpeedTest", u"This test verifies the network speed.", kOptions, nullptr, 10, TestErrorGroup(4)};
