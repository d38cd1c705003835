// VexRun: the project's diagnostics manager. It installs the manager protocol, loads a test module
// from its own directory, drives the module's test-module protocol with option strings from its
// command line or a calls file, answers prompts and progress from a script or the keyboard, and
// prints one machine-readable line per protocol call:
//
//   MODULE name=<name> version=<major>.<minor> build="<build>"
//   RUNTIME runtime=<n> result=<Name> error=0x<HEX> status=<status>
//   RESULT result=<Name> error=0x<HEX> status=<status> meaning="<what the error code means>"
//   UNLOAD status=<status> protocols=<removed|still-installed>
//
// Usage: VexRun.efi [-m MODULE] [-c CALLS] [-s SCRIPT] [-u URL] [-old] [-v] [-r] [-hdb] [-lang LANG] [-msg
// ID]
// [-ui both|console|none] ["OPTION STRING" ...] -u URL sends the results files with HTTP PUT to
// URL/<machine>/<run>/ after every call (a boot image takes the URL from upload.txt). -r loads and unloads
// the module around every call, so each call starts from a fresh image. -lang LANG shows the texts of prompts
// (and of -msg ID) in that language of the message file. -hdb compares the handle database before and after
// every execute call and prints a line
//   HANDLES unchanged|CHANGED handles=<before>/<after> protocols=<b>/<a> opens=<b>/<a>
//   (opens: those whose agent is the module)
// -ui chooses the menu protocols installed for the module (graphics and console library by default).
// A menu prints MENU title=, MENU text=, MENU item=<n> and MENU cancel= lines and MENU answer=<n> or
// MENU answer=cancel; the answer comes from a script line "menu <n>|cancel" or the keyboard.
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "base/String.h"
#include "manager/Front.h"
#include "manager/Report.h"
#include "manager/Script.h"
#include "manager/Upload.h"
#include "support/Clock.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "support/Platform.h"
#include "report/Messages.h"
#include "report/Results.h"
#include "uefi/Uefi.h"
#include "uefi/protocol/SimpleNetwork.h"

namespace {

constexpr UINTN kLineChars = 1000;
constexpr UINTN kPathChars = 260;
constexpr UINTN kMaxCalls = 256;

struct Settings {
  const CHAR16* module = u"Wirecheck.efi";
  const CHAR16* callsFile = nullptr;
  const CHAR16* scriptFile = nullptr;
  const CHAR16* uploadUrl = nullptr; // -u URL, or upload.txt beside a boot image's manager
  bool oldLayout = false;
  bool verbose = false;
  bool reload = false; // load and unload the module around every call
  bool checkHandles = false;
  bool menu = false;         // the technician's menu from the module's catalog instead of a list of calls
  bool graphicsMenu = true;  // install the graphics library protocol
  bool consoleMenu = true;   // install the console library protocol
  CHAR8 language[8] = "eng"; // for the texts of prompts and -msg
  const CHAR16* messages[kMaxCalls] = {}; // -msg ID arguments
  UINTN messageCount = 0;
  const CHAR16* calls[kMaxCalls] = {};
  UINTN callCount = 0;
  // Started by the firmware itself (the removable-media boot path), not from the shell: the calls
  // come from calls.txt beside the manager, the results go to results.txt, and the machine powers
  // off at the end.
  bool bootMode = false;
};

// Who this machine is, for the results and the upload folder: the SMBIOS system UUID and serial
// number and the first NIC's permanent MAC address (each "unknown" where the firmware has none).
struct MachineIdentity {
  CHAR16 uuid[kMachineChars] = u"unknown";
  CHAR16 serial[64] = u"unknown";
  CHAR16 mac[24] = u"unknown";
  bool hasUuid = false;
};

// Where the results go after every call when an upload URL is set, and how the last round went.
struct UploadState {
  CHAR16 folder[kUrlChars] = {}; // URL/<machine>/<run>/; empty when nothing is uploaded
  bool inMemory = false;         // the manager's disk is a RAM disk (a network boot): gone at power-off
  EFI_HANDLE service = nullptr;  // the HTTP service binding that reached the server last
  bool failed = false;           // the last round did not send every file
};

// Manager state reachable from the protocol operations.
struct State {
  EFI_FILE_PROTOCOL* root = nullptr;
  EFI_FILE_PROTOCOL* log = nullptr;     // everything the manager received or said
  EFI_FILE_PROTOCOL* out = nullptr;     // exactly what it showed on the console
  EFI_FILE_PROTOCOL* results = nullptr; // one RESULT line per call, in boot mode
  bool reports = false;                 // boot mode: results.xml and results.json beside results.txt
  ReportCase cases[kMaxCalls] = {};
  UINTN caseCount = 0;
  ReportLogTail tail = {}; // the module's last lines in the call under way
  CHAR16 dir[kPathChars] = {};
  AnswerScript* script = nullptr;
  bool verbose = false;
  bool checkHandles = false; // compare the handle database before and after each execute call
  const CHAR8* language = "eng";
  UploadState upload;
  MachineIdentity machine;
  bool knowsMachine = false; // boot mode or an upload: the results name the machine
};
constinit State* gState = nullptr;

// UTF-8 copy of a text into one of the manager's files, a buffer at a time.
void WriteText(EFI_FILE_PROTOCOL* file, const CHAR16* text) {
  if (file == nullptr || text == nullptr)
    return;
  CHAR8 bytes[kLineChars * 3];
  while (*text != 0) {
    UINTN n = 0;
    for (; *text != 0 && n + 3 < sizeof(bytes); ++text) {
      CHAR16 c = *text;
      if (c < 0x80) {
        bytes[n++] = CHAR8(c);
      } else if (c < 0x800) {
        bytes[n++] = CHAR8(0xC0 | (c >> 6));
        bytes[n++] = CHAR8(0x80 | (c & 0x3F));
      } else {
        bytes[n++] = CHAR8(0xE0 | (c >> 12));
        bytes[n++] = CHAR8(0x80 | ((c >> 6) & 0x3F));
        bytes[n++] = CHAR8(0x80 | (c & 0x3F));
      }
    }
    if (EFI_ERROR(file->Write(file, &n, bytes)))
      return;
  }
}

void LogText(const CHAR16* text) {
  WriteText(gState->log, text);
}

void Show(const CHAR16* text, UINTN attribute = 0) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = gST->ConOut;
  if (attribute != 0)
    out->SetAttribute(out, attribute);
  out->OutputString(out, text);
  if (attribute != 0)
    out->SetAttribute(out, EFI_LIGHTGRAY);
  LogText(text);
  WriteText(gState->out, text);
}

