#include "options/Catalog.h"

namespace {

constexpr OptionInfo kEnd = {};

// Rows shared by the speed, NIC speed and IRQ tests.
constexpr OptionInfo kRetries5 = {
    u"-retries", u"Number of retries in case of failure.", OPTION_TYPE_INTEGER, u"0", u"0", u"5", nullptr,
    FALSE};
constexpr OptionInfo kTestRepeats = {u"-testrepeats",
                                     u"The number of times to run the test.",
                                     OPTION_TYPE_INTEGER,
                                     u"1",
                                     u"1",
                                     u"50",
                                     nullptr,
                                     FALSE};
constexpr OptionInfo kIndex = {
    u"-index", u"Index of network card to test.", OPTION_TYPE_INTEGER, u"1", u"1", u"128", nullptr, FALSE};
constexpr OptionInfo kDeviceId = {u"-DeviceID",
                                  u"DeviceID of Network controller to be tested.",
                                  OPTION_TYPE_STRING,
                                  nullptr,
                                  nullptr,
                                  nullptr,
                                  nullptr,
                                  FALSE};
constexpr OptionInfo kNetworkSpeed = {
    u"-NetworkSpeed", u"Expected speed in Mbps.", OPTION_TYPE_INTEGER, u"100", u"1", u"9999", nullptr, FALSE};

constexpr OptionInfo kPingOptions[] = {
    {u"-retries", u"Number of allowed retries in case of test failure.", OPTION_TYPE_INTEGER, u"0", u"0",
     u"5", nullptr, FALSE},
    {u"-testrepeats", u"The number of times to run the testing portion of the test, default is 1.",
     OPTION_TYPE_INTEGER, u"1", u"1", u"50", nullptr, FALSE},
    {u"-index",
     u"Index of network card to test, default is 1. This option is mutually exclusive from DevicePath "
     u"option.",
     OPTION_TYPE_INTEGER, u"1", u"1", u"128", nullptr, FALSE},
    {u"-devicepath",
     u"DevicePath of Network controller to be tested. This option is mutually exclusive from Index option.",
     OPTION_TYPE_STRING, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-dhcpping", u"Check if pinging the DHCP server. Default is true.", OPTION_TYPE_BOOLEAN, u"true",
     nullptr, nullptr, nullptr, FALSE},
    {u"-localping", u"Check if pinging the Local interface. Default is false.", OPTION_TYPE_BOOLEAN, u"false",
     nullptr, nullptr, nullptr, FALSE},
    kEnd,
};

constexpr OptionInfo kDetectCableOptions[] = {
    {u"-flagfiledir", u"Location of flags directory.", OPTION_TYPE_STRING, u"\\flags", nullptr, nullptr,
     nullptr, FALSE},
    {u"-flagfilename", u"Base name of the flag file.", OPTION_TYPE_STRING, u"Network", nullptr, nullptr,
     nullptr, FALSE},
    kEnd,
};

constexpr OptionInfo kInteractiveOptions[] = {
    {u"-Lang", u"Specify the language for prompt message.", OPTION_TYPE_STRING, u"eng", nullptr, nullptr,
     nullptr, FALSE},
    {u"-retries", u"Number of retries in case of failure.", OPTION_TYPE_INTEGER, u"0", u"0", u"10", nullptr,
     FALSE},
    kEnd,
};

constexpr OptionInfo kMacAddressOptions[] = {
    kRetries5,
    kIndex,
    {u"-verifyinvalidmacpattern", u"Verify mac address with regular expression.", OPTION_TYPE_BOOLEAN,
     u"FALSE", nullptr, nullptr, nullptr, FALSE},
    kDeviceId,
    {u"-NetworkFile", u"Specified network INI file.", OPTION_TYPE_STRING, u"Network.ini", nullptr, nullptr,
     nullptr, FALSE},
    kEnd,
};

constexpr OptionInfo kSpeedOptions[] = {
    kRetries5,
    kTestRepeats,
    kIndex,
    kDeviceId,
    kNetworkSpeed,
    {u"-PacketsCount", u"Count of packets to send.", OPTION_TYPE_INTEGER, u"5000", u"1000", u"99999", nullptr,
     FALSE},
    kEnd,
};

constexpr OptionInfo kNicSpeedOptions[] = {kRetries5, kTestRepeats, kIndex, kDeviceId, kNetworkSpeed, kEnd};

constexpr OptionInfo kIrqOptions[] = {kRetries5, kTestRepeats, kIndex, kDeviceId, kEnd};

} // namespace

const TestInfo kTestTable[kTestCount + 1] = {
    {u"pingtest", u"This test verifies the ability to transmit/receive data over network.", kPingOptions},
    {u"detectcable",
     u"This test is used to generate flag files depending on which network card and network cables are "
     u"connected.",
     kDetectCableOptions},
    {u"interactivenetworktest",
     u"This test will verifies the network interface controller is working properly.", kInteractiveOptions},
    {u"macaddresstest", u"This test verifies the NIC MAC address.", kMacAddressOptions},
    {u"SpeedTest", u"This test verifies the network speed.", kSpeedOptions},
    {u"NicSpeedTest", u"This test verifies the NIC speed.", kNicSpeedOptions},
    {u"IRQTest", u"This test verifies the NIC IRQ.", kIrqOptions},
    {nullptr, nullptr, nullptr},
};

const OptionInfo kGlobalOptions[] = {
    {u"-help", u"Print general or test usage.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-debug", u"Print debug traces.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-version", u"Print diagnostic's version.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr,
     FALSE},
    {u"-catalog", u"Print diagnostic's XML information.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr,
     nullptr, FALSE},
    kEnd,
};

const CHAR16* const kCatalogTypeNames[kOptionTypeCount] = {u"", u"string", u"integer", u"integer64",
                                                           u"boolean"};
const CHAR16* const kUsageTypeNames[kOptionTypeCount] = {u"", u"STR", u"INT", u"UINT64", u"BOOL"};

// Start-up writes the version text.
constinit ModuleInfo gModuleInfo = {u"Wirecheck", u"Wirecheck.efi", {}, kTestTable};
