// What the MAC address, speed, NIC speed and IRQ tests share beyond the retry frame: their options,
// the choice of the NIC among the managed-network handles by PCI device ID and position, and the
// frame of attempts and repeats around one check.
#pragma once
#include "report/RetryFrame.h"
#include "uefi/Base.h"

struct NicTestOptions {
  UINT64 Retries;
  UINT64 TestRepeats;
  UINT64 Index;
  UINT16 DeviceId;
  UINT64 NetworkSpeed;
  UINT64 PacketsCount;
};

// Reads one option with GetOptionValue; a failure is logged with the option's name.
EFI_STATUS ReadNicTestOption(const CHAR16* Name, UINT64* Value);
// -DeviceID: hexadecimal text, kept to 16 bits; an empty or missing text is 0 (any device).
EFI_STATUS ReadDeviceIdOption(UINT16* DeviceId);

// Finds the managed-network handles and chooses the NIC by DeviceId and Index. FALSE when the test
// ends here: no handle (Failed, 0x80160103), no such NIC (Failed, 0x80160104), both with
// *Status EFI_SUCCESS; or another lookup failure, whose status is in *Status (result untouched).
bool ChooseNic(UINT16 DeviceId, UINT64 Index, EFI_HANDLE* Nic, UINTN* Result, UINTN* ErrorCode,
               EFI_STATUS* Status);

// Starts the frame's current attempt and chooses its NIC. FALSE when the run ends here: the
// operator answered at the progress report, or ChooseNic ended it; *Status is what to return.
bool StartNicAttempt(RetryFrame& Frame, UINT16 DeviceId, UINT64 Index, EFI_HANDLE* Nic, UINTN* Result,
                     UINTN* ErrorCode, EFI_STATUS* Status);

// One check of a PCI test on the chosen NIC.
enum class CheckOutcome {
  Passed,
  Failed,
  Ended, // the test ends now, with the result, error code and *Status the check set
};
using NicCheck = CheckOutcome (*)(EFI_HANDLE Nic, const NicTestOptions& Options, UINTN* Result,
                                  UINTN* ErrorCode, EFI_STATUS* Status);

// How a NIC test runs in the shared frame.
struct NicTestSpec {
  bool WithSpeed;     // reads -NetworkSpeed
  bool WithPackets;   // reads -PacketsCount
  bool WaitsForCable; // each attempt first waits for the cable, starting over while there is none
  NicCheck Check;
  const CHAR16* PassText;
  const CHAR16* FailText;
  UINTN FailCode;
};

// The speed, NIC speed and IRQ tests: options, the root-bridge table, then attempts of TestRepeats
// checks each, and the closing lines.
EFI_STATUS RunNicTest(const NicTestSpec& Spec, UINTN* Result, UINTN* ErrorCode);
