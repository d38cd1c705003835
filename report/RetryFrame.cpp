#include "report/RetryFrame.h"
#include "report/Output.h"
#include "report/Progress.h"
#include "report/Results.h"

void RetryFrame::Open() {
  ProgressUpdate(1, 10, nullptr);
}

bool RetryFrame::Report() {
  UINTN interrupt = 0;
  UINTN percent = percent_ < 99 ? percent_ : 99;
  ProgressUpdate(percent_, (99 - percent) * 10 / 98, &interrupt);
  return !TakeInterrupt(interrupt, result_, errorCode_);
}

bool RetryFrame::Begin() {
  percent_ = Share() * UINTN(attempt_) + 10;
  if (!Report())
    return false;
  if (attempt_ > 0)
    LogPrint(u"Retry %d time(s)...\r\n", attempt_);
  return true;
}

bool RetryFrame::Advance(UINTN Points) {
  percent_ += Points;
  return Report();
}

EFI_STATUS RetryFrame::Close(const CHAR16* PassText, const CHAR16* FailText, UINTN FailCode) {
  LogPrint(passed_ ? PassText : FailText);
  *result_ = passed_ ? TEST_RESULT_PASSED : TEST_RESULT_FAILED;
  *errorCode_ = passed_ ? ERROR_CODE_NONE : FailCode;
  ProgressUpdate(99, 0, nullptr);
  return EFI_SUCCESS;
}