template <class... A> void Say(const CHAR16* format, const A&... args) {
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), format, args...);
  Show(line);
}

// Non-blocking look at the keyboard: ESC cancels, F fails; anything else is ignored.
UINTN KeyboardInterrupt() {
  EFI_INPUT_KEY key;
  if (gST->ConIn == nullptr || EFI_ERROR(gST->ConIn->ReadKeyStroke(gST->ConIn, &key)))
    return 0;
  if (key.ScanCode == SCAN_ESC)
    return 2;
  if (key.UnicodeChar == u'f' || key.UnicodeChar == u'F')
    return 3;
  return 0;
}

EFI_INPUT_KEY WaitForKey() {
  EFI_INPUT_KEY key = {};
  UINTN index = 0;
  gBS->WaitForEvent(1, &gST->ConIn->WaitForKey, &index);
  gST->ConIn->ReadKeyStroke(gST->ConIn, &key);
  return key;
}

// ---- Manager protocol operations ----

EFI_STATUS EFIAPI ManagerProgress(UINTN Percent, UINTN SecondsRemaining, UINTN* Interrupt) {
  constexpr UINTN kBar = 20;
  CHAR16 bar[kBar + 1];
  UINTN filled = (Percent > 100 ? 100 : Percent) * kBar / 100;
  for (UINTN i = 0; i < kBar; ++i)
    bar[i] = i < filled ? u'#' : u'.';
  bar[kBar] = 0;
  Say(u"PROGRESS [%s] %3d%% %d s left\r\n", bar, Percent, SecondsRemaining);
  if (Interrupt != nullptr) {
    UINTN value = 0;
    if (const Answer* a = TakeAnswer(gState->script, AnswerKind::Progress))
      value = UINTN(a->Value);
    else if (gState->script == nullptr)
      value = KeyboardInterrupt();
    *Interrupt = value;
    if (value != 0)
      Say(u"PROGRESS interrupt=%s\r\n", ResultName(value));
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ManagerOutput(CHAR16* Text, BOOLEAN Flag, BOOLEAN ToConsole, BOOLEAN ToError) {
  if (Text == nullptr)
    return EFI_INVALID_PARAMETER;
  gState->tail.Add(Text);
  if (gState->verbose) {
    Say(u"[flag=%d console=%d error=%d] ", Flag, ToConsole, ToError);
    Show(Text, ToError ? EFI_LIGHTRED : 0);
  } else if (ToConsole || ToError) {
    Show(Text, ToError ? EFI_LIGHTRED : 0);
  } else {
    LogText(Text); // for the log only
  }
  return EFI_SUCCESS;
}

// The text of a message in the manager's language, from the message file the module named.
void ShowMessageText(const CHAR16* prefix, UINTN id, const CHAR16* file) {
  CHAR16* text = nullptr;
  EFI_STATUS status = GetLocalizedMessage(gState->language, id, file, &text);
  if (EFI_ERROR(status))
    Say(u"%s unavailable (%r)\r\n", prefix, status);
  else
    Say(u"%s%s\r\n", prefix, text);
  FreePool(text);
}

EFI_STATUS EFIAPI ManagerPrompt(UINTN MessageId, CHAR16* MessageFile) {
  Say(u"PROMPT message=%d file=%s\r\n", MessageId, MessageFile);
  ShowMessageText(u"PROMPT text=", MessageId, MessageFile);
  bool abort = false;
  if (gState->script != nullptr) {
    const Answer* a = TakeAnswer(gState->script, AnswerKind::Prompt);
    abort = a != nullptr && a->Value != 0;
    Say(u"PROMPT answer=%s%s\r\n", abort ? u"abort" : u"ok",
        a == nullptr ? u" (script has no answer left)" : u"");
  } else {
    Say(u"Press a key to continue, ESC to abort.\r\n");
    abort = WaitForKey().ScanCode == SCAN_ESC;
    Say(u"PROMPT answer=%s\r\n", abort ? u"abort" : u"ok");
  }
  return abort ? EFI_ABORTED : EFI_SUCCESS;
}

EFI_STATUS EFIAPI ManagerReserved() {
  return EFI_UNSUPPORTED;
}

// The operator's choice on the keyboard: digits and Enter pick an item, ESC the cancel entry.
INT64 ReadMenuChoice(UINTN items) {
  Say(u"Choose an item with its number, ESC to cancel.\r\n");
  for (;;) {
    INT64 value = 0;
    for (;;) {
      EFI_INPUT_KEY key = WaitForKey();
      if (key.ScanCode == SCAN_ESC)
        return -1;
      if (key.UnicodeChar >= u'0' && key.UnicodeChar <= u'9' && value < 1000)
        value = value * 10 + (key.UnicodeChar - u'0');
      else if (key.UnicodeChar == u'\r')
        break;
    }
    if (value >= 1 && UINTN(value) <= items)
      return value;
    Say(u"MENU no item %d; choose 1 to %d, ESC to cancel.\r\n", value, items);
  }
}

// The menu operation of both library protocols: shows everything it is given and hands back the
// value of the chosen item, or that of the cancel entry (all ones).
EFI_STATUS EFIAPI ManagerMenu(const CHAR16* Title, UINTN, VEX_MENU_TEXT_LINE** Lines, VEX_MENU_ITEM** Items,
                              VEX_MENU_SETTINGS*, UINT16, UINT64* Selection, UINT8, UINT8, UINT8, UINT64) {
  if (Items == nullptr || Selection == nullptr)
    return EFI_INVALID_PARAMETER;
  Say(u"MENU title=%s\r\n", Title != nullptr ? Title : u"");
  for (VEX_MENU_TEXT_LINE** l = Lines; l != nullptr && *l != nullptr; ++l)
    if ((*l)->Text != nullptr && (*l)->Text[0] != 0)
      Say(u"MENU text=%s\r\n", (*l)->Text);
  UINTN choices = 0;
  const VEX_MENU_ITEM* cancel = nullptr;
  for (VEX_MENU_ITEM** i = Items; *i != nullptr; ++i) {
    const CHAR16* text = (*i)->Text != nullptr ? (*i)->Text : u"";
    if ((*i)->Value == ~0ull) {
      cancel = *i;
      Say(u"MENU cancel=%s\r\n", text);
    } else {
      Say(u"MENU item=%d %s\r\n", ++choices, text);
    }
  }
  INT64 choice = -1;
  if (gState->script != nullptr) {
    const Answer* a = TakeAnswer(gState->script, AnswerKind::Menu);
    if (a == nullptr)
      Say(u"MENU the script has no answer left: cancel\r\n");
    else if (a->Value > INT64(choices))
      Say(u"MENU the script's item %d is not there: cancel\r\n", a->Value);
    else
      choice = a->Value;
  } else {
    choice = ReadMenuChoice(choices);
  }
  *Selection = ~0ull;
  if (choice >= 1) {
    UINTN seen = 0;
    for (VEX_MENU_ITEM** i = Items; *i != nullptr; ++i)
      if ((*i)->Value != ~0ull && ++seen == UINTN(choice))
        *Selection = (*i)->Value;
    Say(u"MENU answer=%d\r\n", choice);
  } else {
    Say(u"MENU answer=cancel%s\r\n", cancel == nullptr ? u" (no cancel entry)" : u"");
  }
  return EFI_SUCCESS;
}

constinit VEX_GRAPHICS_LIB_PROTOCOL gGraphicsLib = {{}, ManagerMenu};
constinit VEX_CONSOLE_LIB_PROTOCOL gConsoleLib = {{}, ManagerMenu};

constinit VEX_MANAGER_PROTOCOL gManagerProtocol = {ManagerProgress, ManagerReserved, ManagerOutput,
                                                   ManagerReserved, ManagerPrompt};

// ---- Files in the manager's directory ----

void PathInDir(CHAR16 (&path)[kPathChars], const CHAR16* name) {
  if (name[0] == u'\\') {
    StrCopy(path, sizeof(path), name);
    return;
  }
  SPrint(path, sizeof(path), u"%s\\%s", gState->dir, name);
}

// A text file beside the manager (or at an absolute path), decoded: UTF-16 with its mark, otherwise
// the fallback (UTF-8, with or without its mark, unless said otherwise).
EFI_STATUS ReadWholeFile(const CHAR16* name, wc::PoolPtr<CHAR16>& text,
                         TextEncoding fallback = TextEncoding::Utf8) {
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), name);
  FileIoResolveModulePath(path, sizeof(path));
  wc::PoolPtr<UINT8> data;
  UINTN size = 0;
  EFI_STATUS status = FileIoReadFile(path, reinterpret_cast<void**>(data.Receive()), &size);
  if (EFI_ERROR(status))
    return status;
  text.Reset(DecodeText(data.Get(), size, TextEncoding::Detect, fallback));
  return text ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

// The first line of a settings file beside the manager that is neither empty nor a "#" comment; it
// points into text. Null when the file or such a line is missing.
const CHAR16* SettingLine(const CHAR16* name, wc::PoolPtr<CHAR16>& text) {
  if (EFI_ERROR(ReadWholeFile(name, text)))
    return nullptr;
  CHAR16* cursor = text.Get();
  while (CHAR16* line = NextLine(&cursor))
    if (line[0] != 0 && line[0] != u'#')
      return line;
  return nullptr;
}

// A new, empty file beside the manager (null when it cannot be made).
EFI_FILE_PROTOCOL* CreateFresh(const CHAR16* name) {
  CHAR16 path[kPathChars];
  PathInDir(path, name);
  EFI_FILE_PROTOCOL* file = nullptr;
  constexpr UINT64 kMode = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;
  if (EFI_ERROR(gState->root->Open(gState->root, &file, path, kMode, 0)))
    return nullptr;
  file->Delete(file); // start afresh on every run
  if (EFI_ERROR(gState->root->Open(gState->root, &file, path, kMode, 0)))
    return nullptr;
  return file;
}

// The directory of the manager's own file, from its loaded image.
void FindOwnDirectory(EFI_LOADED_IMAGE_PROTOCOL* self) {
  CHAR16 full[kPathChars] = {};
  for (const EFI_DEVICE_PATH_PROTOCOL* node = self->FilePath;
       node != nullptr && DevicePathNodeLength(node) >= 4 && !IsDevicePathEnd(node);
       node = NextDevicePathNode(node)) {
    if (node->Type == MEDIA_DEVICE_PATH && node->SubType == MEDIA_FILEPATH_DP) {
      CHAR16 piece[kPathChars];
      UINTN chars = wc::Min<UINTN>((DevicePathNodeLength(node) - 4) / 2, kPathChars - 1);
      CopyMem(piece, reinterpret_cast<const UINT8*>(node) + 4, chars * sizeof(CHAR16));
      piece[chars] = 0;
      if (full[0] != 0 && piece[0] != u'\\')
        StrAppend(full, sizeof(full), u"\\");
      StrAppend(full, sizeof(full), piece);
    }
  }
  UINTN cut = 0;
  for (UINTN i = 0; full[i] != 0; ++i)
    if (full[i] == u'\\')
      cut = i;
  full[cut] = 0; // "" for the root directory
  StrCopy(gState->dir, sizeof(gState->dir), full);
}

// The device path of a file beside the manager: the volume's path and a file-path node.
EFI_DEVICE_PATH_PROTOCOL* FileDevicePath(EFI_HANDLE device, const CHAR16* name) {
  EFI_DEVICE_PATH_PROTOCOL* volume = nullptr;
  if (EFI_ERROR(
          gBS->HandleProtocol(device, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&volume))))
    return nullptr;
  UINTN volumeSize = DevicePathSize(volume);
  if (volumeSize < 4)
    return nullptr;
  CHAR16 path[kPathChars];
  PathInDir(path, name);
  UINTN nodeSize = 4 + StrSize(path);
  auto* result = static_cast<UINT8*>(AllocatePool(volumeSize - 4 + nodeSize + 4));
  if (result == nullptr)
    return nullptr;
  CopyMem(result, volume, volumeSize - 4);
  UINT8* node = result + volumeSize - 4;
  node[0] = MEDIA_DEVICE_PATH;
  node[1] = MEDIA_FILEPATH_DP;
  node[2] = UINT8(nodeSize);
  node[3] = UINT8(nodeSize >> 8);
  CopyMem(node + 4, path, StrSize(path));
  UINT8* end = node + nodeSize;
  end[0] = END_DEVICE_PATH_TYPE;
  end[1] = END_ENTIRE_DEVICE_PATH_SUBTYPE;
  end[2] = 4;
  end[3] = 0;
  return reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(result);
}

