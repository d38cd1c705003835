#include "report/Attempts.h"
#include "report/Output.h"

bool Attempts::Report() {
  return run_.Report(ProgressAt(percent_, 10));
}

bool Attempts::Begin() {
  percent_ = Share() * UINTN(number_) + 10;
  if (!Report())
    return false;
  if (number_ > 0)
    LogPrint(u"Retry %d time(s)...\r\n", number_);
  return true;
}

bool Attempts::Advance(UINTN Points) {
  percent_ += Points;
  return Report();
}

void Attempts::Close(const CHAR16* PassText, const CHAR16* FailText, UINTN FailCode) {
  LogPrint(passed_ ? PassText : FailText);
  run_.End(passed_ ? Outcome::Passed() : Outcome::Failed(FailCode));
  TestRun::Show({99, 0});
}
