// The options record of the NIC tests that share one run (MAC address, speed, NIC speed, IRQ), and
// the option declarations several of them share, word for word.
#pragma once
#include "base/Number.h"
#include "base/Print.h"
#include "options/Declared.h"
#include "support/FileIo.h"

// The network INI file's name: the MAC test's default for -NetworkFile (taken from the current
// directory, as that option's paths are) and the file of rated speeds beside the module.
inline constexpr const CHAR16* kNetworkIni = u"Network.ini";

struct NicTestOptions {
  UINT64 Retries = 0;
  UINT64 TestRepeats = 1;
  UINT64 Index = 1;
  UINT16 DeviceId = 0; // 0: any device
  UINT64 NetworkSpeed = 0;
  UINT64 PacketsCount = 0;
  BOOLEAN VerifyInvalidMacPattern = FALSE;
  CHAR16 NetworkFile[256] = {}; // absolute, once read
};

using NicOptionDecl = OptionDecl<NicTestOptions>;

inline constexpr NicOptionDecl kRetriesOption = {
    {.Name = u"-retries",
     .Description = u"Number of retries in case of failure.",
     .Type = OPTION_TYPE_INTEGER,
     .Default = u"0",
     .Low = u"0",
     .High = u"5"},
    [](NicTestOptions& o, const OptionRead& v) { return Store(o.Retries, v); }};
inline constexpr NicOptionDecl kTestRepeatsOption = {
    {.Name = u"-testrepeats",
     .Description = u"The number of times to run the test.",
     .Type = OPTION_TYPE_INTEGER,
     .Default = u"1",
     .Low = u"1",
     .High = u"50"},
    [](NicTestOptions& o, const OptionRead& v) { return Store(o.TestRepeats, v); }};
inline constexpr NicOptionDecl kIndexOption = {
    {.Name = u"-index",
     .Description = u"Index of network card to test.",
     .Type = OPTION_TYPE_INTEGER,
     .Default = u"1",
     .Low = u"1",
     .High = u"128"},
    [](NicTestOptions& o, const OptionRead& v) { return Store(o.Index, v); }};
// Hexadecimal text, kept to 16 bits; empty or missing is 0 (any device).
inline constexpr NicOptionDecl kDeviceIdOption = {
    {.Name = u"-DeviceID",
     .Description = u"DeviceID of Network controller to be tested.",
     .Type = OPTION_TYPE_STRING},
    [](NicTestOptions& o, const OptionRead& v) {
      const CHAR16* text = OptionText(v.Value);
      o.DeviceId = text != nullptr && text[0] != 0 ? UINT16(StrToInteger(text, nullptr, TRUE)) : 0;
      return EFI_SUCCESS;
    }};
inline constexpr NicOptionDecl kNetworkSpeedOption = {
    {.Name = u"-NetworkSpeed",
     .Description = u"Expected speed in Mbps.",
     .Type = OPTION_TYPE_INTEGER,
     .Default = u"100",
     .Low = u"1",
     .High = u"9999"},
    [](NicTestOptions& o, const OptionRead& v) { return Store(o.NetworkSpeed, v); }};