// ---- Command line ----

bool ParseArguments(EFI_HANDLE image, Settings& s) {
  EFI_SHELL_PARAMETERS_PROTOCOL* params = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(image, &EFI_SHELL_PARAMETERS_PROTOCOL_GUID,
                                    reinterpret_cast<void**>(&params)))) {
    s.bootMode = true; // started outside the shell
    return true;
  }
  for (UINTN i = 1; i < params->Argc; ++i) {
    const CHAR16* arg = params->Argv[i];
    bool hasNext = i + 1 < params->Argc;
    if (StriEq(arg, u"-m") && hasNext) {
      s.module = params->Argv[++i];
    } else if (StriEq(arg, u"-c") && hasNext) {
      s.callsFile = params->Argv[++i];
    } else if (StriEq(arg, u"-s") && hasNext) {
      s.scriptFile = params->Argv[++i];
    } else if (StriEq(arg, u"-u") && hasNext) {
      s.uploadUrl = params->Argv[++i];
    } else if (StriEq(arg, u"-old")) {
      s.oldLayout = true;
    } else if (StriEq(arg, u"-v")) {
      s.verbose = true;
    } else if (StriEq(arg, u"-r")) {
      s.reload = true;
    } else if (StriEq(arg, u"-menu")) {
      s.menu = true;
    } else if (StriEq(arg, u"-hdb")) {
      s.checkHandles = true;
    } else if (StriEq(arg, u"-ui") && hasNext) {
      const CHAR16* ui = params->Argv[++i];
      if (!StriEq(ui, u"both") && !StriEq(ui, u"console") && !StriEq(ui, u"none"))
        return false;
      s.graphicsMenu = StriEq(ui, u"both");
      s.consoleMenu = !StriEq(ui, u"none");
    } else if (StriEq(arg, u"-lang") && hasNext) {
      UnicodeToAscii(s.language, sizeof(s.language), params->Argv[++i]);
    } else if (StriEq(arg, u"-msg") && hasNext && s.messageCount < kMaxCalls) {
      s.messages[s.messageCount++] = params->Argv[++i];
    } else if (StriEq(arg, u"-h") || StriEq(arg, u"-?")) {
      return false;
    } else if (s.callCount < kMaxCalls) {
      s.calls[s.callCount++] = arg;
    }
  }
  return true;
}

