// The upload round: after every call (and once more at the end), every results file to the run's
// folder on the fleet's web server, on whichever NIC reaches it, within a bound that no silent
// server stretches.
#pragma once
#include "manager/HttpPut.h"

constexpr UINTN kUploadAttempts = 3;     // tries of one file
constexpr UINT32 kUploadWaitMs = 10000;  // the longest wait for the request or the answer of one PUT
constexpr UINT64 kUploadRoundMs = 90000; // past this a round tries no more

// Where the results go and how the last round went.
struct UploadState {
  CHAR16 Folder[kUrlChars]; // URL/<machine>/<run>/; empty when nothing is uploaded
  bool InMemory;            // the manager's disk is a RAM disk (a network boot): gone at power-off
  EFI_HANDLE Service;       // the HTTP service binding that answered last; tried first
  bool Failed;              // the last round did not send every file
};

// What a round needs of the manager.
struct UploadHost {
  void* Context;
  // A results file beside the manager, whole, in pool that the round frees; an error when it is
  // not there (yet).
  EFI_STATUS (*ReadFile)(void* Context, const CHAR16* Name, void** Data, UINTN* Size);
};

// How a round ended.
struct UploadReport {
  bool Attempted;        // an upload URL is set
  UINTN Sent;            // files the server took
  const CHAR16* Stopped; // the file the round stopped at; null when every file got through
  PutOutcome Outcome;    // of the last PUT (of the stopped file's last try)
  bool OutOfTime;        // the round's bound ended it
};

// One round. A file is tried kUploadAttempts times, each try on the service that answered last and,
// when that one does not answer, on every other; the round stops at the first file that does not
// get through, and at kUploadRoundMs in all. The bound is a firmware timer that every wait of the
// round watches (the real-time clock and the time-stamp counter's frequency play no part: a machine
// may lack either, and a clock read between waits misses the firmware's time spent at raised TPL).
UploadReport UploadRound(UploadState& State, const UploadHost& Host);

// The screen's line for a round that stopped: the file, the status and answer, the folder, what an
// HTTPS failure says of the firmware's TLS, and where the results are now (Directory: the manager's).
void UploadFailureLine(const UploadState& State, const UploadReport& Report, const CHAR16* Directory,
                       CHAR16* Line, UINTN LineSize);
