// detectcable: one empty flag file per NIC that has a cable, in a flag directory emptied of earlier
// flags first. NICs are counted by distinct permanent MAC address, so the several simple-network
// handles the firmware shows for one controller count once.
#include "base/Cxx.h"
#include "nic/NicAccess.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Progress.h"
#include "report/Results.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "tests/CommonOptions.h"
#include "text/OrderedList.h"
#include "uefi/protocol/SimpleNetwork.h"

EFI_STATUS DetectCable(UINTN* Result, UINTN* ErrorCode);
EFI_STATUS CheckMediaPresent(EFI_HANDLE Handle, BOOLEAN* MediaPresent, BOOLEAN* NewNic);
INTN CompareMacInfo(const void* A, const void* B);
void FreeMacInfo(void* Element, ORDERED_LIST_NODE* Node);

namespace {

constexpr OptionInfo kOptions[] = {
    {u"-flagfiledir", u"Location of flags directory.", OPTION_TYPE_STRING, u"\\flags", nullptr, nullptr,
     nullptr, FALSE},
    {u"-flagfilename", u"Base name of the flag file.", OPTION_TYPE_STRING, u"Network", nullptr, nullptr,
     nullptr, FALSE},
    kOptionsEnd,
};

constexpr UINTN kPathBytes = 512;

struct DetectCableCmdOption {
  const CHAR16* FlagFileDir;
  const CHAR16* FlagFileName;
};

constinit DetectCableCmdOption gOptions = {};
constinit ORDERED_LIST* gMacInfoList = nullptr;

EFI_STATUS ReadOptions() {
  const CHAR16* names[] = {u"-flagfiledir", u"-flagfilename"};
  const CHAR16** values[] = {&gOptions.FlagFileDir, &gOptions.FlagFileName};
  const CHAR16* traces[] = {u"FlagFileDir:%s\r\n", u"FlagFileName:%s\r\n"};
  for (UINTN i = 0; i < 2; ++i) {
    UINT64 value = 0;
    EFI_STATUS status = GetOptionValue(names[i], &value, nullptr);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to get value of option %s - %r\r\n", names[i], status);
      return status;
    }
    *values[i] = reinterpret_cast<const CHAR16*>(static_cast<UINTN>(value));
    TracePrint(traces[i], *values[i]);
  }
  return EFI_SUCCESS;
}

// A listing of the flag directory, given back with its names.
struct Listing {
  FILE_IO_LIST_ENTRY* entries = nullptr;
  UINTN count = 0;
  ~Listing() {
    for (UINTN i = 0; entries != nullptr && i < count; ++i)
      FreePool(entries[i].FileName);
    if (entries != nullptr)
      FreePool(entries);
  }
};