// ---- Driving the module ----

// How many handles and protocol instances the handle database holds, and how many protocol opens
// name the module as their agent: a service child or an open that a call leaves behind changes
// these. (Opens by other agents are not counted: the firmware's core records one the first time
// anybody asks a handle for a protocol with HandleProtocol, and keeps it.)
struct HandleCounts {
  UINTN handles = 0;
  UINTN protocols = 0;
  UINTN opens = 0;
};

HandleCounts CountHandleDatabase(EFI_HANDLE module) {
  HandleCounts counts;
  wc::PoolPtr<EFI_HANDLE> handles;
  if (EFI_ERROR(gBS->LocateHandleBuffer(AllHandles, nullptr, nullptr, &counts.handles, handles.Receive())))
    return counts;
  for (UINTN i = 0; i < counts.handles; ++i) {
    wc::PoolPtr<EFI_GUID*> guids;
    UINTN guidCount = 0;
    if (EFI_ERROR(gBS->ProtocolsPerHandle(handles[i], guids.Receive(), &guidCount)))
      continue;
    counts.protocols += guidCount;
    for (UINTN g = 0; g < guidCount; ++g) {
      wc::PoolPtr<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> entries;
      UINTN entryCount = 0;
      if (EFI_ERROR(gBS->OpenProtocolInformation(handles[i], guids[g], entries.Receive(), &entryCount)))
        continue;
      for (UINTN e = 0; e < entryCount; ++e)
        if (entries[e].AgentHandle == module)
          counts.opens += entries[e].OpenCount;
    }
  }
  return counts;
}

// The module's operations in the layout the manager drives (one of the two is set).
struct ModuleApi {
  VEX_TEST_MODULE_PROTOCOL* current = nullptr;
  VEX_TEST_MODULE_OLD_PROTOCOL* old = nullptr;
  VEX_EXECUTE_TEST Execute() const { return current != nullptr ? current->ExecuteTest : old->ExecuteTest; }
  VEX_GET_TEST_NAME Name() const { return current != nullptr ? current->GetTestName : old->GetTestName; }
  VEX_GET_TEST_VERSION Version() const {
    return current != nullptr ? current->GetTestVersion : old->GetTestVersion;
  }
};

void WriteDocument(const CHAR16* name, CHAR16* text) {
  wc::PoolPtr<CHAR16> owned(text);
  EFI_FILE_PROTOCOL* file = CreateFresh(name);
  if (file == nullptr)
    return;
  WriteText(file, owned.Get());
  file->Close(file);
}

// The boot image's results for CI systems: results.xml (JUnit) and results.json, rewritten whole
// after every call, so that they are complete documents whatever happens next.
void RecordCase(const CHAR16* options, UINTN result, UINTN error, EFI_STATUS status, UINT64 milliseconds) {
  State& s = *gState;
  if (!s.reports || s.caseCount == kMaxCalls)
    return;
  s.cases[s.caseCount++] = {StrDuplicate(options),
                            result,
                            error,
                            status,
                            milliseconds,
                            result == TEST_RESULT_PASSED ? nullptr : JoinLogTail(s.tail)};
  ReportMachine machine = {s.machine.uuid, s.machine.serial, s.machine.mac};
  const ReportMachine* named = s.knowsMachine ? &machine : nullptr;
  WriteDocument(u"results.xml", BuildJunitReport(s.cases, s.caseCount, named));
  WriteDocument(u"results.json", BuildJsonReport(s.cases, s.caseCount, named));
}

UINT64 MillisecondsSince(UINT64 start) {
  UINT64 perMillisecond = TimeStampCounterFrequency() / 1000;
  return perMillisecond == 0 ? 0 : (ReadTimeStampCounter() - start) / perMillisecond;
}

// ---- Results that leave the machine ----

