#include "manager/Upload.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "base/String.h"

namespace {

struct UploadFile {
  const CHAR16* name;
  const CHAR8* type;
};
constexpr UploadFile kUploadFiles[] = {
    {u"results.txt", "text/plain; charset=utf-8"}, {u"results.xml", "application/xml"},
    {u"results.json", "application/json"},         {u"VexRun.log", "text/plain; charset=utf-8"},
    {u"Debug.log", "text/plain; charset=utf-16"}, // the module writes its log in UCS-2
};

// One PUT of a file: on the service that answered last, then on each other one until one answers.
PutOutcome PutOnServices(UploadState& state, const wc::HandleBuffer& services, const WaitBound& bound,
                         const CHAR16* url, const UploadFile& file, const void* body, UINTN size) {
  PutOutcome outcome;
  outcome.Status = EFI_NOT_FOUND;
  EFI_HANDLE last = state.Service;
  for (UINTN i = 0; i <= services.Count() && !bound.Over(); ++i) {
    EFI_HANDLE service = i == 0 ? last : services[i - 1];
    if (service == nullptr || (i > 0 && service == last))
      continue;
    outcome = HttpPut(service, url, file.type, body, size, kUploadWaitMs, &bound);
    if (outcome.Answered) {
      state.Service = service;
      return outcome;
    }
  }
  return outcome;
}

// A pause between two tries of a file, which ends early when the round's bound is over.
void Pause(UINT64 milliseconds, const WaitBound& bound) {
  wc::EventOwner timer;
  if (EFI_ERROR(timer.Create(EVT_TIMER)) ||
      EFI_ERROR(gBS->SetTimer(timer.Get(), TimerRelative, milliseconds * 10000))) {
    gBS->Stall(UINTN(milliseconds) * 1000);
    return;
  }
  while (!bound.Over() && gBS->CheckEvent(timer.Get()) != EFI_SUCCESS) {
  }
}

} // namespace

UploadReport UploadRound(UploadState& State, const UploadHost& Host) {
  UploadReport report = {};
  if (State.Folder[0] == 0)
    return report;
  report.Attempted = true;
  ReleaseFinishedExchanges();
  wc::HandleBuffer services;
  EFI_STATUS status = services.Locate(EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID);
  WaitBound bound;
  bound.Start(kUploadRoundMs); // without a timer each wait still ends by its own time-out
  if (EFI_ERROR(status)) {
    report.Outcome.Status = status;
    report.Stopped = kUploadFiles[0].name;
    State.Failed = true;
    return report;
  }
  for (const UploadFile& file : kUploadFiles) {
    wc::PoolPtr<UINT8> data;
    UINTN size = 0;
    if (EFI_ERROR(Host.ReadFile(Host.Context, file.name, reinterpret_cast<void**>(data.Receive()), &size)))
      continue; // not written (yet): the module's log before its first line, say
    CHAR16 url[kUrlChars];
    SPrint(url, sizeof(url), u"%s%s", State.Folder, file.name); // fits: the folder was planned for it
    report.Outcome = {EFI_TIMEOUT, 0, false};                   // what a file no try reached ends with
    for (UINTN attempt = 1; attempt <= kUploadAttempts && !bound.Over(); ++attempt) {
      report.Outcome = PutOnServices(State, services, bound, url, file, data.Get(), size);
      if (!EFI_ERROR(report.Outcome.Status))
        break;
      // A pause that grows; a NIC still without its address (the firmware's DHCP, which the first try
      // started, is under way) gets a longer one.
      if (attempt < kUploadAttempts)
        Pause(attempt * (report.Outcome.Status == EFI_NO_MAPPING ? 3000 : 1000), bound);
    }
    if (EFI_ERROR(report.Outcome.Status)) {
      report.OutOfTime = bound.Over();
      report.Stopped = file.name;
      break;
    }
    ++report.Sent;
  }
  State.Failed = report.Stopped != nullptr;
  return report;
}

void UploadFailureLine(const UploadState& State, const UploadReport& Report, const CHAR16* Directory,
                       CHAR16* Line, UINTN LineSize) {
  const PutOutcome& outcome = Report.Outcome;
  CHAR16 answer[48];
  if (!outcome.Answered)
    StrCopy(answer, sizeof(answer), u"none");
  else if (outcome.HttpCode != 0)
    SPrint(answer, sizeof(answer), u"%d", outcome.HttpCode);
  else
    StrCopy(answer, sizeof(answer), u"not-2xx"); // a code the firmware's HTTP client does not name (507, say)
  CHAR16 named[40];
  HttpStatusName(outcome.Status, named, sizeof(named));
  CHAR16 url[kUrlChars];
  SPrint(url, sizeof(url), u"%s%s", State.Folder, Report.Stopped);
  const CHAR16* why = HttpsTrouble(url, outcome);
  if (why == nullptr && Report.OutOfTime)
    why = u"the round reached its bound of 90 seconds";
  CHAR16 where[400];
  if (State.InMemory)
    StrCopy(
        where, sizeof(where),
        u"this machine booted from the network: the results are only in its memory and on this screen, which "
        u"stays until a key is pressed");
  else
    SPrint(where, sizeof(where), u"the results stay on this machine's disk in %s\\", Directory);
  SPrint(Line, LineSize, u"UPLOAD state=failed file=%s status=%s answer=%s to=%s; %s%s%s\r\n", Report.Stopped,
         named, answer, State.Folder, why != nullptr ? why : u"", why != nullptr ? u"; " : u"", where);
}
