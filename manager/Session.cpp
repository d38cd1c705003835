#include "manager/Session.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "manager/Console.h"
#include "manager/ManagerFiles.h"
#include "manager/Menu.h"
#include "manager/Record.h"
#include "report/Messages.h"
#include "report/Results.h"
#include "support/Clock.h"
#include "support/FileIo.h"
#include "uefi/Uefi.h"

namespace {

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

// How many handles and protocol instances the handle database holds, and how many protocol opens
// name the module as their agent: a service child or an open that a call leaves behind changes
// these. (Opens by other agents are not counted: the firmware's core records one the first time
// anybody asks a handle for a protocol with HandleProtocol, and keeps it.)
struct HandleCounts {
  UINTN handles = 0;
  UINTN protocols = 0;
  UINTN opens = 0;
  bool operator==(const HandleCounts&) const = default;
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

UINT64 MillisecondsSince(UINT64 start) {
  UINT64 perMillisecond = TimeStampCounterFrequency() / 1000;
  return perMillisecond == 0 ? 0 : (ReadTimeStampCounter() - start) / perMillisecond;
}

void RunOneCall(const ModuleApi& api, EFI_HANDLE module, CHAR16* options, MenuCall* given = nullptr) {
  Say(u"CALL options='%s'\r\n", options);
  UINT64 start = ReadTimeStampCounter();
  gManager->Tail.Clear();
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
  HandleCounts before;
  if (gManager->CheckHandles)
    before = CountHandleDatabase(module);
  status = api.Execute()(0, options, &result, &error);
  if (gManager->CheckHandles) {
    HandleCounts after = CountHandleDatabase(module);
    Say(u"HANDLES %s handles=%d/%d protocols=%d/%d opens=%d/%d\r\n",
        before == after ? u"unchanged" : u"CHANGED", before.handles, after.handles, before.protocols,
        after.protocols, before.opens, after.opens);
  }
  const CHAR16* meaning = ReportMeaning(error);
  Say(u"RESULT result=%s error=0x%x status=%r meaning=\"%s\"\r\n", ResultName(result), error, status,
      meaning);
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), u"RESULT result=%s error=0x%x status=%r options='%s' meaning=\"%s\"\r\n",
         ResultName(result), error, status, options, meaning);
  WriteText(gManager->Results, line);
  RecordCase(options, result, error, status, MillisecondsSince(start));
  if (given != nullptr) {
    given->Result = result;
    given->Error = error;
    given->Status = status;
  }
  // A machine that hangs in a later call (a firmware driver looping, say) still leaves this call's
  // result and log on the disk.
  FlushFiles();
  SendResults();
}

// ---- The technician's menu ----

constexpr UINTN kMenuTexts = 16; // the menu's messages 200..215

struct MenuContext {
  const ModuleApi* api;
  EFI_HANDLE module;
  CHAR16* texts[kMenuTexts]; // the menu's texts in the manager's language (null: English)
};

void MenuShow(void*, const CHAR16* text, UINTN attribute) {
  Show(text, attribute);
}
void MenuClear(void*) {
  gST->ConOut->ClearScreen(gST->ConOut);
}
EFI_INPUT_KEY MenuKey(void*) {
  return WaitForKey();
}
void MenuDrain(void*) {
  DrainKeys();
}
void MenuRun(void* context, CHAR16* options, MenuCall* call) {
  auto* c = static_cast<MenuContext*>(context);
  RunOneCall(*c->api, c->module, options, call);
}
const CHAR16* MenuText(void* context, UINTN id) {
  auto* c = static_cast<MenuContext*>(context);
  return id >= 200 && id < 200 + kMenuTexts ? c->texts[id - 200] : nullptr;
}

// The module's catalog, as the module hands it to the output operation when -catalog names no
// file: nothing is written to the disk, so a write-protected stick has its menu too.
EFI_STATUS ReadModuleCatalog(const ModuleApi& api, MenuCatalog& catalog) {
  UINTN result = 0;
  UINTN error = 0;
  CHAR16 options[] = u"-catalog";
  gManager->TakingCatalog = true;
  api.Execute()(0, options, &result, &error);
  gManager->TakingCatalog = false;
  wc::PoolPtr<CHAR16> text(gManager->CatalogText);
  gManager->CatalogText = nullptr;
  if (!text)
    return EFI_NOT_FOUND;
  return ReadMenuCatalog(text.Get(), &catalog);
}

