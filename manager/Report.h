// The calls of a boot-image run as CI systems and test dashboards read them: a JUnit XML and a JSON
// document, one case per call with its option string, the test's name, run time, result, error
// code, what the code means and status, and for a call that did not pass its last log lines.
#pragma once
#include "uefi/Base.h"

constexpr UINTN kReportLogLines = 12; // lines of a call's log kept with a case that did not pass
constexpr UINTN kReportLineChars = 200;

// The lines a call's module wrote, the last kReportLogLines of them.
struct ReportLogTail {
  CHAR16 Lines[kReportLogLines][kReportLineChars];
  UINTN Count; // lines seen since the last Clear (the ring holds the last ones)
  void Clear() { Count = 0; }
  // Takes a text of one or more lines (CR LF or LF); empty lines are left out.
  void Add(const CHAR16* Text);
};

struct ReportCase {
  const CHAR16* Options;
  UINTN Result; // a TestResult
  UINTN Error;
  EFI_STATUS Status;
  UINT64 Milliseconds;
  CHAR16* Log; // the call's last lines, LF-separated, for a call that did not pass (pool; may be null)
};

// Who ran the calls: the SMBIOS system UUID and serial number and the first NIC's MAC address.
struct ReportMachine {
  const CHAR16* Uuid;
  const CHAR16* Serial;
  const CHAR16* Mac;
};

// The name of a TestResult as the manager prints it.
const CHAR16* ResultName(UINTN Result);
// What an error code means, as the manager prints it ("unknown error code" for one nobody defines).
const CHAR16* ReportMeaning(UINTN Error);

// The tail's lines joined with LF, from pool (null when empty or out of memory).
CHAR16* JoinLogTail(const ReportLogTail& Tail);

// The documents as text; null when memory ran out. The caller frees them. With a machine, the
// JUnit suite carries it as properties and the JSON document as a "machine" object.
CHAR16* BuildJunitReport(const ReportCase* Cases, UINTN Count, const ReportMachine* Machine = nullptr);
CHAR16* BuildJsonReport(const ReportCase* Cases, UINTN Count, const ReportMachine* Machine = nullptr);
