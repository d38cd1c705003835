// IRQTest: the NIC's PCI interrupt line is set.
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/CommonOptions.h"
#include "tests/NicCheckRun.h"

EFI_STATUS IrqTest(UINTN* Result, UINTN* ErrorCode);

namespace {

constexpr auto kOptions =
    DeclareOptions<NicTestOptions>(kRetriesOption, kTestRepeatsOption, kIndexOption, kDeviceIdOption);

constexpr UINTN kGroup = TestErrorGroup(6);
constexpr UINTN kIrqTestFailed = kGroup + 0x01;
constexpr ErrorMeaning kErrors[] = {{kIrqTestFailed, u"the IRQ test failed"}, {}};

// What the PCI specification gives as "unknown or no connection". EDK2's PCI bus driver writes it to
// every function it finds; x86 platform code then writes the routed IRQ, while machines whose
// interrupts the device tree or ACPI describes (Arm servers) leave it. The check still passes on it
// (the line is not 0), but the log must not let it read as an IRQ number.
constexpr UINT8 kLineUnknown = 0xFF;

CheckOutcome CheckInterruptLine(NicCheckRun& Run, EFI_HANDLE Nic) {
  PciLocation l = {};
  UINT8 line = 0;
  bool located = !EFI_ERROR(GetNicPciLocation(Nic, &l));
  if (!located ||
      EFI_ERROR(PciConfigRead8(l.Segment, l.Bus, l.Device, l.Function, PCI_INT_LINE_OFFSET, &line))) {
    LogPrint(located ? u"Failed get device vendor id.\r\n" : u"Failed get device PCI location.\r\n");
    Run.End(Outcome::Failed(ERROR_CODE_SOFTWARE));
    return CheckOutcome::Ended;
  }
  LogPrint(u"PCI Location[%02x:%02x:%02x:%02x] Interrupt Number %d\r\n", l.Segment, l.Bus, l.Device,
           l.Function, line);
  if (line == kLineUnknown)
    LogPrint(u"Interrupt line 0xFF is \"unknown or no connection\": the firmware routed no legacy IRQ to "
             u"the NIC (on Arm machines the device tree or ACPI gives its interrupt); the test checks only "
             u"that the line is not 0\r\n");
  return line != 0 ? CheckOutcome::Passed : CheckOutcome::Failed;
}

constexpr NicCheckTest kTest = {
    .Options = kOptions.Reader(),
    .Repeats = true,
    .WaitsForCable = false,
    .Check = CheckInterruptLine,
    .PassText = u"IRQ Test successed!\r\n",
    .FailText = u"IRQ Test failed!\r\n",
    .FailCode = kIrqTestFailed,
};

} // namespace

extern const TestInfo kIrqTest = {
    .Name = u"IRQTest",
    .Description = u"This test verifies the NIC IRQ.",
    .Options = kOptions.Rows,
    .Procedure = IrqTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS IrqTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<NicCheckRun>(Result, ErrorCode, kTest);
}