void ReadMachineIdentity(MachineIdentity& id) {
  const SMBIOS_STRUCTURE** systems = nullptr;
  UINT16 count = 0;
  if (!EFI_ERROR(SmbiosGetStructures(1, &systems, &count))) {
    const SMBIOS_STRUCTURE* system = systems[0];
    const auto* bytes = reinterpret_cast<const UINT8*>(system);
    if (system->Length >= 0x19) {
      UINT8 uuid[16];
      CopyMem(uuid, bytes + 8, sizeof(uuid));
      id.hasUuid = FormatSystemUuid(uuid, id.uuid, sizeof(id.uuid));
    }
    if (system->Length > 7)
      if (const CHAR8* serial = SmbiosGetString(system, bytes[7]); serial != nullptr && serial[0] != 0)
        AsciiToUnicode(id.serial, sizeof(id.serial), serial);
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
    SPrint(id.mac, sizeof(id.mac), u"%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
    StrToLower(id.mac); // the print routine writes upper-case digits
    break;
  }
}

// Whether the manager's volume is a disk in memory.
bool OnRamDisk(EFI_HANDLE device) {
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(device, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&path))))
    return false;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = path;
       node != nullptr && DevicePathNodeLength(node) >= 4 && !IsDevicePathEnd(node);
       node = NextDevicePathNode(node))
    if (node->Type == MEDIA_DEVICE_PATH && node->SubType == MEDIA_RAM_DISK_DP)
      return true;
  return false;
}

// The run's folder under the upload URL, named by the machine and the time the run started.
void PlanUpload(const CHAR16* url, const MachineIdentity& id) {
  CHAR16 machine[kMachineChars];
  if (id.hasUuid) {
    StrCopy(machine, sizeof(machine), id.uuid);
  } else { // no UUID in the tables: the MAC address names the machine
    SPrint(machine, sizeof(machine), u"mac-%s", id.mac);
    for (CHAR16* c = machine; *c != 0; ++c)
      if (*c == u':')
        *c = u'-';
  }
  EFI_TIME now = {};
  gRT->GetTime(&now, nullptr);
  auto tag = UINT16(ReadTimeStampCounter() % 100000);
  if (!UploadFolder(url, machine, now, tag, gState->upload.folder, sizeof(gState->upload.folder))) {
    gState->upload.folder[0] = 0;
    Say(u"UPLOAD state=off: the URL %s is too long\r\n", url);
    return;
  }
  Say(u"UPLOAD to=%s\r\n", gState->upload.folder);
}

struct UploadFile {
  const CHAR16* name;
  const CHAR8* type;
};
constexpr UploadFile kUploadFiles[] = {
    {u"results.txt", "text/plain; charset=utf-8"}, {u"results.xml", "application/xml"},
    {u"results.json", "application/json"},         {u"VexRun.log", "text/plain; charset=utf-8"},
    {u"Debug.log", "text/plain; charset=utf-16"}, // the module writes its log in UCS-2
};
constexpr UINTN kUploadAttempts = 3;
constexpr UINT32 kUploadWaitMs = 10000;
// Past this a round tries no more: a silent server never holds the machine.
constexpr UINT64 kUploadRoundMs = 90000;

// One PUT of a file, on the service that answered last or, until one has, on each in turn.
PutOutcome PutOnAnyService(const wc::HandleBuffer& services, const CHAR16* url, const UploadFile& file,
                           const void* body, UINTN size) {
  PutOutcome outcome;
  UploadState& u = gState->upload;
  for (UINTN i = 0; i < services.Count(); ++i) {
    EFI_HANDLE service = u.service != nullptr ? u.service : services[i];
    outcome = HttpPut(service, url, file.type, body, size, kUploadWaitMs);
    if (outcome.Answered) {
      u.service = service;
      return outcome;
    }
    if (u.service != nullptr)
      break;
  }
  return outcome;
}

// The manager's open files, written through to the disk.
void FlushFiles() {
  EFI_FILE_PROTOCOL* files[] = {gState->log, gState->out, gState->results};
  for (EFI_FILE_PROTOCOL* file : files)
    if (file != nullptr)
      file->Flush(file);
}

// After every call (and once more at the end, its files flushed first): every results file to the
// run's folder. A file is
// tried kUploadAttempts times; the round stops at the first file that does not get through, says
// why on the screen and in results.txt, and leaves everything on the machine's disk as it is.
void UploadResults() {
  UploadState& u = gState->upload;
  if (u.folder[0] == 0)
    return;
  wc::HandleBuffer services;
  EFI_STATUS status = services.Locate(EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID);
  UINT64 start = ReadTimeStampCounter();
  PutOutcome outcome;
  const UploadFile* stopped = nullptr;
  UINTN sent = 0;
  if (EFI_ERROR(status)) {
    outcome.Status = status;
    stopped = &kUploadFiles[0];
  }
  for (const UploadFile& file : kUploadFiles) {
    if (stopped != nullptr)
      break;
    CHAR16 path[kPathChars];
    StrCopy(path, sizeof(path), file.name);
    FileIoResolveModulePath(path, sizeof(path));
    wc::PoolPtr<UINT8> data;
    UINTN size = 0;
    if (EFI_ERROR(FileIoReadFile(path, reinterpret_cast<void**>(data.Receive()), &size)))
      continue; // not written (yet): the module's log before its first line, say
    CHAR16 url[kUrlChars];
    SPrint(url, sizeof(url), u"%s%s", u.folder, file.name);
    for (UINTN attempt = 1; attempt <= kUploadAttempts; ++attempt) {
      outcome = PutOnAnyService(services, url, file, data.Get(), size);
      if (!EFI_ERROR(outcome.Status) || MillisecondsSince(start) > kUploadRoundMs)
        break;
      if (attempt < kUploadAttempts)
        gBS->Stall(UINTN(attempt) * 1000000);
    }
    if (EFI_ERROR(outcome.Status))
      stopped = &file;
    else
      ++sent;
  }
  if (stopped == nullptr) {
    if (u.failed)
      Say(u"UPLOAD state=ok files=%d (the server takes the results again)\r\n", sent);
    u.failed = false;
    return;
  }
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
  SPrint(url, sizeof(url), u"%s%s", u.folder, stopped->name);
  const CHAR16* why = HttpsTrouble(url, outcome);
  CHAR16 where[kPathChars + 100];
  if (u.inMemory)
    StrCopy(
        where, sizeof(where),
        u"this machine booted from the network: the results are only in its memory and on this screen, which "
        u"stays until a key is pressed");
  else
    SPrint(where, sizeof(where), u"the results stay on this machine's disk in %s\\", gState->dir);
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), u"UPLOAD state=failed file=%s status=%s answer=%s to=%s; %s%s%s\r\n",
         stopped->name, named, answer, u.folder, why != nullptr ? why : u"", why != nullptr ? u"; " : u"",
         where);
  Show(line, EFI_LIGHTRED);
  if (gState->results != nullptr) {
    WriteText(gState->results, line);
    gState->results->Flush(gState->results);
  }
  u.failed = true;
}

