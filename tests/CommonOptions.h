// Option rows that several NIC tests share, word for word.
#pragma once
#include "options/Catalog.h"

inline constexpr OptionInfo kOptionsEnd = {};

inline constexpr OptionInfo kRetriesOption = {
    u"-retries", u"Number of retries in case of failure.", OPTION_TYPE_INTEGER, u"0", u"0", u"5", nullptr,
    FALSE};
inline constexpr OptionInfo kTestRepeatsOption = {u"-testrepeats",
                                                  u"The number of times to run the test.",
                                                  OPTION_TYPE_INTEGER,
                                                  u"1",
                                                  u"1",
                                                  u"50",
                                                  nullptr,
                                                  FALSE};
inline constexpr OptionInfo kIndexOption = {
    u"-index", u"Index of network card to test.", OPTION_TYPE_INTEGER, u"1", u"1", u"128", nullptr, FALSE};
inline constexpr OptionInfo kDeviceIdOption = {u"-DeviceID",
                                               u"DeviceID of Network controller to be tested.",
                                               OPTION_TYPE_STRING,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               FALSE};
inline constexpr OptionInfo kNetworkSpeedOption = {
    u"-NetworkSpeed", u"Expected speed in Mbps.", OPTION_TYPE_INTEGER, u"100", u"1", u"9999", nullptr, FALSE};
