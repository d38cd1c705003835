// The attempt frame of the NIC tests: attempts numbered 0 to Retries until one passes, a progress
// report at the start of each attempt and at each step within it, the operator's answer taken at
// every report, and the closing report.
//
//   RetryFrame frame(retries, Result, ErrorCode);
//   while (frame.More()) {
//     if (!frame.Begin()) return EFI_SUCCESS;       // operator cancelled or failed the test
//     ... check ...; frame.Pass() or frame.Fail();
//     if (!frame.Advance(points)) return EFI_SUCCESS;
//     frame.Next();
//   }
//   return frame.Close(u"... successed!\r\n", u"... failed!\r\n", kFailedCode);
#pragma once
#include "uefi/Base.h"

class RetryFrame {
public:
  RetryFrame(UINT64 Retries, UINTN* Result, UINTN* ErrorCode)
      : retries_(Retries), result_(Result), errorCode_(ErrorCode) {}

  // The first report of a run: 1 %, 10 s, no answer read.
  static void Open();

  // Another attempt is due: the attempt number is at most Retries and none has passed.
  bool More() const { return attempt_ <= retries_ && !passed_; }
  // Starts the current attempt: progress at Share() x attempt + 10 percent, and from the second
  // attempt on the line "Retry %d time(s)...". FALSE when the operator answered (result set).
  // Calling it again without Next() starts the same attempt over.
  bool Begin();
  // Adds Points to the percentage and reports; FALSE when the operator answered (result set).
  bool Advance(UINTN Points);
  void Next() { ++attempt_; }

  // The attempt's verdict so far: a passed check marks it passed, a failed one ends it failed.
  void Pass() { passed_ = true; }
  void Fail() { passed_ = false; }
  bool Passed() const { return passed_; }

  UINT64 Attempt() const { return attempt_; }
  UINTN Percent() const { return percent_; }
  // The percentage one attempt spans: 80 / (Retries + 1).
  UINTN Share() const { return UINTN(80 / (retries_ + 1)); }

  // Ends the run: the pass or fail line, the result and error code, then 99 % with 0 s left.
  EFI_STATUS Close(const CHAR16* PassText, const CHAR16* FailText, UINTN FailCode);

private:
  bool Report();

  UINT64 retries_;
  UINTN* result_;
  UINTN* errorCode_;
  UINT64 attempt_ = 0;
  UINTN percent_ = 0;
  bool passed_ = false;
};