void RunOneCall(const ModuleApi& api, EFI_HANDLE module, CHAR16* options, FrontCall* given = nullptr) {
  Say(u"CALL options='%s'\r\n", options);
  UINT64 start = ReadTimeStampCounter();
  gState->tail.Clear();
  UINTN runTime = 0;
  UINTN result = 0;
  UINTN error = 0;
  EFI_STATUS status;
  if (api.current != nullptr) {
    status = api.current->GetTestRunTime(0, options, &runTime, &result, &error);
    Say(u"RUNTIME runtime=%d result=%s error=0x%x status=%r\r\n", runTime, ResultName(result), error, status);
  } else {
    status = api.old->GetTestRunTime(0, options, &runTime);
    Say(u"RUNTIME runtime=%d status=%r\r\n", runTime, status);
  }
  result = 0;
  error = 0;
  VEX_EXECUTE_TEST execute = api.Execute();
  HandleCounts before;
  if (gState->checkHandles)
    before = CountHandleDatabase(module);
  status = execute(0, options, &result, &error);
  if (gState->checkHandles) {
    HandleCounts after = CountHandleDatabase(module);
    bool same =
        before.handles == after.handles && before.protocols == after.protocols && before.opens == after.opens;
    Say(u"HANDLES %s handles=%d/%d protocols=%d/%d opens=%d/%d\r\n", same ? u"unchanged" : u"CHANGED",
        before.handles, after.handles, before.protocols, after.protocols, before.opens, after.opens);
  }
  const CHAR16* meaning = ReportMeaning(error);
  Say(u"RESULT result=%s error=0x%x status=%r meaning=\"%s\"\r\n", ResultName(result), error, status,
      meaning);
  if (gState->results != nullptr) {
    CHAR16 line[kLineChars];
    SPrint(line, sizeof(line), u"RESULT result=%s error=0x%x status=%r options='%s' meaning=\"%s\"\r\n",
           ResultName(result), error, status, options, meaning);
    WriteText(gState->results, line);
  }
  RecordCase(options, result, error, status, MillisecondsSince(start));
  if (given != nullptr) {
    given->Result = result;
    given->Error = error;
    given->Status = status;
  }
  // A machine that hangs in a later call (a firmware driver looping, say) still leaves this call's
  // result and log on the disk.
  FlushFiles();
  UploadResults();
}

// ---- The technician's menu ----

struct FrontContext {
  const ModuleApi* api;
  EFI_HANDLE module;
  CHAR16* texts[16]; // the menu's texts in the manager's language (null: English)
};

void FrontShow(void*, const CHAR16* text, UINTN attribute) {
  Show(text, attribute);
}
void FrontClear(void*) {
  gST->ConOut->ClearScreen(gST->ConOut);
}
EFI_INPUT_KEY FrontKey(void*) {
  return WaitForKey();
}
void FrontDrain(void*) {
  EFI_INPUT_KEY key;
  for (UINTN i = 0;
       i < 256 && gST->ConIn != nullptr && !EFI_ERROR(gST->ConIn->ReadKeyStroke(gST->ConIn, &key)); ++i) {
  }
}
void FrontRun(void* context, CHAR16* options, FrontCall* call) {
  auto* c = static_cast<FrontContext*>(context);
  RunOneCall(*c->api, c->module, options, call);
}
const CHAR16* FrontText(void* context, UINTN id) {
  auto* c = static_cast<FrontContext*>(context);
  return id >= 200 && id < 216 ? c->texts[id - 200] : nullptr;
}

// The module's catalog, written by the module into a file beside the manager: the catalog's writer
// replaces a file that exists, so an empty one is made first.
EFI_STATUS ReadModuleCatalog(const ModuleApi& api, FrontCatalog& catalog) {
  EFI_FILE_PROTOCOL* file = CreateFresh(u"catalog.xml");
  if (file == nullptr)
    return EFI_WRITE_PROTECTED;
  file->Close(file);
  CHAR16 options[kPathChars + 16];
  SPrint(options, sizeof(options), u"-catalog=%s\\catalog.xml", gState->dir);
  UINTN result = 0;
  UINTN error = 0;
  VEX_EXECUTE_TEST execute = api.Execute();
  execute(0, options, &result, &error);
  wc::PoolPtr<CHAR16> text;
  EFI_STATUS status = ReadWholeFile(u"catalog.xml", text, TextEncoding::Ucs2);
  if (EFI_ERROR(status))
    return status;
  return ReadFrontCatalog(text.Get(), &catalog);
}

void RunMenu(const ModuleApi& api, EFI_HANDLE module) {
  FrontContext context = {&api, module, {}};
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), kMessageFileName);
  FileIoResolveModulePath(path, sizeof(path));
  for (UINTN i = 0; i < 16; ++i)
    if (EFI_ERROR(GetLocalizedMessage(gState->language, 200 + i, path, &context.texts[i])))
      context.texts[i] = nullptr;
  FrontCatalog catalog = {};
  EFI_STATUS status = ReadModuleCatalog(api, catalog);
  if (EFI_ERROR(status))
    Say(u"VexRun: the module's catalog could not be read (%r); the menu offers Finish only\r\n", status);
  auto session = wc::PoolPtr<FrontSession>::AllocateZero(sizeof(FrontSession));
  if (session) {
    FrontHost host = {&context,   FrontShow, FrontClear, FrontKey,
                      FrontDrain, FrontRun,  FrontText,  gState->script};
    RunFrontMenu(host, catalog, *session);
    Say(u"FRONT files=%s\\results.txt %s\\results.xml %s\\results.json\r\n", gState->dir, gState->dir,
        gState->dir);
  }
  FreeFrontCatalog(&catalog);
  for (CHAR16* text : context.texts)
    FreePool(text);
}

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

// The end of a boot-mode run: the results stay on the screen until a key or a minute has passed.
// A machine whose results reached the fleet's server waits ten seconds: nobody needs to stand at it.
// One booted from the network whose results did not leave it keeps them on the screen for an hour,
// since they are gone at power-off.
void PowerOff(const UploadState& upload) {
  constexpr UINT64 kMinute = 600000000; // 100 ns units
  bool uploaded = upload.folder[0] != 0 && !upload.failed;
  bool onlyHere = upload.folder[0] != 0 && upload.failed && upload.inMemory;
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
}

