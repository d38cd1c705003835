// Option rows that several NIC tests share, word for word.
#pragma once
#include "options/Catalog.h"

inline constexpr OptionInfo kOptionsEnd = {};

inline constexpr OptionInfo kRetriesOption = {.Name = u"-retries",
                                              .Description = u"Number of retries in case of failure.",
                                              .Type = OPTION_TYPE_INTEGER,
                                              .Default = u"0",
                                              .Low = u"0",
                                              .High = u"5"};
inline constexpr OptionInfo kTestRepeatsOption = {.Name = u"-testrepeats",
                                                  .Description = u"The number of times to run the test.",
                                                  .Type = OPTION_TYPE_INTEGER,
                                                  .Default = u"1",
                                                  .Low = u"1",
                                                  .High = u"50"};
inline constexpr OptionInfo kIndexOption = {.Name = u"-index",
                                            .Description = u"Index of network card to test.",
                                            .Type = OPTION_TYPE_INTEGER,
                                            .Default = u"1",
                                            .Low = u"1",
                                            .High = u"128"};
inline constexpr OptionInfo kDeviceIdOption = {.Name = u"-DeviceID",
                                               .Description = u"DeviceID of Network controller to be tested.",
                                               .Type = OPTION_TYPE_STRING};
inline constexpr OptionInfo kNetworkSpeedOption = {.Name = u"-NetworkSpeed",
                                                   .Description = u"Expected speed in Mbps.",
                                                   .Type = OPTION_TYPE_INTEGER,
                                                   .Default = u"100",
                                                   .Low = u"1",
                                                   .High = u"9999"};
