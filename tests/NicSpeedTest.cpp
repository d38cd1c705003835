// NicSpeedTest: the NIC's PCI vendor and device ID are rated, by the table of known NICs, for the
// expected speed. A fleet adds its own NICs to the table in the network INI file beside the module:
//
//   [NIC_Speed]
//   8086:100E=0x80000003
//
// vendor and device ID, then the mask with the built-in rows' meaning, all hexadecimal. A row of the
// file comes before a built-in row for the same NIC.
#include "base/Number.h"
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "support/FileIo.h"
#include "tests/CommonOptions.h"
#include "tests/NicCheckRun.h"
#include "text/Ini.h"

EFI_STATUS NicSpeedTest(UINTN* Result, UINTN* ErrorCode);

struct NIC_SPEED_ENTRY {
  UINT16 VendorId;
  UINT16 DeviceId;
  UINT32 SpeedMask; // bit 0: rated for 10 Mbit/s; bit 1: for 100 and 1000 Mbit/s
};

// The rated speeds of the known NICs, the network INI file's rows first; 0 when the NIC is not in
// the table.
UINT32 LookupNicSpeedMask(UINT16 VendorId, UINT16 DeviceId);

namespace {

constexpr auto kOptions = DeclareOptions<NicTestOptions>(kRetriesOption, kTestRepeatsOption, kIndexOption,
                                                         kDeviceIdOption, kNetworkSpeedOption);

constexpr UINTN kGroup = TestErrorGroup(5);
constexpr UINTN kSpeedTestFailed = kGroup + 0x01;
constexpr ErrorMeaning kErrors[] = {{kSpeedTestFailed, u"the NIC speed test failed"}, {}};

constexpr NIC_SPEED_ENTRY kNicSpeedTable[] = {
    {0x10EC, 0x8168, 0x80000003}, // Realtek RTL8111/8168
};

constexpr const CHAR16* kSpeedSection = u"NIC_Speed";
// The section's rows without its own header line.
constexpr UINT32 kRowQuery =
    INI_CASE_INSENSITIVE | INI_TRIM | INI_NO_SECTIONS | INI_NO_COMMENT | INI_SKIP_EMPTY;

bool IsHexDigit(CHAR16 c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

const CHAR16* SkipBlanks(const CHAR16* p) {
  while (*p == u' ' || *p == u'\t')
    ++p;
  return p;
}

// One hexadecimal field of a row, at most Max, followed (after blanks) by Next.
bool ReadField(const CHAR16*& p, UINT64 max, CHAR16 next, UINT64* value) {
  p = SkipBlanks(p);
  if (!IsHexDigit(*p))
    return false;
  const CHAR16* end = nullptr;
  *value = StrToInteger(p, &end, TRUE);
  if (end == p || *value > max)
    return false;
  p = SkipBlanks(end);
  if (*p != next)
    return false;
  if (next != 0)
    ++p;
  return true;
}

// "VVVV:DDDD=MASK", all hexadecimal (the mask may begin with 0x).
bool ParseSpeedRow(const CHAR16* line, NIC_SPEED_ENTRY* row) {
  UINT64 vendor = 0, device = 0, mask = 0;
  const CHAR16* p = line;
  if (!ReadField(p, 0xFFFF, u':', &vendor) || !ReadField(p, 0xFFFF, u'=', &device) ||
      !ReadField(p, 0xFFFFFFFF, 0, &mask))
    return false;
  *row = {UINT16(vendor), UINT16(device), UINT32(mask)};
  return true;
}

// The mask the network INI file gives the NIC, 0 when it gives none. A malformed row is reported
// and skipped; a missing file or section adds nothing.
UINT32 FileSpeedMask(UINT16 VendorId, UINT16 DeviceId) {
  CHAR16 path[kFileIoPathChars];
  SPrint(path, sizeof(path), u"%s", kNetworkIni);
  FileIoResolveModulePath(path, sizeof(path));
  IniDocumentOwner doc;
  EFI_STATUS status = IniOpen(path, INI_ENCODING_DETECT, doc.Receive());
  if (EFI_ERROR(status)) {
    TracePrint(u"No rated speeds from %s (%r)\r\n", path, status);
    return 0;
  }
  IniStringsOwner rows;
  if (EFI_ERROR(IniSectionLines(doc.Get(), kSpeedSection, kRowQuery, rows)))
    return 0;
  UINT32 mask = 0;
  for (UINTN i = 0; i < rows.Count; ++i) {
    NIC_SPEED_ENTRY row = {};
    if (!ParseSpeedRow(rows.Strings[i], &row)) {
      LogPrint(u"%s [%s]: skipping \"%s\", not VVVV:DDDD=MASK\r\n", kNetworkIni, kSpeedSection,
               rows.Strings[i]);
      continue;
    }
    if (mask == 0 && row.VendorId == VendorId && row.DeviceId == DeviceId) {
      LogPrint(u"%s [%s]: %04x:%04x rated 0x%x\r\n", kNetworkIni, kSpeedSection, VendorId, DeviceId,
               row.SpeedMask);
      mask = row.SpeedMask;
    }
  }
  return mask;
}

// The check ends the run when it cannot read the NIC's identity: the module's own failure, or a
// NIC the table does not know (Unsupported).
CheckOutcome Ended(NicCheckRun& Run, const CHAR16* Message, EFI_STATUS Status) {
  if (Message != nullptr)
    LogPrint(Message);
  Run.End(Outcome::Failed(ERROR_CODE_SOFTWARE, Status));
  return CheckOutcome::Ended;
}

CheckOutcome CheckRatedSpeed(NicCheckRun& Run, EFI_HANDLE Nic) {
  PciLocation l = {};
  if (EFI_ERROR(GetNicPciLocation(Nic, &l)))
    return Ended(Run, u"Failed get device PCI location.\r\n", EFI_SUCCESS);
  UINT16 vendor = 0, device = 0;
  if (EFI_ERROR(PciConfigRead16(l.Segment, l.Bus, l.Device, l.Function, PCI_VENDOR_ID_OFFSET, &vendor)))
    return Ended(Run, u"Failed get device vendor id.\r\n", EFI_SUCCESS);
  if (EFI_ERROR(PciConfigRead16(l.Segment, l.Bus, l.Device, l.Function, PCI_DEVICE_ID_OFFSET, &device)))
    return Ended(Run, u"Failed get device device id.\r\n", EFI_SUCCESS);
  // The NIC's rating is looked up (and the network INI file read) once per run, not per check:
  // the run remembers the device it rated and its mask.
  UINT64 deviceKey = (UINT64(vendor) << 48) | (UINT64(device) << 32);
  UINT64& memo = Run.CheckMemo();
  UINT32 mask =
      memo != 0 && (memo & ~0xFFFFFFFFull) == deviceKey ? UINT32(memo) : LookupNicSpeedMask(vendor, device);
  memo = deviceKey | mask;
  if (mask == 0)
    return Ended(Run, nullptr, EFI_UNSUPPORTED);
  UINT64 speed = Run.Options().NetworkSpeed;
  bool rated = ((mask & 1) != 0 && speed <= 10) || ((mask & 2) != 0 && speed <= 1000);
  return rated ? CheckOutcome::Passed : CheckOutcome::Failed;
}

constexpr NicCheckTest kTest = {
    .Options = kOptions.Reader(),
    .Repeats = true,
    .WaitsForCable = false,
    .Check = CheckRatedSpeed,
    .PassText = u"Speed Test successed!\r\n",
    .FailText = u"Speed Test failed!\r\n",
    .FailCode = kSpeedTestFailed,
};

} // namespace

UINT32 LookupNicSpeedMask(UINT16 VendorId, UINT16 DeviceId) {
  if (UINT32 mask = FileSpeedMask(VendorId, DeviceId); mask != 0)
    return mask;
  for (const NIC_SPEED_ENTRY& e : kNicSpeedTable)
    if (e.VendorId == VendorId && e.DeviceId == DeviceId)
      return e.SpeedMask;
  return 0;
}

extern const TestInfo kNicSpeedTest = {
    .Name = u"NicSpeedTest",
    .Description = u"This test verifies the NIC speed.",
    .Options = kOptions.Rows,
    .Procedure = NicSpeedTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS NicSpeedTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<NicCheckRun>(Result, ErrorCode, kTest);
}
