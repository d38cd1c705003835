// VexRun: the project's diagnostics manager. It installs the manager protocol, loads a test module
// from its own directory, drives the module's test-module protocol with option strings from its
// command line or a calls file, answers prompts and progress from a script or the keyboard, and
// prints one machine-readable line per protocol call:
//
//   MODULE name=<name> version=<major>.<minor> build="<build>"
//   RUNTIME runtime=<n> result=<Name> error=0x<HEX> status=<status>
//   RESULT result=<Name> error=0x<HEX> status=<status> meaning="<what the error code means>"
//   UNLOAD status=<status> protocols=<removed|still-installed>
//   STACK deepest=<bytes> size=<bytes>   (the firmware's stack, at the end)
//
// Usage (the line kUsage below): -m the module, -c a calls file (one option string a line), -s an
// answer script, -u URL sends the results files with HTTP PUT to URL/<machine>/<run>/ after every
// call (a boot image takes the URL from upload.txt), -old drives the module's older protocol layout,
// -v shows every output call with its flags, -r loads and unloads the module around every call, -hdb
// compares the handle database before and after every execute call and prints a line
//   HANDLES unchanged|CHANGED handles=<before>/<after> protocols=<b>/<a> opens=<b>/<a>
//   (opens: those whose agent is the module),
// -menu opens the technician's menu of the module's tests, -ui chooses the menu protocols installed
// for the module (graphics and console library by default), -lang LANG shows the texts of prompts
// (and of -msg ID) in that language of the message file.
// A module's menu prints MENU title=, MENU text=, MENU item=<n> and MENU cancel= lines and MENU
// answer=<n> or MENU answer=cancel; the answer comes from a script line "menu <n>|cancel" or the keyboard.
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "manager/BootMode.h"
#include "manager/Console.h"
#include "manager/ManagerFiles.h"
#include "manager/Record.h"
#include "manager/Session.h"
#include "manager/StackDepth.h"
#include "report/Messages.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "support/Platform.h"

constinit ManagerState* gManager = nullptr;

namespace {

constexpr const CHAR16* kUsage =
    u"Usage: VexRun.efi [-m MODULE] [-c CALLS] [-s SCRIPT] [-u URL] [-old] [-v] [-r] [-hdb] [-menu]\r\n"
    u"                  [-ui both|console|none] [-lang LANG] [-msg ID] [\"OPTION STRING\" ...]\r\n";

bool ParseArguments(EFI_HANDLE image, Settings& s) {
  EFI_SHELL_PARAMETERS_PROTOCOL* params = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(image, &EFI_SHELL_PARAMETERS_PROTOCOL_GUID,
                                    reinterpret_cast<void**>(&params)))) {
    s.BootMode = true; // started outside the shell
    return true;
  }
  for (UINTN i = 1; i < params->Argc; ++i) {
    const CHAR16* arg = params->Argv[i];
    bool hasNext = i + 1 < params->Argc;
    if (StriEq(arg, u"-m") && hasNext) {
      s.Module = params->Argv[++i];
    } else if (StriEq(arg, u"-c") && hasNext) {
      s.CallsFile = params->Argv[++i];
    } else if (StriEq(arg, u"-s") && hasNext) {
      s.ScriptFile = params->Argv[++i];
    } else if (StriEq(arg, u"-u") && hasNext) {
      s.UploadUrl = params->Argv[++i];
    } else if (StriEq(arg, u"-old")) {
      s.OldLayout = true;
    } else if (StriEq(arg, u"-v")) {
      s.Verbose = true;
    } else if (StriEq(arg, u"-r")) {
      s.Reload = true;
    } else if (StriEq(arg, u"-menu")) {
      s.Menu = true;
    } else if (StriEq(arg, u"-hdb")) {
      s.CheckHandles = true;
    } else if (StriEq(arg, u"-ui") && hasNext) {
      const CHAR16* ui = params->Argv[++i];
      if (!StriEq(ui, u"both") && !StriEq(ui, u"console") && !StriEq(ui, u"none"))
        return false;
      s.GraphicsMenu = StriEq(ui, u"both");
      s.ConsoleMenu = !StriEq(ui, u"none");
    } else if (StriEq(arg, u"-lang") && hasNext) {
      UnicodeToAscii(s.Language, sizeof(s.Language), params->Argv[++i]);
    } else if (StriEq(arg, u"-msg") && hasNext && s.MessageCount < kMaxCalls) {
      s.Messages[s.MessageCount++] = params->Argv[++i];
    } else if (StriEq(arg, u"-h") || StriEq(arg, u"-?")) {
      return false;
    } else if (s.CallCount < kMaxCalls) {
      s.Calls[s.CallCount++] = arg;
    }
  }
  return true;
}

