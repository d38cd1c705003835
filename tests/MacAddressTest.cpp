// macaddresstest: the NIC's permanent MAC address is neither zero, broadcast-like nor listed as
// invalid. The procedure is not part of this build yet.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {
    kRetriesOption,
    kIndexOption,
    {u"-verifyinvalidmacpattern", u"Verify mac address with regular expression.", OPTION_TYPE_BOOLEAN,
     u"FALSE", nullptr, nullptr, nullptr, FALSE},
    kDeviceIdOption,
    {u"-NetworkFile", u"Specified network INI file.", OPTION_TYPE_STRING, u"Network.ini", nullptr, nullptr,
     nullptr, FALSE},
    kOptionsEnd,
};
} // namespace

extern const TestInfo kMacAddressTest = {
    u"macaddresstest", u"This test verifies the NIC MAC address.", kOptions, nullptr, 10, TestErrorGroup(3)};
