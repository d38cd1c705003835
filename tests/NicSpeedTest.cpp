// NicSpeedTest: the NIC's PCI vendor and device ID are rated, by the table of known NICs, for the
// expected speed.
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/CommonOptions.h"
#include "tests/NicTestFrame.h"

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

CheckOutcome Ended(UINTN* Result, UINTN* ErrorCode, EFI_STATUS* Status, EFI_STATUS status) {
  *Result = TEST_RESULT_FAILED;
  *ErrorCode = ERROR_CODE_SOFTWARE;
  *Status = status;
  return CheckOutcome::Ended;
}

CheckOutcome CheckRatedSpeed(EFI_HANDLE Nic, const NicTestOptions& o, UINTN* Result, UINTN* ErrorCode,
                             EFI_STATUS* Status) {
  PciLocation l = {};
  if (EFI_ERROR(GetNicPciLocation(Nic, &l))) {
    LogPrint(u"Failed get device PCI location.\r\n");
    return Ended(Result, ErrorCode, Status, EFI_SUCCESS);
  }
  UINT16 vendor = 0, device = 0;
  if (EFI_ERROR(PciConfigRead16(l.Segment, l.Bus, l.Device, l.Function, PCI_VENDOR_ID_OFFSET, &vendor))) {
    LogPrint(u"Failed get device vendor id.\r\n");
    return Ended(Result, ErrorCode, Status, EFI_SUCCESS);
  }
  if (EFI_ERROR(PciConfigRead16(l.Segment, l.Bus, l.Device, l.Function, PCI_DEVICE_ID_OFFSET, &device))) {
    LogPrint(u"Failed get device device id.\r\n");
    return Ended(Result, ErrorCode, Status, EFI_SUCCESS);
  }
  UINT32 mask = LookupNicSpeedMask(vendor, device);
  if (mask == 0)
    return Ended(Result, ErrorCode, Status, EFI_UNSUPPORTED); // a NIC the table does not know
  bool rated = ((mask & 1) != 0 && o.NetworkSpeed <= 10) || ((mask & 2) != 0 && o.NetworkSpeed <= 1000);
  return rated ? CheckOutcome::Passed : CheckOutcome::Failed;
}

} // namespace

UINT32 LookupNicSpeedMask(UINT16 VendorId, UINT16 DeviceId) {
  for (const NIC_SPEED_ENTRY& e : kNicSpeedTable)
    if (e.VendorId == VendorId && e.DeviceId == DeviceId)
      return e.SpeedMask;
  return 0;
}

extern const TestInfo kNicSpeedTest = {
    u"NicSpeedTest", u"This test verifies the NIC speed.", kOptions, NicSpeedTest, 10, kGroup};

EFI_STATUS NicSpeedTest(UINTN* Result, UINTN* ErrorCode) {
  static constexpr NicTestSpec kSpec = {true,
                                        false,
                                        false,
                                        CheckRatedSpeed,
                                        u"Speed Test successed!\r\n",
                                        u"Speed Test failed!\r\n",
                                        kSpeedTestFailed};
  return RunNicTest(kSpec, Result, ErrorCode);
}