// A module the firmware would not load or start: said on the screen and, in boot mode, in the
// results, where each of the calls [first, last) is a case without a result.
void ReportRefusedModule(const Settings& settings, EFI_STATUS status, UINTN first, UINTN last) {
  if (status == EFI_SECURITY_VIOLATION || status == EFI_ACCESS_DENIED)
    Say(u"VexRun: the firmware refused %s (%r): with Secure Boot on, the module must be signed with a key "
        u"the machine trusts, and not changed since it was signed\r\n",
        settings.module, status);
  if (gState->results != nullptr) {
    CHAR16 line[kLineChars];
    SPrint(line, sizeof(line), u"LOAD module=%s status=%r\r\n", settings.module, status);
    WriteText(gState->results, line);
    gState->results->Flush(gState->results);
  }
  gState->tail.Clear();
  for (UINTN i = first; i < last; ++i)
    RecordCase(settings.calls[i], TEST_RESULT_IN_PROGRESS, ERROR_CODE_NONE, status, 0);
}

// Loads the module, names it, runs calls [first, last) and unloads it again.
EFI_STATUS RunSession(EFI_HANDLE image, EFI_DEVICE_PATH_PROTOCOL* modulePath, const Settings& settings,
                      UINTN first, UINTN last) {
  EFI_HANDLE module = nullptr;
  EFI_STATUS status = gBS->LoadImage(FALSE, image, modulePath, nullptr, 0, &module);
  if (status == EFI_SECURITY_VIOLATION && module != nullptr)
    gBS->UnloadImage(module); // loaded, but the platform's policy forbids starting it
  if (!EFI_ERROR(status))
    status = gBS->StartImage(module, nullptr, nullptr);
  Say(u"LOAD module=%s status=%r\r\n", settings.module, status);
  if (EFI_ERROR(status)) {
    ReportRefusedModule(settings, status, first, last);
    return status;
  }

  ModuleApi api;
  void* iface = nullptr;
  BOOLEAN hasCurrent = !EFI_ERROR(gBS->HandleProtocol(module, &VEX_TEST_MODULE_PROTOCOL_GUID, &iface));
  if (hasCurrent && !settings.oldLayout)
    api.current = static_cast<VEX_TEST_MODULE_PROTOCOL*>(iface);
  BOOLEAN hasOld = !EFI_ERROR(gBS->HandleProtocol(module, &VEX_TEST_MODULE_OLD_PROTOCOL_GUID, &iface));
  if (hasOld && settings.oldLayout)
    api.old = static_cast<VEX_TEST_MODULE_OLD_PROTOCOL*>(iface);
  Say(u"PROTOCOLS current=%s old=%s layout=%s\r\n", hasCurrent ? u"yes" : u"no", hasOld ? u"yes" : u"no",
      settings.oldLayout ? u"old" : u"current");

  if (api.current != nullptr || api.old != nullptr) {
    CHAR16 name[64] = {};
    api.Name()(name, sizeof(name));
    UINTN major = 0;
    UINTN minor = 0;
    wc::PoolPtr<CHAR16> build;
    api.Version()(&major, &minor, build.Receive());
    Say(u"MODULE name=%s version=%d.%d build=\"%s\"\r\n", name, major, minor, build ? build.Get() : u"");
    if (settings.menu)
      RunMenu(api, module);
    for (UINTN i = first; i < last && !settings.menu; ++i) {
      // Each call gets its own writable copy: the protocol takes a non-constant string.
      wc::PoolPtr<CHAR16> options(StrDuplicate(settings.calls[i]));
      if (options)
        RunOneCall(api, module, options.Get());
    }
  } else {
    Say(u"VexRun: the module installed no usable test-module protocol\r\n");
  }

  status = gBS->UnloadImage(module);
  void* left = nullptr;
  bool stillThere = !EFI_ERROR(gBS->LocateProtocol(&VEX_TEST_MODULE_PROTOCOL_GUID, nullptr, &left)) ||
                    !EFI_ERROR(gBS->LocateProtocol(&VEX_TEST_MODULE_OLD_PROTOCOL_GUID, nullptr, &left));
  Say(u"UNLOAD status=%r protocols=%s\r\n", status, stillThere ? u"still-installed" : u"removed");
  return EFI_SUCCESS;
}