void RunMenu(const ModuleApi& api, EFI_HANDLE module) {
  MenuContext context = {&api, module, {}};
  CHAR16 path[kPathChars];
  MessageFilePath(path);
  for (UINTN i = 0; i < kMenuTexts; ++i)
    if (EFI_ERROR(GetLocalizedMessage(gManager->Language, 200 + i, path, &context.texts[i])))
      context.texts[i] = nullptr;
  // The catalog (some 80 KiB) and the session's calls live in pool, not on the firmware's stack.
  auto catalog = wc::PoolPtr<MenuCatalog>::AllocateZero(sizeof(MenuCatalog));
  auto session = wc::PoolPtr<MenuSession>::AllocateZero(sizeof(MenuSession));
  if (catalog && session) {
    EFI_STATUS status = ReadModuleCatalog(api, *catalog);
    if (EFI_ERROR(status))
      Say(u"VexRun: the module's catalog could not be read (%r); the menu offers Finish only\r\n", status);
    MenuHost host = {&context, MenuShow, MenuClear, MenuKey, MenuDrain, MenuRun, MenuText, gManager->Script};
    RunTechnicianMenu(host, *catalog, *session);
    const CHAR16* d = gManager->Dir;
    if (gManager->Results != nullptr)
      Say(u"FRONT files=%s\\results.txt %s\\results.xml %s\\results.json\r\n", d, d, d);
    else
      Say(u"FRONT files=none: the disk takes no files; the results are only on this screen\r\n");
    FreeMenuCatalog(catalog.Get());
  } else {
    Say(u"VexRun: no memory for the menu (%r)\r\n", EFI_OUT_OF_RESOURCES);
  }
  for (CHAR16* text : context.texts)
    FreePool(text);
}

// A module the firmware would not load or start: said on the screen and, in boot mode, in the
// results, where each of the calls [first, last) is a case without a result.
void ReportRefusedModule(const Settings& settings, EFI_STATUS status, UINTN first, UINTN last) {
  if (status == EFI_SECURITY_VIOLATION || status == EFI_ACCESS_DENIED)
    Say(u"VexRun: the firmware refused %s (%r): with Secure Boot on, the module must be signed with a key "
        u"the machine trusts, and not changed since it was signed\r\n",
        settings.Module, status);
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), u"LOAD module=%s status=%r\r\n", settings.Module, status);
  WriteResultLine(line);
  gManager->Tail.Clear();
  for (UINTN i = first; i < last; ++i)
    RecordCase(settings.Calls[i], TEST_RESULT_IN_PROGRESS, ERROR_CODE_NONE, status, 0);
}

} // namespace

EFI_STATUS RunSession(EFI_HANDLE Image, EFI_DEVICE_PATH_PROTOCOL* ModulePath, const Settings& Settings,
                      UINTN First, UINTN Last) {
  EFI_HANDLE module = nullptr;
  EFI_STATUS status = gBS->LoadImage(FALSE, Image, ModulePath, nullptr, 0, &module);
  if (status == EFI_SECURITY_VIOLATION && module != nullptr)
    gBS->UnloadImage(module); // loaded, but the platform's policy forbids starting it
  if (!EFI_ERROR(status))
    status = gBS->StartImage(module, nullptr, nullptr);
  Say(u"LOAD module=%s status=%r\r\n", Settings.Module, status);
  if (EFI_ERROR(status)) {
    ReportRefusedModule(Settings, status, First, Last);
    return status;
  }

  ModuleApi api;
  void* iface = nullptr;
  BOOLEAN hasCurrent = !EFI_ERROR(gBS->HandleProtocol(module, &VEX_TEST_MODULE_PROTOCOL_GUID, &iface));
  if (hasCurrent && !Settings.OldLayout)
    api.current = static_cast<VEX_TEST_MODULE_PROTOCOL*>(iface);
  BOOLEAN hasOld = !EFI_ERROR(gBS->HandleProtocol(module, &VEX_TEST_MODULE_OLD_PROTOCOL_GUID, &iface));
  if (hasOld && Settings.OldLayout)
    api.old = static_cast<VEX_TEST_MODULE_OLD_PROTOCOL*>(iface);
  Say(u"PROTOCOLS current=%s old=%s layout=%s\r\n", hasCurrent ? u"yes" : u"no", hasOld ? u"yes" : u"no",
      Settings.OldLayout ? u"old" : u"current");

  if (api.current != nullptr || api.old != nullptr) {
    CHAR16 name[64] = {};
    api.Name()(name, sizeof(name));
    UINTN major = 0;
    UINTN minor = 0;
    wc::PoolPtr<CHAR16> build;
    api.Version()(&major, &minor, build.Receive());
    Say(u"MODULE name=%s version=%d.%d build=\"%s\"\r\n", name, major, minor, build ? build.Get() : u"");
    if (Settings.Menu)
      RunMenu(api, module);
    for (UINTN i = First; i < Last && !Settings.Menu; ++i) {
      // Each call gets its own writable copy: the protocol takes a non-constant string.
      wc::PoolPtr<CHAR16> options(StrDuplicate(Settings.Calls[i]));
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