// The calls of a calls file, one a line; blank lines and "#" comments are not calls.
void TakeCalls(CHAR16* text, Settings& s) {
  CHAR16* cursor = text;
  while (CHAR16* line = NextLine(&cursor)) {
    const CHAR16* c = line;
    while (*c == u' ' || *c == u'\t')
      ++c;
    if (*c != 0 && *c != u'#' && s.CallCount < kMaxCalls)
      s.Calls[s.CallCount++] = line;
  }
}

void ShowMessages(const Settings& s) {
  CHAR16 path[kPathChars];
  MessageFilePath(path);
  for (UINTN i = 0; i < s.MessageCount; ++i) {
    CHAR16 prefix[64];
    UINTN id = 0;
    for (const CHAR16* c = s.Messages[i]; *c >= u'0' && *c <= u'9'; ++c)
      id = id * 10 + UINTN(*c - u'0');
    SPrint(prefix, sizeof(prefix), u"MESSAGE lang=%a id=%d text=", s.Language, id);
    ShowMessageText(prefix, id, path);
  }
}

// The files and identity a run starts with: VexRun's own volume and directory, its logs, a boot
// image's settings, the machine and the upload's folder.
EFI_STATUS Prepare(EFI_HANDLE image, Settings& s, BootFiles& bootFiles, EFI_LOADED_IMAGE_PROTOCOL** self) {
  EFI_STATUS status =
      gBS->HandleProtocol(image, &EFI_LOADED_IMAGE_PROTOCOL_GUID, reinterpret_cast<void**>(self));
  if (EFI_ERROR(status))
    return status;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* fs = nullptr;
  status = gBS->HandleProtocol((*self)->DeviceHandle, &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID,
                               reinterpret_cast<void**>(&fs));
  if (EFI_ERROR(status) || EFI_ERROR(status = fs->OpenVolume(fs, &gManager->Root))) {
    Say(u"VexRun: cannot open its own volume (%r)\r\n", status);
    return status;
  }
  FindOwnDirectory(*self);
  gManager->Log = CreateFresh(u"VexRun.log");
  gManager->Out = CreateFresh(u"VexRun.out");
  if (s.BootMode)
    StartBootMode(s, bootFiles);
  if (s.BootMode || s.UploadUrl != nullptr) {
    EfiSmbiosLibInitialize(image, gST);
    ReadMachineIdentity(gManager->Machine);
    gManager->KnowsMachine = true;
    ShowMachine(gManager->Machine);
    if (s.UploadUrl != nullptr) {
      gManager->Upload.InMemory = OnRamDisk((*self)->DeviceHandle);
      PlanUpload(s.UploadUrl, gManager->Machine);
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS Run(EFI_HANDLE image, Settings& s) {
  if (!ParseArguments(image, s)) {
    Show(kUsage);
    return EFI_INVALID_PARAMETER;
  }
  gManager->Verbose = s.Verbose;
  gManager->CheckHandles = s.CheckHandles;
  gManager->Language = s.Language;
  // Message texts are read with the module's own file access, relative to the manager's directory;
  // the manager keeps no debug log of its own.
  FileIoInitialize(image, gST);
  DebugLogReset();

  EFI_LOADED_IMAGE_PROTOCOL* self = nullptr;
  BootFiles bootFiles;
  EFI_STATUS status = Prepare(image, s, bootFiles, &self);
  if (EFI_ERROR(status))
    return status;

  wc::PoolPtr<CHAR16> callsText;
  if (s.CallsFile != nullptr) {
    status = ReadWholeFile(s.CallsFile, callsText);
    if (status == EFI_NOT_FOUND && s.BootMode) {
      status = EFI_SUCCESS; // no calls.txt: the menu
    } else if (EFI_ERROR(status)) {
      Say(u"VexRun: cannot read %s (%r)\r\n", s.CallsFile, status);
      return status;
    }
    TakeCalls(callsText.Get(), s);
  }
  // A boot image made without calls is the technician's menu.
  s.Menu = s.Menu || (s.BootMode && s.CallCount == 0);
  if (s.Menu && !gManager->Reports) { // what the technician ran is recorded as a stick's calls are
    gManager->Results = CreateFresh(u"results.txt");
    gManager->Reports = true;
  }
  if (s.Menu && s.Reload)
    Say(u"VexRun: -r does not apply to the menu: the module stays loaded for the menu's session\r\n");
  wc::PoolPtr<CHAR16> scriptText;
  auto script = wc::PoolPtr<AnswerScript>::AllocateZero(sizeof(AnswerScript));
  if (s.ScriptFile != nullptr) {
    UINTN bad = 0;
    status = ReadWholeFile(s.ScriptFile, scriptText);
    if (EFI_ERROR(status) || !script || !ParseAnswerScript(scriptText.Get(), script.Get(), &bad)) {
      Say(u"VexRun: cannot use script %s (%r, line %d)\r\n", s.ScriptFile, status, bad);
      return EFI_INVALID_PARAMETER;
    }
    gManager->Script = script.Get();
  }
  ShowMessages(s);

  EFI_HANDLE managerHandle = nullptr;
  status = InstallManagerProtocols(&managerHandle, s.GraphicsMenu, s.ConsoleMenu);
  if (EFI_ERROR(status)) {
    Say(u"VexRun: cannot install the manager protocol (%r)\r\n", status);
    return status;
  }
  wc::ScopeGuard uninstall([&] { UninstallManagerProtocols(managerHandle); });

  wc::PoolPtr<EFI_DEVICE_PATH_PROTOCOL> modulePath(FileDevicePath(self->DeviceHandle, s.Module));
  if (!s.Reload || s.Menu)
    return RunSession(image, modulePath.Get(), s, 0, s.CallCount);
  // A fresh image for every call: each starts from the module's load-time state.
  for (UINTN i = 0; i < s.CallCount; ++i) {
    status = RunSession(image, modulePath.Get(), s, i, i + 1);
    if (EFI_ERROR(status))
      return status;
  }
  return EFI_SUCCESS;
}

} // namespace

extern "C" EFI_STATUS EFIAPI VexRunMain(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable) {
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  gRT = SystemTable->RuntimeServices;
  gImageHandle = ImageHandle;
  StackDepth stack = PaintStack();
  // The manager's state and settings are large: they live in pool, not on the firmware's stack.
  auto state = wc::PoolPtr<ManagerState>::AllocateZero(sizeof(ManagerState));
  auto settings = wc::PoolPtr<Settings>::AllocateZero(sizeof(Settings));
  if (!state || !settings) {
    gST->ConOut->OutputString(gST->ConOut, const_cast<CHAR16*>(u"VexRun: out of memory\r\n"));
    return EFI_OUT_OF_RESOURCES;
  }
  new (state.Get()) ManagerState();
  new (settings.Get()) Settings();
  gManager = state.Get();
  gManager->Language = "eng";
  Say(u"VEXRUN BEGIN\r\n");
  EFI_STATUS status = Run(ImageHandle, *settings);
  Say(u"VEXRUN END status=%r\r\n", status);
  FlushFiles();
  SendResults(); // the whole log, and a module the firmware refused
  if (stack.Size != 0)
    Say(u"STACK deepest=%d size=%d\r\n", DeepestStackUse(stack), stack.Size);
  EFI_FILE_PROTOCOL** files[] = {&gManager->Log, &gManager->Out, &gManager->Results};
  for (EFI_FILE_PROTOCOL** file : files)
    if (*file != nullptr) {
      (*file)->Close(*file);
      *file = nullptr;
    }
  if (settings->BootMode)
    PowerOff(gManager->Upload);
  FreeRecordedCases();
  if (gManager->Root != nullptr)
    gManager->Root->Close(gManager->Root);
  gManager->~ManagerState();
  gManager = nullptr;
  return status;
}
