// The results of VexRun's calls as they are kept and sent: the machine's identity, the RESULT
// lines of results.txt, results.xml and results.json rewritten after every call, and the upload
// round that sends them to a fleet's server.
#pragma once
#include "manager/Manager.h"

// The SMBIOS system UUID and serial number, and the first NIC's permanent MAC address.
void ReadMachineIdentity(MachineIdentity& Id);
// Says who the machine is (MACHINE line, on the screen and in results.txt).
void ShowMachine(const MachineIdentity& Id);

// A line in results.txt, flushed at once.
void WriteResultLine(const CHAR16* Line);
// One call in results.xml and results.json (both rewritten whole, so that they are complete
// documents whatever happens next).
void RecordCase(const CHAR16* Options, UINTN Result, UINTN Error, EFI_STATUS Status, UINT64 Milliseconds);
void FreeRecordedCases();

// The run's folder under the upload URL, named by the machine and the time the run started; a URL
// too long for the names under it turns the upload off, with one line saying so.
void PlanUpload(const CHAR16* Url, const MachineIdentity& Id);
// The upload round after a call (and once more at the end); a round that stops is said on the
// screen and in results.txt.
void SendResults();