// Empties the flag directory of files whose names begin with the flag name, or makes the directory.
EFI_STATUS CleanFlagDirectory(UINTN* Result, UINTN* ErrorCode) {
  auto fail = [&](EFI_STATUS status) {
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_SOFTWARE;
    return status;
  };
  CHAR16 dir[kPathBytes / sizeof(CHAR16)];
  SPrint(dir, sizeof(dir), u"%s", gOptions.FlagFileDir);
  FileIoResolvePath(dir, sizeof(dir));
  Listing listing;
  EFI_STATUS status = FileIoListDirectory(dir, &listing.entries, &listing.count);
  if (status == EFI_NOT_FOUND) {
    status = FileIoCreateDirectory(dir);
    if (EFI_ERROR(status)) {
      LogPrint(u"Create File Directory failed\r\n, Status =%r.", status);
      return fail(status);
    }
    return EFI_SUCCESS;
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Get File List failed\r\n, Status =%r.", status);
    return fail(status);
  }
  LogPrint(u"FileCount = %d\r\n", listing.count);
  UINTN prefix = StrLen(gOptions.FlagFileName);
  for (UINTN i = 0; i < listing.count; ++i) {
    const FILE_IO_LIST_ENTRY& entry = listing.entries[i];
    if ((entry.Attribute & EFI_FILE_DIRECTORY) != 0)
      continue;
    LogPrint(u"FileInfoList[Index].FileName = %s\r\n", entry.FileName);
    LogPrint(u"DetectCableCmdOption.FlagFileName = %s\r\n", gOptions.FlagFileName);
    if (StrniCmp(entry.FileName, gOptions.FlagFileName, prefix) != 0)
      continue;
    CHAR16 path[kPathBytes / sizeof(CHAR16)];
    SPrint(path, sizeof(path), u"%s\\%s", gOptions.FlagFileDir, entry.FileName);
    FileIoResolvePath(path, sizeof(path));
    LogPrint(u"DeletingFilePath = %s\r\n", path);
    status = FileIoDeleteFile(path);
    if (EFI_ERROR(status)) {
      LogPrint(u"delete current existed flag file failed\r\n");
      return fail(status);
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS OpenByHandle(EFI_HANDLE handle, const EFI_GUID& guid, wc::OpenedProtocol<void>& opened) {
  return opened.Open(handle, guid, gImageHandle, nullptr, EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
}

} // namespace

extern const TestInfo kDetectCableTest = {
    u"detectcable",
    u"This test is used to generate flag files depending on which network card and network cables are "
    u"connected.",
    kOptions,
    DetectCable,
    10,
    TestErrorGroup(1)};

INTN CompareMacInfo(const void* A, const void* B) {
  if (A == nullptr || B == nullptr)
    return A == B ? 0 : (A == nullptr ? -1 : 1);
  const auto* a = static_cast<const UINT8*>(A);
  const auto* b = static_cast<const UINT8*>(B);
  TracePrint(u"%x-%x-%x-%x-%x-%x\r\n", a[0], a[1], a[2], a[3], a[4], a[5]);
  TracePrint(u"%x-%x-%x-%x-%x-%x\r\n", b[0], b[1], b[2], b[3], b[4], b[5]);
  return CompareMem(a, b, sizeof(EFI_MAC_ADDRESS));
}

void FreeMacInfo(void* Element, ORDERED_LIST_NODE*) {
  FreePool(Element);
}

EFI_STATUS CheckMediaPresent(EFI_HANDLE Handle, BOOLEAN* MediaPresent, BOOLEAN* NewNic) {
  *MediaPresent = FALSE;
  *NewNic = FALSE;
  {
    wc::PoolPtr<CHAR16> text;
    EFI_STATUS status = DevicePathTextOf(Handle, text);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed Open Device Path Protocol, status = %r\r\n", status);
      return status;
    }
    LogPrint(u"the NIC device path:%s\r\n", text.Get());
  }
  wc::OpenedProtocol<void> opened;
  LogPrint(u"DeviceHandle = %x.\r\n", Handle);
  LogPrint(u"&SimpleNetworkProtocolGuid = %x.\r\n", &EFI_SIMPLE_NETWORK_PROTOCOL_GUID);
  LogPrint(u"&pSimpleNetworkProtocol = %x.\r\n", &opened);
  EFI_STATUS status = OpenByHandle(Handle, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, opened);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to open Simple Network Protocol, Status = %r.\r\n", status);
    return status;
  }
  auto* snp = static_cast<EFI_SIMPLE_NETWORK_PROTOCOL*>(opened.Get());
  if (!snp->Mode->MediaPresentSupported) {
    LogPrint(u"Simple Network Protocol MediaPresent is not supported.");
    return EFI_SUCCESS;
  }
  if (snp->Mode->State != EfiSimpleNetworkInitialized) {
    status = snp->Start(snp);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to start Simple Network Protocol, Status = %r.\r\n", status);
      return status;
    }
    status = snp->Initialize(snp, 0, 0);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to initialize Simple Network Protocol, Status = %r.\r\n", status);
      snp->Stop(snp); // as the NIC was before
      return status;
    }
    *MediaPresent = snp->Mode->MediaPresent;
    snp->Shutdown(snp);
    snp->Stop(snp);
  } else {
    LogPrint(u"Mode->State = %x.\r\n", snp->Mode->State);
    UINT32 interrupts = 0;
    status = snp->GetStatus(snp, &interrupts, nullptr);
    LogPrint(u"GetStatus of Simple Network Protocol, Status = %r.\r\n", status);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to GetStatus of Simple Network Protocol, Status = %r.\r\n", status);
      return status;
    }
    *MediaPresent = snp->Mode->MediaPresent;
  }

  auto mac = wc::PoolPtr<EFI_MAC_ADDRESS>::Allocate(sizeof(EFI_MAC_ADDRESS));
  if (!mac) {
    DebugLogPrint(u"Failed malloc of MAC info\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  *mac = snp->Mode->PermanentAddress;
  ORDERED_LIST_NODE* known = nullptr;
  status = OrderedListFind(gMacInfoList, mac.Get(), &known);
  if (EFI_ERROR(status)) {
    DebugLogPrint(u"Failed to find list node, status = %r\r\n", status);
    return status;
  }
  if (known == nullptr) {
    status = OrderedListAppend(gMacInfoList, mac.Get(), nullptr);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"Failed to append MAC info to list, status = %r\r\n", status);
      return status;
    }
    mac.Release(); // the list owns it now
    *NewNic = TRUE;
  }
  return EFI_SUCCESS;
}

