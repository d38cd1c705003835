// NicSpeedTest: the NIC's PCI vendor and device ID are rated, by the table of known NICs, for the
// expected speed.
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/CommonOptions.h"
#include "tests/NicCheckRun.h"

EFI_STATUS NicSpeedTest(UINTN* Result, UINTN* ErrorCode);

struct NIC_SPEED_ENTRY {
  UINT16 VendorId;
  UINT16 DeviceId;
  UINT32 SpeedMask; // bit 0: rated for 10 Mbit/s; bit 1: for 100 and 1000 Mbit/s
};

// The rated speeds of the known NICs, 0 when the NIC is not in the table.
UINT32 LookupNicSpeedMask(UINT16 VendorId, UINT16 DeviceId);

namespace {

constexpr OptionInfo kOptions[] = {kRetriesOption,  kTestRepeatsOption,  kIndexOption,
                                   kDeviceIdOption, kNetworkSpeedOption, kOptionsEnd};

constexpr UINTN kGroup = TestErrorGroup(5);
constexpr UINTN kSpeedTestFailed = kGroup + 0x01;

constexpr NIC_SPEED_ENTRY kNicSpeedTable[] = {
    {0x10EC, 0x8168, 0x80000003}, // Realtek RTL8111/8168
};

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
  UINT32 mask = LookupNicSpeedMask(vendor, device);
  if (mask == 0)
    return Ended(Run, nullptr, EFI_UNSUPPORTED);
  UINT64 speed = Run.Options().NetworkSpeed;
  bool rated = ((mask & 1) != 0 && speed <= 10) || ((mask & 2) != 0 && speed <= 1000);
  return rated ? CheckOutcome::Passed : CheckOutcome::Failed;
}

constexpr NicCheckTest kTest = {
    .Reads = {NicOption::Retries, NicOption::TestRepeats, NicOption::Index, NicOption::DeviceId,
              NicOption::NetworkSpeed},
    .Repeats = true,
    .WaitsForCable = false,
    .Check = CheckRatedSpeed,
    .PassText = u"Speed Test successed!\r\n",
    .FailText = u"Speed Test failed!\r\n",
    .FailCode = kSpeedTestFailed,
};

} // namespace

UINT32 LookupNicSpeedMask(UINT16 VendorId, UINT16 DeviceId) {
  for (const NIC_SPEED_ENTRY& e : kNicSpeedTable)
    if (e.VendorId == VendorId && e.DeviceId == DeviceId)
      return e.SpeedMask;
  return 0;
}

extern const TestInfo kNicSpeedTest = {
    .Name = u"NicSpeedTest",
    .Description = u"This test verifies the NIC speed.",
    .Options = kOptions,
    .Procedure = NicSpeedTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
};

EFI_STATUS NicSpeedTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<NicCheckRun>(Result, ErrorCode, kTest);
}
