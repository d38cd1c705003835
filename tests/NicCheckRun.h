// The run the MAC address, speed, NIC speed and IRQ tests share: their options, the NIC chosen
// among the managed-network handles by PCI device ID and position, and attempts of one or more
// checks of that NIC. Each of these tests is its options, its check and its closing lines.
#pragma once
#include "report/Attempts.h"
#include "report/TestRun.h"
#include "tests/CommonOptions.h"

class NicCheckRun;

// One check of the chosen NIC. Ended: the check ended the run itself (NicCheckRun::End).
enum class CheckOutcome { Passed, Failed, Ended };
using NicCheck = CheckOutcome (*)(NicCheckRun& Run, EFI_HANDLE Nic);

struct NicCheckTest {
  OptionReader<NicTestOptions> Options; // the test's declared options, read at the run's start
  // Each attempt reports 5 points once its NIC is chosen and splits the rest of its share over
  // -testrepeats checks; otherwise an attempt is one check and one report.
  bool Repeats;
  // Each attempt first waits for the cable, starting over while there is none: only the operator,
  // through the progress report, ends a wait for a cable that never comes.
  bool WaitsForCable;
  NicCheck Check;
  const CHAR16* PassText;
  const CHAR16* FailText;
  UINTN FailCode;
};

class NicCheckRun : public TestRun {
public:
  explicit NicCheckRun(const NicCheckTest& Test) : test_(Test) {}
  void Execute();
  const NicTestOptions& Options() const { return options_; }
  // What a test's check keeps from one check to the next within this run; 0 before the first.
  UINT64& CheckMemo() { return checkMemo_; }

private:
  // Starts the attempt and chooses its NIC; FALSE when the run ends there.
  bool StartAttempt(Attempts& Attempts, EFI_HANDLE* Nic);
  // The attempt's checks; FALSE when the run ends there.
  bool Check(Attempts& Attempts, EFI_HANDLE Nic);

  const NicCheckTest& test_;
  NicTestOptions options_;
  UINT64 checkMemo_ = 0;
};
