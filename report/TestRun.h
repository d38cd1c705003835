// The shape of every test procedure: a run object whose steps read top to bottom in the order the
// test runs. A step returns FALSE when the run ends there, after setting how through End(); the
// procedure then hands that outcome to the manager.
//
//   class MyRun : public TestRun {
//   public:
//     void Execute() {
//       Show(kStart);
//       if (ReadOptions() && Report(kOptionsRead) && Check())
//         End(Outcome::Passed());
//     }
//   };
//   EFI_STATUS MyTest(UINTN* Result, UINTN* ErrorCode) { return RunTest<MyRun>(Result, ErrorCode); }
#pragma once
#include "report/Results.h"

// A place in a test's progress: percent done and seconds remaining. Each test keeps its own
// positions as data beside its steps.
struct ProgressPoint {
  UINTN Percent;
  UINTN Seconds;
};

// The progress arithmetic every test uses. A position on a test's line: Horizon seconds stand for
// the 98 points from 1 % to 99 %, so the seconds left are (99 - percent) x Horizon / 98 (a position
// past 99 % has none left).
constexpr ProgressPoint ProgressAt(UINTN Percent, UINTN Horizon) {
  return {Percent, (99 - (Percent < 99 ? Percent : 99)) * Horizon / 98};
}
// One of Steps equal steps over 100 % and Horizon seconds: 100 / Steps points on, Horizon / Steps
// seconds off (never below 0).
constexpr ProgressPoint ProgressStep(ProgressPoint At, UINTN Steps, UINTN Horizon) {
  UINTN less = Horizon / Steps;
  return {At.Percent + 100 / Steps, At.Seconds > less ? At.Seconds - less : 0};
}

// How a run ends: the test result, the error code beside it, and the status the procedure returns
// (did the module's own code work). Where a test reports a firmware failure by the status alone,
// the outcome leaves the caller's result and error code as they were.
class Outcome {
public:
  static constexpr Outcome Passed() { return Outcome(TEST_RESULT_PASSED, ERROR_CODE_NONE, EFI_SUCCESS); }
  static constexpr Outcome Failed(UINTN ErrorCode, EFI_STATUS Status = EFI_SUCCESS) {
    return Outcome(TEST_RESULT_FAILED, ErrorCode, Status);
  }
  static constexpr Outcome Ended(UINTN Result, UINTN ErrorCode, EFI_STATUS Status = EFI_SUCCESS) {
    return Outcome(Result, ErrorCode, Status);
  }
  static constexpr Outcome Untouched(EFI_STATUS Status) {
    Outcome o(TEST_RESULT_IN_PROGRESS, ERROR_CODE_NONE, Status);
    o.touches_ = false;
    return o;
  }
  // The operator's answer at a progress report becomes the result: 2 cancels the test, 3 fails it
  // with ERROR_CODE_OPERATOR_ABORT.
  static constexpr Outcome Interrupted(UINTN Interrupt) {
    return Outcome(Interrupt, Interrupt == TEST_RESULT_FAILED ? ERROR_CODE_OPERATOR_ABORT : ERROR_CODE_NONE,
                   EFI_SUCCESS);
  }

  UINTN Result() const { return result_; }
  UINTN ErrorCode() const { return errorCode_; }
  EFI_STATUS Status() const { return status_; }

  EFI_STATUS Deliver(UINTN* Result, UINTN* ErrorCode) const {
    if (touches_) {
      *Result = result_;
      *ErrorCode = errorCode_;
    }
    return status_;
  }

private:
  constexpr Outcome(UINTN Result, UINTN ErrorCode, EFI_STATUS Status)
      : result_(Result), errorCode_(ErrorCode), status_(Status) {}
  UINTN result_;
  UINTN errorCode_;
  EFI_STATUS status_;
  bool touches_ = true;
};

class TestRun {
public:
  // A progress report that takes the operator's answer: FALSE when the operator cancelled or
  // failed the test, and the run then ends with that answer.
  bool Report(ProgressPoint At);
  // A progress report that reads no answer (a run's first and last).
  static void Show(ProgressPoint At);
  // Ends the run with this outcome. Always FALSE, so that a step can end the run with
  // "return End(...)".
  bool End(const Outcome& How) {
    outcome_ = How;
    return false;
  }
  const Outcome& Ending() const { return outcome_; }
  EFI_STATUS Deliver(UINTN* Result, UINTN* ErrorCode) const { return outcome_.Deliver(Result, ErrorCode); }

protected:
  TestRun() = default;
  TestRun(const TestRun&) = delete;
  TestRun& operator=(const TestRun&) = delete;

private:
  // A run whose steps forget to say how it ended is the module's own failure.
  Outcome outcome_ = Outcome::Failed(ERROR_CODE_SOFTWARE);
};

// A test procedure made of one run: builds it from Args, executes it and delivers its outcome.
template <class Run, class... A> EFI_STATUS RunTest(UINTN* Result, UINTN* ErrorCode, const A&... Args) {
  Run run(Args...);
  run.Execute();
  return run.Deliver(Result, ErrorCode);
}
