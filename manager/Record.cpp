#include "manager/Record.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "manager/Console.h"
#include "manager/ManagerFiles.h"
#include "report/Results.h"
#include "support/Clock.h"
#include "support/Platform.h"
#include "uefi/protocol/SimpleNetwork.h"

void ReadMachineIdentity(MachineIdentity& Id) {
  StrCopy(Id.Uuid, sizeof(Id.Uuid), u"unknown");
  StrCopy(Id.Serial, sizeof(Id.Serial), u"unknown");
  StrCopy(Id.Mac, sizeof(Id.Mac), u"unknown");
  const SMBIOS_STRUCTURE** systems = nullptr;
  UINT16 count = 0;
  if (!EFI_ERROR(SmbiosGetStructures(1, &systems, &count))) {
    const SMBIOS_STRUCTURE* system = systems[0];
    const auto* bytes = reinterpret_cast<const UINT8*>(system);
    if (system->Length >= 0x19) {
      UINT8 uuid[16];
      CopyMem(uuid, bytes + 8, sizeof(uuid));
      Id.HasUuid = FormatSystemUuid(uuid, Id.Uuid, sizeof(Id.Uuid));
      if (!Id.HasUuid)
        StrCopy(Id.Uuid, sizeof(Id.Uuid), u"unknown");
    }
    if (system->Length > 7)
      if (const CHAR8* serial = SmbiosGetString(system, bytes[7]); serial != nullptr && serial[0] != 0)
        AsciiToUnicode(Id.Serial, sizeof(Id.Serial), serial);
    FreePool(systems);
  }
  wc::HandleBuffer nics;
  for (UINTN i = 0; !EFI_ERROR(nics.Locate(EFI_SIMPLE_NETWORK_PROTOCOL_GUID)) && i < nics.Count(); ++i) {
    EFI_SIMPLE_NETWORK_PROTOCOL* snp = nullptr;
    if (EFI_ERROR(gBS->HandleProtocol(nics[i], &EFI_SIMPLE_NETWORK_PROTOCOL_GUID,
                                      reinterpret_cast<void**>(&snp))) ||
        snp->Mode == nullptr)
      continue;
    const UINT8* a = snp->Mode->PermanentAddress.Addr;
    SPrint(Id.Mac, sizeof(Id.Mac), u"%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
    StrToLower(Id.Mac); // the print routine writes upper-case digits
    break;
  }
}

void ShowMachine(const MachineIdentity& Id) {
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), u"MACHINE uuid=%s serial=%s mac=%s\r\n", Id.Uuid, Id.Serial, Id.Mac);
  Show(line);
  WriteText(gManager->Results, line);
}

void WriteResultLine(const CHAR16* Line) {
  if (gManager->Results == nullptr)
    return;
  WriteText(gManager->Results, Line);
  gManager->Results->Flush(gManager->Results);
}

void RecordCase(const CHAR16* Options, UINTN Result, UINTN Error, EFI_STATUS Status, UINT64 Milliseconds) {
  ManagerState& s = *gManager;
  if (!s.Reports || s.CaseCount == kMaxCalls)
    return;
  s.Cases[s.CaseCount++] = {StrDuplicate(Options),
                            Result,
                            Error,
                            Status,
                            Milliseconds,
                            Result == TEST_RESULT_PASSED ? nullptr : JoinLogTail(s.Tail)};
  ReportMachine machine = {s.Machine.Uuid, s.Machine.Serial, s.Machine.Mac};
  const ReportMachine* named = s.KnowsMachine ? &machine : nullptr;
  WriteDocument(u"results.xml", BuildJunitReport(s.Cases, s.CaseCount, named));
  WriteDocument(u"results.json", BuildJsonReport(s.Cases, s.CaseCount, named));
}

void FreeRecordedCases() {
  for (UINTN i = 0; i < gManager->CaseCount; ++i) {
    FreePool(const_cast<CHAR16*>(gManager->Cases[i].Options));
    FreePool(gManager->Cases[i].Log);
  }
  gManager->CaseCount = 0;
}

void PlanUpload(const CHAR16* Url, const MachineIdentity& Id) {
  CHAR16 machine[kMachineChars];
  if (Id.HasUuid) {
    StrCopy(machine, sizeof(machine), Id.Uuid);
  } else { // no UUID in the tables: the MAC address names the machine
    SPrint(machine, sizeof(machine), u"mac-%s", Id.Mac);
    for (CHAR16* c = machine; *c != 0; ++c)
      if (*c == u':')
        *c = u'-';
  }
  EFI_TIME now = {};
  gRT->GetTime(&now, nullptr);
  auto tag = UINT16(ReadTimeStampCounter() % 100000);
  UploadState& u = gManager->Upload;
  if (!UploadFolder(Url, machine, now, tag, u.Folder, sizeof(u.Folder))) {
    u.Folder[0] = 0;
    CHAR16 line[kLineChars];
    SPrint(
        line, sizeof(line),
        u"UPLOAD state=off: the URL %s is too long (with the machine, run and file names under it, at most "
        u"%d characters): nothing is sent, the results stay on this machine\r\n",
        Url, kUrlChars - 1);
    Show(line, EFI_LIGHTRED);
    WriteResultLine(line);
    return;
  }
  Say(u"UPLOAD to=%s\r\n", u.Folder);
}

namespace {

EFI_STATUS ReadForUpload(void*, const CHAR16* name, void** data, UINTN* size) {
  return ReadFileBytes(name, data, size);
}

} // namespace

void SendResults() {
  UploadState& u = gManager->Upload;
  bool failedBefore = u.Failed;
  UploadReport report = UploadRound(u, {nullptr, ReadForUpload});
  if (!report.Attempted)
    return;
  if (report.Stopped == nullptr) {
    if (failedBefore)
      Say(u"UPLOAD state=ok files=%d (the server takes the results again)\r\n", report.Sent);
    return;
  }
  CHAR16 line[kLineChars];
  UploadFailureLine(u, report, gManager->Dir, line, sizeof(line));
  Show(line, EFI_LIGHTRED);
  WriteResultLine(line);
}
