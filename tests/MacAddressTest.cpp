// macaddresstest: the NIC's permanent MAC address is neither zero, broadcast-like nor listed as
// invalid in the network INI file.
#include "base/Globals.h"
#include "base/Owners.h"
#include "nic/NicAccess.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"
#include "tests/CommonOptions.h"
#include "tests/NicCheckRun.h"
#include "text/Ini.h"
#include "text/Regex.h"

EFI_STATUS MacAddressTest(UINTN* Result, UINTN* ErrorCode);
EFI_STATUS VerifyMacAddress(CHAR16** Patterns, UINTN PatternCount, const EFI_MAC_ADDRESS* Mac,
                            BOOLEAN* Valid);

namespace {

// The file's path is made absolute from the current directory; an option with no value at all
// leaves the plain name.
constexpr auto kOptions = DeclareOptions<NicTestOptions>(
    kRetriesOption, kIndexOption,
    NicOptionDecl{{.Name = u"-verifyinvalidmacpattern",
                   .Description = u"Verify mac address with regular expression.",
                   .Type = OPTION_TYPE_BOOLEAN,
                   .Default = u"FALSE"},
                  [](NicTestOptions& o, const OptionRead& v) { return Store(o.VerifyInvalidMacPattern, v); }},
    kDeviceIdOption,
    NicOptionDecl{{.Name = u"-NetworkFile",
                   .Description = u"Specified network INI file.",
                   .Type = OPTION_TYPE_STRING,
                   .Default = kNetworkIni},
                  [](NicTestOptions& o, const OptionRead& v) {
                    const CHAR16* given = OptionText(v.Value);
                    SPrint(o.NetworkFile, sizeof(o.NetworkFile), u"%s",
                           given != nullptr ? given : kNetworkIni);
                    if (given != nullptr)
                      FileIoResolvePath(o.NetworkFile, sizeof(o.NetworkFile));
                    return EFI_SUCCESS;
                  }});

constexpr UINTN kGroup = TestErrorGroup(3);
constexpr UINTN kMacTestFailed = kGroup + 0x02;
constexpr ErrorMeaning kErrors[] = {{kMacTestFailed, u"the MAC address test failed"}, {}};
constexpr UINT32 kPatternQuery =
    INI_CASE_INSENSITIVE | INI_TRIM | INI_VALUES_ONLY | INI_NO_COMMENT | INI_SKIP_EMPTY;
constexpr UINTN kMacTextChars = 32;

// All zeros, or a first octet pair of FF FF (the broadcast address among them).
bool BuiltInInvalid(const EFI_MAC_ADDRESS& mac) {
  const UINT8* a = mac.Addr;
  bool zero = (a[0] | a[1] | a[2] | a[3] | a[4] | a[5]) == 0;
  return zero || (a[0] == 0xFF && a[1] == 0xFF);
}

// The patterns of the INI file's invalid-MAC section against the address; Valid when none matches.
EFI_STATUS CheckPatterns(const CHAR16* file, const EFI_MAC_ADDRESS& mac, BOOLEAN* valid) {
  IniDocumentOwner doc;
  EFI_STATUS status = IniOpen(file, INI_ENCODING_DETECT, doc.Receive());
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed loading INI file.(%r)\r\n", status);
    return status;
  }
  IniStringsOwner patterns;
  status = IniSectionLines(doc.Get(), u"Invalid_MACPattern", kPatternQuery, patterns);
  if (EFI_ERROR(status))
    return status;
  return VerifyMacAddress(patterns.Strings, patterns.Count, &mac, valid);
}

CheckOutcome CheckMacAddress(NicCheckRun& Run, EFI_HANDLE Nic) {
  EFI_MAC_ADDRESS current = {}, permanent = {};
  EFI_STATUS status = ReadMacAddresses(gImageHandle, Nic, &current, &permanent);
  if (EFI_ERROR(status) && status != EFI_NOT_STARTED) {
    LogPrint(u"Failed get NIC MAC Address!(%r)\r\n", status);
    Run.End(Outcome::Untouched(status));
    return CheckOutcome::Ended;
  }
  const UINT8* a = permanent.Addr;
  TracePrint(u"%x-%x-%x-%x-%x-%x\r\n", a[0], a[1], a[2], a[3], a[4], a[5]);
  if (BuiltInInvalid(permanent))
    return CheckOutcome::Failed;
  BOOLEAN valid = TRUE;
  if (Run.Options().VerifyInvalidMacPattern) {
    status = CheckPatterns(Run.Options().NetworkFile, permanent, &valid);
    if (EFI_ERROR(status)) {
      Run.End(Outcome::Untouched(status)); // a file that cannot be read decides nothing
      return CheckOutcome::Ended;
    }
  }
  return valid ? CheckOutcome::Passed : CheckOutcome::Failed;
}

constexpr NicCheckTest kTest = {
    .Options = kOptions.Reader(),
    .Repeats = false,
    .WaitsForCable = false,
    .Check = CheckMacAddress,
    .PassText = u"MAC Address test successed!\r\n",
    .FailText = u"MAC Address test failed!\r\n",
    .FailCode = kMacTestFailed,
};

} // namespace

extern const TestInfo kMacAddressTest = {
    .Name = u"macaddresstest",
    .Description = u"This test verifies the NIC MAC address.",
    .Options = kOptions.Rows,
    .Procedure = MacAddressTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS MacAddressTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<NicCheckRun>(Result, ErrorCode, kTest);
}

EFI_STATUS VerifyMacAddress(CHAR16** Patterns, UINTN PatternCount, const EFI_MAC_ADDRESS* Mac,
                            BOOLEAN* Valid) {
  if (Mac == nullptr || Valid == nullptr || (Patterns == nullptr && PatternCount != 0))
    return EFI_INVALID_PARAMETER;
  CHAR16 text[kMacTextChars];
  FormatMacText(*Mac, text, sizeof(text));
  *Valid = TRUE;
  for (UINTN i = 0; i < PatternCount; ++i) {
    BOOLEAN matched = FALSE;
    EFI_STATUS status = MatchingStringAndRegularExpression(text, Patterns[i], FALSE, &matched);
    if (EFI_ERROR(status))
      return status;
    LogPrint(u"Verify MAC \"%s\" with regex \"%s\", Matched = %s\r\n", text, Patterns[i],
             matched ? u"TRUE" : u"FALSE");
    if (matched) {
      *Valid = FALSE;
      break;
    }
  }
  return EFI_SUCCESS;
}
