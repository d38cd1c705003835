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

UINT64 Remaining(const UploadHost& host, UINT64 start) {
  UINT64 spent = host.Milliseconds(host.Context) - start;
  return spent >= kUploadRoundMs ? 0 : kUploadRoundMs - spent;
}

// One PUT of a file: on the service that answered last, then on each other one until one answers,
// each within what the round has left (a PUT waits for its request and then for its answer: each
// gets half of that at most).
PutOutcome PutOnServices(UploadState& state, const wc::HandleBuffer& services, const UploadHost& host,
                         UINT64 start, const CHAR16* url, const UploadFile& file, const void* body,
                         UINTN size) {
  PutOutcome outcome;
  outcome.Status = EFI_NOT_FOUND;
  EFI_HANDLE last = state.Service;
  for (UINTN i = 0; i <= services.Count(); ++i) {
    EFI_HANDLE service = i == 0 ? last : services[i - 1];
    if (service == nullptr || (i > 0 && service == last))
      continue;
    UINT64 left = Remaining(host, start);
    if (left < 2)
      return {EFI_TIMEOUT, 0, false};
    outcome = HttpPut(service, url, file.type, body, size, UINT32(wc::Min<UINT64>(kUploadWaitMs, left / 2)));
    if (outcome.Answered) {
      state.Service = service;
      return outcome;
    }
  }
  return outcome;
}

} // namespace

TickClock::~TickClock() {
  if (event_ != nullptr)
    gBS->CloseEvent(event_);
}

void EFIAPI TickClock::Tick(EFI_EVENT, void* Context) {
  auto* clock = static_cast<TickClock*>(Context);
  clock->ticks_ = clock->ticks_ + 1;
}

EFI_STATUS TickClock::Start() {
  EFI_STATUS status = gBS->CreateEvent(EVT_TIMER | EVT_NOTIFY_SIGNAL, TPL_CALLBACK, Tick, this, &event_);
  if (EFI_ERROR(status)) {
    event_ = nullptr;
    return status;
  }
  return gBS->SetTimer(event_, TimerPeriodic, kTickMs * 10000);
}

UploadReport UploadRound(UploadState& State, const UploadHost& Host) {
  UploadReport report = {};
  if (State.Folder[0] == 0)
    return report;
  report.Attempted = true;
  ReleaseFinishedExchanges();
  wc::HandleBuffer services;
  EFI_STATUS status = services.Locate(EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID);
  if (EFI_ERROR(status)) {
    report.Outcome.Status = status;
    report.Stopped = kUploadFiles[0].name;
    State.Failed = true;
    return report;
  }
  UINT64 start = Host.Milliseconds(Host.Context);
  for (const UploadFile& file : kUploadFiles) {
    wc::PoolPtr<UINT8> data;
    UINTN size = 0;
    if (EFI_ERROR(Host.ReadFile(Host.Context, file.name, reinterpret_cast<void**>(data.Receive()), &size)))
      continue; // not written (yet): the module's log before its first line, say
    CHAR16 url[kUrlChars];
    SPrint(url, sizeof(url), u"%s%s", State.Folder, file.name); // fits: the folder was planned for it
    for (UINTN attempt = 1; attempt <= kUploadAttempts; ++attempt) {
      UINT64 left = Remaining(Host, start);
      if (left == 0) {
        report.OutOfTime = true;
        if (!EFI_ERROR(report.Outcome.Status) || attempt == 1)
          report.Outcome = {EFI_TIMEOUT, 0, false};
        break;
      }
      report.Outcome = PutOnServices(State, services, Host, start, url, file, data.Get(), size);
      if (!EFI_ERROR(report.Outcome.Status))
        break;
      if (attempt < kUploadAttempts) // a pause that grows, within what the round has left
        gBS->Stall(UINTN(wc::Min<UINT64>(attempt * 1000, Remaining(Host, start))) * 1000);
    }
    if (EFI_ERROR(report.Outcome.Status)) {
      report.OutOfTime = report.OutOfTime || Remaining(Host, start) < 2;
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
  UploadStatusName(outcome.Status, named, sizeof(named));
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
