// detectcable: one flag file per NIC that has a cable. The procedure is not part of this build
// yet; dispatch reports such a test as invalid.
#include "tests/CommonOptions.h"

namespace {
constexpr OptionInfo kOptions[] = {
    {u"-flagfiledir", u"Location of flags directory.", OPTION_TYPE_STRING, u"\\flags", nullptr, nullptr,
     nullptr, FALSE},
    {u"-flagfilename", u"Base name of the flag file.", OPTION_TYPE_STRING, u"Network", nullptr, nullptr,
     nullptr, FALSE},
    kOptionsEnd,
};
} // namespace

extern const TestInfo kDetectCableTest = {
    u"detectcable",
    u"This test is used to generate flag files depending on which network card and network cables are "
    u"connected.",
    kOptions,
    nullptr,
    10,
    TestErrorGroup(1)};
