// The attempts of the NIC tests: numbered 0 to Retries until one passes. Each begins with a
// progress report at Share() x attempt + 10 percent, with (99 - percent) x 10 / 98 seconds left,
// and from the second on with the line "Retry %d time(s)..."; the checks within an attempt add to
// the percentage. The operator's answer at any report ends the run.
//
//   Attempts attempts(run, retries);
//   for (; attempts.More(); attempts.Next()) {
//     if (!attempts.Begin()) return;                 // the operator answered
//     ... check ...; attempts.Pass() or attempts.Fail();
//     if (!attempts.Advance(points)) return;
//   }
//   attempts.Close(u"... successed!\r\n", u"... failed!\r\n", kFailedCode);
#pragma once
#include "report/TestRun.h"

class Attempts {
public:
  // The first report of a run, before its options are read.
  static constexpr ProgressPoint kOpening = ProgressAt(1, 10);

  Attempts(TestRun& Run, UINT64 Retries) : run_(Run), retries_(Retries) {}

  // Another attempt is due: its number is at most Retries and none has passed.
  bool More() const { return number_ <= retries_ && !passed_; }
  // Starts the current attempt; FALSE when the operator answered. Called again without Next(), it
  // starts the same attempt over.
  bool Begin();
  // Adds Points to the percentage and reports; FALSE when the operator answered.
  bool Advance(UINTN Points);
  void Next() { ++number_; }

  // The attempt's verdict so far: a passed check marks it passed, a failed one ends it failed.
  void Pass() { passed_ = true; }
  void Fail() { passed_ = false; }

  // The percentage one attempt spans: 80 / (Retries + 1).
  UINTN Share() const { return UINTN(80 / (retries_ + 1)); }

  // Ends the run: the pass or fail line, Passed or Failed with FailCode, then 99 % with 0 s left.
  void Close(const CHAR16* PassText, const CHAR16* FailText, UINTN FailCode);

private:
  bool Report();

  TestRun& run_;
  UINT64 retries_;
  UINT64 number_ = 0;
  UINTN percent_ = 0;
  bool passed_ = false;
};
