// What the parts of VexRun share during one run: the files it writes beside itself, the answers
// of a script, the calls recorded so far, the machine and the upload. One record, in pool (the
// firmware's stack is small and the module runs below the manager's frames).
#pragma once
#include "manager/Report.h"
#include "manager/Script.h"
#include "manager/Upload.h"
#include "uefi/protocol/SimpleFileSystem.h"

constexpr UINTN kLineChars = 1000;
constexpr UINTN kPathChars = 260;
constexpr UINTN kMaxCalls = 256;

// Who this machine is, for the results and the upload folder: the SMBIOS system UUID and serial
// number and the first NIC's permanent MAC address (each "unknown" where the firmware has none).
struct MachineIdentity {
  CHAR16 Uuid[kMachineChars];
  CHAR16 Serial[64];
  CHAR16 Mac[24];
  bool HasUuid;
};

// VexRun's command line (or, started by the firmware, a boot image's files).
struct Settings {
  const CHAR16* Module = u"Wirecheck.efi";
  const CHAR16* CallsFile = nullptr;
  const CHAR16* ScriptFile = nullptr;
  const CHAR16* UploadUrl = nullptr; // -u URL, or upload.txt beside a boot image's manager
  bool OldLayout = false;
  bool Verbose = false;
  bool Reload = false; // load and unload the module around every call
  bool CheckHandles = false;
  bool Menu = false;         // the technician's menu from the module's catalog instead of a list of calls
  bool GraphicsMenu = true;  // install the graphics library protocol
  bool ConsoleMenu = true;   // install the console library protocol
  CHAR8 Language[8] = "eng"; // for the texts of prompts and -msg
  const CHAR16* Messages[kMaxCalls] = {}; // -msg ID arguments
  UINTN MessageCount = 0;
  const CHAR16* Calls[kMaxCalls] = {};
  UINTN CallCount = 0;
  // Started by the firmware itself (the removable-media boot path), not from the shell: the calls
  // come from calls.txt beside the manager, the results go to results.txt, and the machine powers
  // off at the end.
  bool BootMode = false;
};

struct ManagerState {
  EFI_FILE_PROTOCOL* Root;
  EFI_FILE_PROTOCOL* Log;     // everything the manager received or said
  EFI_FILE_PROTOCOL* Out;     // exactly what it showed on the console
  EFI_FILE_PROTOCOL* Results; // one RESULT line per call (boot mode, the menu)
  bool Reports;               // results.xml and results.json beside results.txt
  bool FilesWritable;         // the manager's volume takes files (a write-protected stick does not)
  ReportCase Cases[kMaxCalls];
  UINTN CaseCount;
  ReportLogTail Tail; // the module's last lines in the call under way
  CHAR16 Dir[kPathChars];
  AnswerScript* Script;
  bool Verbose;
  bool CheckHandles; // compare the handle database before and after each execute call
  const CHAR8* Language;
  UploadState Upload;
  MachineIdentity Machine;
  bool KnowsMachine;   // boot mode or an upload: the results name the machine
  CHAR16* CatalogText; // the module's catalog as it handed it to the output operation (-catalog)
  bool TakingCatalog;
};

extern ManagerState* gManager;
