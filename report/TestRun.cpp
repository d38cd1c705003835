#include "report/TestRun.h"
#include "report/Progress.h"

bool TestRun::Report(ProgressPoint At) {
  UINTN interrupt = 0;
  ProgressUpdate(At.Percent, At.Seconds, &interrupt);
  return interrupt == 0 || End(Outcome::Interrupted(interrupt));
}

void TestRun::Show(ProgressPoint At) {
  ProgressUpdate(At.Percent, At.Seconds, nullptr);
}