EFI_STATUS DetectCable(UINTN* Result, UINTN* ErrorCode) {
  TracePrint(u"enter DetectCable()\r\n");
  ProgressUpdate(1, 10, nullptr);
  auto finish = [&](UINTN result, UINTN error, EFI_STATUS status) {
    *Result = result;
    *ErrorCode = error;
    return status;
  };
  if (EFI_ERROR(ReadOptions()))
    return finish(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE, EFI_SUCCESS);
  ProgressUpdate(20, 9, nullptr);
  EFI_STATUS status = CleanFlagDirectory(Result, ErrorCode);
  if (EFI_ERROR(status))
    return status;

  wc::HandleBuffer handles;
  status = handles.Locate(EFI_SIMPLE_NETWORK_PROTOCOL_GUID);
  if (EFI_ERROR(status)) {
    if (status == EFI_NOT_FOUND)
      LogPrint(u"No NIC is found!\r\n");
    else
      LogPrint(u"Failed Locating Efi Simple Network Protocol!(%r)\r\n", status);
    return finish(TEST_RESULT_FAILED, ERROR_CODE_NO_NIC, EFI_SUCCESS);
  }
  LogPrint(u"EFI IP4 Simple Network Protocol: 0x%x\r\n", handles.Count());

  status = OrderedListCreate(&gMacInfoList, CompareMacInfo, FreeMacInfo);
  wc::ScopeGuard destroyList([] {
    if (gMacInfoList != nullptr)
      OrderedListDestroy(gMacInfoList);
    gMacInfoList = nullptr;
  });
  if (EFI_ERROR(status))
    return finish(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE, EFI_SUCCESS);

  UINTN number = 1;
  for (UINTN i = 0; i < handles.Count(); ++i) {
    BOOLEAN present = FALSE;
    BOOLEAN newNic = FALSE;
    status = CheckMediaPresent(handles[i], &present, &newNic);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to check media present, Status = %r.\r\n", status);
      return finish(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE, status);
    }
    if (!newNic) {
      LogPrint(u"This is not a SNP for MAC layer, Status = %r.\r\n", status);
      continue;
    }
    LogPrint(u"NIC %x Media Present Status = %x.\r\n", number, present ? 1 : 0);
    CHAR16 path[kPathBytes / sizeof(CHAR16)];
    SPrint(path, sizeof(path), u"%s\\%s%d.flg", gOptions.FlagFileDir, gOptions.FlagFileName, number);
    FileIoResolvePath(path, sizeof(path));
    LogPrint(u"FilePath = %s\r\n", path);
    if (present && !FileIoFileExists(path)) {
      status = FileIoCreateFile(path);
      if (EFI_ERROR(status)) {
        LogPrint(u"create flag file failed\r\n");
        return finish(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE, status);
      }
    }
    ++number;
  }
  ProgressUpdate(99, 0, nullptr);
  return finish(TEST_RESULT_PASSED, ERROR_CODE_NONE, EFI_SUCCESS);
}