EFI_STATUS Run(EFI_HANDLE image, Settings& settings) {
  if (!ParseArguments(image, settings)) {
    Say(u"Usage: VexRun.efi [-m MODULE] [-c CALLS] [-s SCRIPT] [-u URL] [-old] [-v] [-r] [-hdb] [-ui "
        u"both|console|none] "
        u"[\"OPTION STRING\" "
        u"...]\r\n");
    return EFI_INVALID_PARAMETER;
  }
  gState->verbose = settings.verbose;
  gState->checkHandles = settings.checkHandles;
  gState->language = settings.language;
  // Message texts are read with the module's own file access, relative to the manager's directory;
  // the manager keeps no debug log of its own.
  FileIoInitialize(image, gST);
  DebugLogReset();

  EFI_LOADED_IMAGE_PROTOCOL* self = nullptr;
  EFI_STATUS status =
      gBS->HandleProtocol(image, &EFI_LOADED_IMAGE_PROTOCOL_GUID, reinterpret_cast<void**>(&self));
  if (EFI_ERROR(status))
    return status;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* fs = nullptr;
  status = gBS->HandleProtocol(self->DeviceHandle, &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID,
                               reinterpret_cast<void**>(&fs));
  if (EFI_ERROR(status) || EFI_ERROR(status = fs->OpenVolume(fs, &gState->root))) {
    Say(u"VexRun: cannot open its own volume (%r)\r\n", status);
    return status;
  }
  FindOwnDirectory(self);
  gState->log = CreateFresh(u"VexRun.log");
  gState->out = CreateFresh(u"VexRun.out");
  if (settings.bootMode) {
    gBS->SetWatchdogTimer(0, 0, 0, nullptr); // the firmware's five-minute boot watchdog
    ConnectAllControllers();
    settings.callsFile = u"calls.txt";
    wc::PoolPtr<CHAR16> probe;
    if (!EFI_ERROR(ReadWholeFile(u"script.txt", probe)))
      settings.scriptFile = u"script.txt";
    gState->results = CreateFresh(u"results.txt");
    gState->reports = true;
  }
  // A boot image's settings: the language of prompts and the menu, the upload URL.
  wc::PoolPtr<CHAR16> languageText;
  wc::PoolPtr<CHAR16> uploadText;
  if (settings.bootMode) {
    if (const CHAR16* language = SettingLine(u"lang.txt", languageText))
      UnicodeToAscii(settings.language, sizeof(settings.language), language);
    if (const CHAR16* url = SettingLine(u"upload.txt", uploadText);
        url != nullptr && settings.uploadUrl == nullptr)
      settings.uploadUrl = url;
  }
  if (settings.bootMode || settings.uploadUrl != nullptr) {
    EfiSmbiosLibInitialize(image, gST);
    MachineIdentity& id = gState->machine;
    ReadMachineIdentity(id);
    gState->knowsMachine = true;
    CHAR16 line[kLineChars];
    SPrint(line, sizeof(line), u"MACHINE uuid=%s serial=%s mac=%s\r\n", id.uuid, id.serial, id.mac);
    Show(line);
    if (gState->results != nullptr)
      WriteText(gState->results, line);
    if (settings.uploadUrl != nullptr) {
      gState->upload.inMemory = OnRamDisk(self->DeviceHandle);
      PlanUpload(settings.uploadUrl, id);
    }
  }

  wc::PoolPtr<CHAR16> callsText;
  if (settings.callsFile != nullptr) {
    status = ReadWholeFile(settings.callsFile, callsText);
    if (status == EFI_NOT_FOUND && settings.bootMode) {
      status = EFI_SUCCESS; // no calls.txt: the menu
    } else if (EFI_ERROR(status)) {
      Say(u"VexRun: cannot read %s (%r)\r\n", settings.callsFile, status);
      return status;
    }
    CHAR16* cursor = callsText.Get();
    while (CHAR16* line = NextLine(&cursor))
      if (line[0] != u'#' && settings.callCount < kMaxCalls)
        settings.calls[settings.callCount++] = line;
  }
  // A boot image made without calls is the technician's menu.
  settings.menu = settings.menu || (settings.bootMode && settings.callCount == 0);
  if (settings.menu && !gState->reports) { // what the technician ran is recorded as a stick's calls are
    gState->results = CreateFresh(u"results.txt");
    gState->reports = true;
  }
  wc::PoolPtr<CHAR16> scriptText;
  auto script = wc::PoolPtr<AnswerScript>::AllocateZero(sizeof(AnswerScript));
  if (settings.scriptFile != nullptr) {
    UINTN bad = 0;
    status = ReadWholeFile(settings.scriptFile, scriptText);
    if (EFI_ERROR(status) || !script || !ParseAnswerScript(scriptText.Get(), script.Get(), &bad)) {
      Say(u"VexRun: cannot use script %s (%r, line %d)\r\n", settings.scriptFile, status, bad);
      return EFI_INVALID_PARAMETER;
    }
    gState->script = script.Get();
  }

  for (UINTN i = 0; i < settings.messageCount; ++i) {
    CHAR16 path[kPathChars];
    StrCopy(path, sizeof(path), kMessageFileName);
    FileIoResolveModulePath(path, sizeof(path));
    CHAR16 prefix[64];
    UINTN id = 0;
    for (const CHAR16* c = settings.messages[i]; *c >= u'0' && *c <= u'9'; ++c)
      id = id * 10 + UINTN(*c - u'0');
    SPrint(prefix, sizeof(prefix), u"MESSAGE lang=%a id=%d text=", settings.language, id);
    ShowMessageText(prefix, id, path);
  }

  EFI_HANDLE managerHandle = nullptr;
  status = gBS->InstallProtocolInterface(&managerHandle, &VEX_MANAGER_PROTOCOL_GUID, EFI_NATIVE_INTERFACE,
                                         &gManagerProtocol);
  if (EFI_ERROR(status)) {
    Say(u"VexRun: cannot install the manager protocol (%r)\r\n", status);
    return status;
  }
  wc::ScopeGuard uninstall(
      [&] { gBS->UninstallProtocolInterface(managerHandle, &VEX_MANAGER_PROTOCOL_GUID, &gManagerProtocol); });
  // The menu protocols live on the manager's handle, each only when asked for.
  struct {
    bool wanted;
    const EFI_GUID* guid;
    void* iface;
  } menus[] = {{settings.graphicsMenu, &VEX_GRAPHICS_LIB_PROTOCOL_GUID, &gGraphicsLib},
               {settings.consoleMenu, &VEX_CONSOLE_LIB_PROTOCOL_GUID, &gConsoleLib}};
  for (auto& m : menus) {
    if (m.wanted &&
        EFI_ERROR(gBS->InstallProtocolInterface(&managerHandle, m.guid, EFI_NATIVE_INTERFACE, m.iface)))
      m.wanted = false;
  }
  wc::ScopeGuard uninstallMenus([&] {
    for (auto& m : menus)
      if (m.wanted)
        gBS->UninstallProtocolInterface(managerHandle, m.guid, m.iface);
  });

  wc::PoolPtr<EFI_DEVICE_PATH_PROTOCOL> modulePath(FileDevicePath(self->DeviceHandle, settings.module));
  if (!settings.reload)
    return RunSession(image, modulePath.Get(), settings, 0, settings.callCount);
  // A fresh image for every call: each starts from the module's load-time state.
  for (UINTN i = 0; i < settings.callCount; ++i) {
    status = RunSession(image, modulePath.Get(), settings, i, i + 1);
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
  State state;
  gState = &state;
  Say(u"VEXRUN BEGIN\r\n");
  Settings settings;
  EFI_STATUS status = Run(ImageHandle, settings);
  Say(u"VEXRUN END status=%r\r\n", status);
  FlushFiles();
  UploadResults(); // the whole log, and a module the firmware refused
  EFI_FILE_PROTOCOL* files[] = {state.log, state.out, state.results};
  for (EFI_FILE_PROTOCOL* file : files)
    if (file != nullptr)
      file->Close(file);
  for (UINTN i = 0; i < state.caseCount; ++i) {
    FreePool(const_cast<CHAR16*>(state.cases[i].Options));
    FreePool(state.cases[i].Log);
  }
  if (state.root != nullptr)
    state.root->Close(state.root);
  gState = nullptr;
  if (settings.bootMode)
    PowerOff(state.upload);
  return status;
}
