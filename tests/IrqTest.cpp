// IRQTest: the NIC's PCI interrupt line is set.
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/CommonOptions.h"
#include "tests/NicTestFrame.h"

EFI_STATUS IrqTest(UINTN* Result, UINTN* ErrorCode);

namespace {

constexpr OptionInfo kOptions[] = {kRetriesOption, kTestRepeatsOption, kIndexOption, kDeviceIdOption,
                                   kOptionsEnd};

constexpr UINTN kGroup = TestErrorGroup(6);
constexpr UINTN kIrqTestFailed = kGroup + 0x01;

CheckOutcome CheckInterruptLine(EFI_HANDLE Nic, const NicTestOptions&, UINTN* Result, UINTN* ErrorCode,
                                EFI_STATUS* Status) {
  PciLocation l = {};
  UINT8 line = 0;
  bool located = !EFI_ERROR(GetNicPciLocation(Nic, &l));
  if (!located ||
      EFI_ERROR(PciConfigRead8(l.Segment, l.Bus, l.Device, l.Function, PCI_INT_LINE_OFFSET, &line))) {
    LogPrint(located ? u"Failed get device vendor id.\r\n" : u"Failed get device PCI location.\r\n");
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_SOFTWARE;
    *Status = EFI_SUCCESS;
    return CheckOutcome::Ended;
  }
  LogPrint(u"PCI Location[%02x:%02x:%02x:%02x] Interrupt Number %d\r\n", l.Segment, l.Bus, l.Device,
           l.Function, line);
  return line != 0 ? CheckOutcome::Passed : CheckOutcome::Failed;
}

} // namespace

extern const TestInfo kIrqTest = {u"IRQTest", u"This test verifies the NIC IRQ.", kOptions, IrqTest, 10,
                                  kGroup};

EFI_STATUS IrqTest(UINTN* Result, UINTN* ErrorCode) {
  static constexpr NicTestSpec kSpec = {
      false,         false, false, CheckInterruptLine, u"IRQ Test successed!\r\n", u"IRQ Test failed!\r\n",
      kIrqTestFailed};
  return RunNicTest(kSpec, Result, ErrorCode);
}
