// interactivenetworktest: the operator picks a NIC, plugs the cable in, and the NIC's IPv4
// configuration is proven by a ping. The procedure is not part of this build yet.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {
    {u"-Lang", u"Specify the language for prompt message.", OPTION_TYPE_STRING, u"eng", nullptr, nullptr,
     nullptr, FALSE},
    {u"-retries", u"Number of retries in case of failure.", OPTION_TYPE_INTEGER, u"0", u"0", u"10", nullptr,
     FALSE},
    kOptionsEnd,
};
} // namespace

extern const TestInfo kInteractiveNetworkTest = {
    u"interactivenetworktest",
    u"This test will verifies the network interface controller is working properly.",
    kOptions,
    nullptr,
    60,
    TestErrorGroup(2)};
