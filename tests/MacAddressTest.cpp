// macaddresstest: the NIC's permanent MAC address is neither zero, broadcast-like nor listed as
// invalid in the network INI file.
#include "base/Cxx.h"
#include "base/Globals.h"
#include "nic/NicAccess.h"
#include "nic/Pci.h"
#include "nic/ServiceChildren.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"
#include "support/FileIo.h"
#include "tests/CommonOptions.h"
#include "tests/NicTestFrame.h"
#include "text/Ini.h"
#include "text/Regex.h"

EFI_STATUS MacAddressTest(UINTN* Result, UINTN* ErrorCode);
EFI_STATUS VerifyMacAddress(CHAR16** Patterns, UINTN PatternCount, const EFI_MAC_ADDRESS* Mac,
                            BOOLEAN* Valid);

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

constexpr UINTN kGroup = TestErrorGroup(3);
constexpr UINTN kMacTestFailed = kGroup + 0x02;
constexpr UINT32 kPatternQuery =
    INI_CASE_INSENSITIVE | INI_TRIM | INI_VALUES_ONLY | INI_NO_COMMENT | INI_SKIP_EMPTY;
constexpr UINTN kMacTextChars = 32;

struct MacTestOptions {
  UINT64 Retries;
  UINT64 Index;
  UINT16 DeviceId;
  BOOLEAN VerifyInvalidMacPattern;
  CHAR16 NetworkFile[256];
};

EFI_STATUS ReadOptions(MacTestOptions& o) {
  EFI_STATUS status = ReadNicTestOption(u"-retries", &o.Retries);
  if (!EFI_ERROR(status))
    status = ReadNicTestOption(u"-index", &o.Index);
  if (!EFI_ERROR(status)) {
    status = GetOptionBoolean(u"-verifyinvalidmacpattern", &o.VerifyInvalidMacPattern, nullptr);
    if (EFI_ERROR(status))
      LogPrint(u"Failed to get value of option %s - %r\r\n", u"-verifyinvalidmacpattern", status);
  }
  if (!EFI_ERROR(status))
    status = ReadDeviceIdOption(&o.DeviceId);
  UINT64 file = 0;
  if (!EFI_ERROR(status))
    status = ReadNicTestOption(u"-NetworkFile", &file);
  if (EFI_ERROR(status))
    return status;
  if (file != 0) {
    SPrint(o.NetworkFile, sizeof(o.NetworkFile), u"%s",
           reinterpret_cast<const CHAR16*>(static_cast<UINTN>(file)));
    FileIoResolvePath(o.NetworkFile, sizeof(o.NetworkFile));
  }
  return EFI_SUCCESS;
}

// All zeros, or a first octet pair of FF FF (the broadcast address among them).
bool BuiltInInvalid(const EFI_MAC_ADDRESS& mac) {
  const UINT8* a = mac.Addr;
  bool zero = (a[0] | a[1] | a[2] | a[3] | a[4] | a[5]) == 0;
  return zero || (a[0] == 0xFF && a[1] == 0xFF);
}

// The patterns of the INI file's invalid-MAC section against the address; Valid when none matches.
EFI_STATUS CheckPatterns(const CHAR16* file, const EFI_MAC_ADDRESS& mac, BOOLEAN* valid) {
  INI_DOCUMENT* doc = nullptr;
  EFI_STATUS status = IniOpen(file, INI_ENCODING_DETECT, &doc);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed loading INI file.(%r)\r\n", status);
    return status;
  }
  wc::ScopeGuard close([&] { IniClose(doc); });
  UINTN count = 0;
  CHAR16** patterns = nullptr;
  status = IniQuery(doc, u"Invalid_MACPattern", u".*", nullptr, kPatternQuery, &count, &patterns);
  if (EFI_ERROR(status))
    return status;
  wc::ScopeGuard release([&] { IniFreeStrings(count, patterns); });
  return VerifyMacAddress(patterns, count, &mac, valid);
}

} // namespace

extern const TestInfo kMacAddressTest = {
    u"macaddresstest", u"This test verifies the NIC MAC address.", kOptions, MacAddressTest, 10, kGroup};

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

EFI_STATUS MacAddressTest(UINTN* Result, UINTN* ErrorCode) {
  RetryFrame::Open();
  // The default file name stands until the options give another.
  static constinit MacTestOptions o = {0, 1, 0, FALSE, u"Network.ini"};
  wc::ScopeGuard releaseTable([] { FreePciRootBridgeTable(); });
  if (EFI_ERROR(ReadOptions(o)) || EFI_ERROR(BuildPciRootBridgeTable())) {
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_SOFTWARE;
    return EFI_SUCCESS;
  }
  RetryFrame frame(o.Retries, Result, ErrorCode);
  for (; frame.More(); frame.Next()) {
    EFI_HANDLE nic = nullptr;
    EFI_STATUS status = EFI_SUCCESS;
    if (!StartNicAttempt(frame, o.DeviceId, o.Index, &nic, Result, ErrorCode, &status))
      return status;
    EFI_MAC_ADDRESS current = {}, permanent = {};
    status = ReadMacAddresses(gImageHandle, nic, &current, &permanent);
    if (EFI_ERROR(status) && status != EFI_NOT_STARTED) {
      LogPrint(u"Failed get NIC MAC Address!(%r)\r\n", status);
      return status;
    }
    const UINT8* a = permanent.Addr;
    TracePrint(u"%x-%x-%x-%x-%x-%x\r\n", a[0], a[1], a[2], a[3], a[4], a[5]);
    if (BuiltInInvalid(permanent))
      continue;
    BOOLEAN valid = TRUE;
    if (o.VerifyInvalidMacPattern) {
      status = CheckPatterns(o.NetworkFile, permanent, &valid);
      if (EFI_ERROR(status))
        return status;
    }
    if (valid)
      frame.Pass();
  }
  return frame.Close(u"MAC Address test successed!\r\n", u"MAC Address test failed!\r\n", kMacTestFailed);
}
