#include "manager/BootMode.h"

#include "base/Globals.h"
#include "base/String.h"
#include "manager/Console.h"
#include "manager/ManagerFiles.h"

namespace {

// Without the shell nothing has connected the drivers to the devices yet (the network stack
// included): connect every controller, as the shell's "connect -r" does.
void ConnectAllControllers() {
  UINTN count = 0;
  wc::PoolPtr<EFI_HANDLE> all;
  if (EFI_ERROR(gBS->LocateHandleBuffer(AllHandles, nullptr, nullptr, &count, all.Receive())))
    return;
  for (UINTN i = 0; i < count; ++i)
    gBS->ConnectController(all[i], nullptr, nullptr, TRUE);
}

} // namespace

void StartBootMode(Settings& S, BootFiles& Files) {
  gBS->SetWatchdogTimer(0, 0, 0, nullptr); // the firmware's five-minute boot watchdog
  ConnectAllControllers();
  S.CallsFile = u"calls.txt";
  wc::PoolPtr<CHAR16> probe;
  if (!EFI_ERROR(ReadWholeFile(u"script.txt", probe)))
    S.ScriptFile = u"script.txt";
  gManager->Results = CreateFresh(u"results.txt");
  gManager->Reports = true;
  // The language of prompts and the menu, the upload URL.
  if (const CHAR16* language = SettingLine(u"lang.txt", Files.Language))
    UnicodeToAscii(S.Language, sizeof(S.Language), language);
  if (const CHAR16* url = SettingLine(u"upload.txt", Files.Upload); url != nullptr && S.UploadUrl == nullptr)
    S.UploadUrl = url;
}

// A machine whose results reached the fleet's server waits ten seconds: nobody needs to stand at it.
// One booted from the network whose results did not leave it keeps them on the screen for an hour,
// since they are gone at power-off. Any other waits a minute.
void PowerOff(const UploadState& Upload) {
  constexpr UINT64 kMinute = 600000000; // 100 ns units
  bool uploaded = Upload.Folder[0] != 0 && !Upload.Failed;
  bool onlyHere = Upload.Folder[0] != 0 && Upload.Failed && Upload.InMemory;
  UINT64 wait = uploaded ? kMinute / 6 : onlyHere ? 60 * kMinute : kMinute;
  Say(u"VEXRUN DONE results in results.txt%s; press a key to power off (or wait %s)\r\n",
      uploaded   ? u" and on the server"
      : onlyHere ? u" in memory only"
                 : u"",
      uploaded   ? u"ten seconds"
      : onlyHere ? u"an hour"
                 : u"a minute");
  EFI_EVENT timer = nullptr;
  if (!EFI_ERROR(gBS->CreateEvent(EVT_TIMER, TPL_CALLBACK, nullptr, nullptr, &timer)) &&
      !EFI_ERROR(gBS->SetTimer(timer, TimerRelative, wait))) {
    EFI_EVENT events[2] = {gST->ConIn != nullptr ? gST->ConIn->WaitForKey : timer, timer};
    UINTN index = 0;
    gBS->WaitForEvent(2, events, &index);
    gBS->CloseEvent(timer);
  }
  gRT->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  for (;;) {
  }
}
