// detectcable: one empty flag file per NIC that has a cable, in a flag directory emptied of earlier
// flags first. NICs are counted by distinct permanent MAC address, so the several simple-network
// handles the firmware shows for one controller count once.
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "tests/NicSteps.h"
#include "nic/NicAccess.h"
#include "report/Output.h"
#include "report/TestRun.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "options/Declared.h"
#include "text/OrderedList.h"

EFI_STATUS DetectCable(UINTN* Result, UINTN* ErrorCode);

namespace {

struct DetectCableCmdOption {
  const CHAR16* FlagFileDir;
  const CHAR16* FlagFileName;
};

constexpr auto kOptions = DeclareOptions<DetectCableCmdOption>(
    OptionField<DetectCableCmdOption>({.Name = u"-flagfiledir",
                                       .Description = u"Location of flags directory.",
                                       .Type = OPTION_TYPE_STRING,
                                       .Default = u"\\flags"},
                                      [](DetectCableCmdOption& o, const OptionRead& v) {
                                        return StoreTraced(o.FlagFileDir, v, u"FlagFileDir:%s\r\n");
                                      }),
    OptionField<DetectCableCmdOption>({.Name = u"-flagfilename",
                                       .Description = u"Base name of the flag file.",
                                       .Type = OPTION_TYPE_STRING,
                                       .Default = u"Network"},
                                      [](DetectCableCmdOption& o, const OptionRead& v) {
                                        return StoreTraced(o.FlagFileName, v, u"FlagFileName:%s\r\n");
                                      }));

// This test reads no answer at its progress reports.
constexpr ProgressPoint kStart = {1, 10};
constexpr ProgressPoint kOptionsRead = {20, 9};
constexpr ProgressPoint kDone = {99, 0};

constexpr UINTN kPathBytes = 512;

// The media check as this test makes it: a NIC whose Initialize fails is stopped again, as it was.
constexpr bool kStopAfterFailedInitialize = true;
constexpr MediaWords kMediaWords = {
    .OpenFailed = u"Failed to open Simple Network Protocol, Status = %r.\r\n",
    .NotSupported = u"Simple Network Protocol MediaPresent is not supported.",
    .Starting = nullptr,
    .StartFailed = u"Failed to start Simple Network Protocol, Status = %r.\r\n",
    .InitializeFailed = u"Failed to initialize Simple Network Protocol, Status = %r.\r\n",
    .Running = u"Mode->State = %x.\r\n",
    .StatusRead = u"GetStatus of Simple Network Protocol, Status = %r.\r\n",
    .StatusFailed = u"Failed to GetStatus of Simple Network Protocol, Status = %r.\r\n",
    .Present = nullptr,
};

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

// Two missing elements are equal, a missing one is less; otherwise all 32 bytes compare.
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

class DetectCableRun : public TestRun {
public:
  void Execute() {
    TracePrint(u"enter DetectCable()\r\n");
    Show(kStart);
    if (!ReadOptions())
      return;
    Show(kOptionsRead);
    if (CleanFlagDirectory() && FindNics() && WriteFlags()) {
      Show(kDone);
      End(Outcome::Passed());
    }
  }

private:
  bool ReadOptions();
  bool CleanFlagDirectory();
  bool FindNics();
  bool WriteFlags();
  // One simple-network handle: its media state, and whether its permanent address is a NIC not
  // counted yet.
  EFI_STATUS CheckMediaPresent(EFI_HANDLE Handle, BOOLEAN* MediaPresent, BOOLEAN* NewNic);
  bool Fail(EFI_STATUS Status) { return End(Outcome::Failed(ERROR_CODE_SOFTWARE, Status)); }

  DetectCableCmdOption options_ = {};
  wc::HandleBuffer handles_;
  OrderedListOwner macs_; // MacInfoList: the permanent addresses counted so far
};

bool DetectCableRun::ReadOptions() {
  return !EFI_ERROR(kOptions.Reader().Read(options_)) || Fail(EFI_SUCCESS);
}

// Empties the flag directory of files whose names begin with the flag name, or makes the directory.
bool DetectCableRun::CleanFlagDirectory() {
  CHAR16 dir[kPathBytes / sizeof(CHAR16)];
  SPrint(dir, sizeof(dir), u"%s", options_.FlagFileDir);
  FileIoResolvePath(dir, sizeof(dir));
  Listing listing;
  EFI_STATUS status = FileIoListDirectory(dir, &listing.entries, &listing.count);
  if (status == EFI_NOT_FOUND) {
    status = FileIoCreateDirectory(dir);
    if (EFI_ERROR(status)) {
      LogPrint(u"Create File Directory failed\r\n, Status =%r.", status);
      return Fail(status);
    }
    return true;
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Get File List failed\r\n, Status =%r.", status);
    return Fail(status);
  }
  LogPrint(u"FileCount = %d\r\n", listing.count);
  UINTN prefix = StrLen(options_.FlagFileName);
  for (UINTN i = 0; i < listing.count; ++i) {
    const FILE_IO_LIST_ENTRY& entry = listing.entries[i];
    if ((entry.Attribute & EFI_FILE_DIRECTORY) != 0)
      continue;
    LogPrint(u"FileInfoList[Index].FileName = %s\r\n", entry.FileName);
    LogPrint(u"DetectCableCmdOption.FlagFileName = %s\r\n", options_.FlagFileName);
    if (StrniCmp(entry.FileName, options_.FlagFileName, prefix) != 0)
      continue;
    CHAR16 path[kPathBytes / sizeof(CHAR16)];
    SPrint(path, sizeof(path), u"%s\\%s", options_.FlagFileDir, entry.FileName);
    FileIoResolvePath(path, sizeof(path));
    LogPrint(u"DeletingFilePath = %s\r\n", path);
    status = FileIoDeleteFile(path);
    if (EFI_ERROR(status)) {
      LogPrint(u"delete current existed flag file failed\r\n");
      return Fail(status);
    }
  }
  return true;
}

bool DetectCableRun::FindNics() {
  EFI_STATUS status = handles_.Locate(EFI_SIMPLE_NETWORK_PROTOCOL_GUID);
  if (EFI_ERROR(status)) {
    if (status == EFI_NOT_FOUND)
      LogPrint(u"No NIC is found!\r\n");
    else
      LogPrint(u"Failed Locating Efi Simple Network Protocol!(%r)\r\n", status);
    return End(Outcome::Failed(ERROR_CODE_NO_NIC));
  }
  LogPrint(u"EFI IP4 Simple Network Protocol: 0x%x\r\n", handles_.Count());
  if (EFI_ERROR(OrderedListCreate(macs_.Receive(), CompareMacInfo, FreeMacInfo)))
    return Fail(EFI_SUCCESS);
  return true;
}

bool DetectCableRun::WriteFlags() {
  UINTN number = 1;
  for (UINTN i = 0; i < handles_.Count(); ++i) {
    BOOLEAN present = FALSE;
    BOOLEAN newNic = FALSE;
    EFI_STATUS status = CheckMediaPresent(handles_[i], &present, &newNic);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed to check media present, Status = %r.\r\n", status);
      return Fail(status);
    }
    if (!newNic) {
      LogPrint(u"This is not a SNP for MAC layer, Status = %r.\r\n", status);
      continue;
    }
    LogPrint(u"NIC %x Media Present Status = %x.\r\n", number, present ? 1 : 0);
    CHAR16 which[16];
    SPrint(which, sizeof(which), u"NIC %d", number);
    SayServingDriver(handles_[i], which);
    CHAR16 path[kPathBytes / sizeof(CHAR16)];
    SPrint(path, sizeof(path), u"%s\\%s%d.flg", options_.FlagFileDir, options_.FlagFileName, number);
    FileIoResolvePath(path, sizeof(path));
    LogPrint(u"FilePath = %s\r\n", path);
    if (present && !FileIoFileExists(path)) {
      status = FileIoCreateFile(path);
      if (EFI_ERROR(status)) {
        LogPrint(u"create flag file failed\r\n");
        return Fail(status);
      }
    }
    ++number;
  }
  return true;
}

EFI_STATUS DetectCableRun::CheckMediaPresent(EFI_HANDLE Handle, BOOLEAN* MediaPresent, BOOLEAN* NewNic) {
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
  MediaReport media = {};
  LogPrint(u"DeviceHandle = %x.\r\n", Handle);
  LogPrint(u"&SimpleNetworkProtocolGuid = %x.\r\n", &EFI_SIMPLE_NETWORK_PROTOCOL_GUID);
  LogPrint(u"&pSimpleNetworkProtocol = %x.\r\n", &media);
  EFI_STATUS status = ReadMedia(Handle, MediaPath::SimpleNetwork, kStopAfterFailedInitialize, &media);
  SayMedia(media, kMediaWords);
  if (status == EFI_UNSUPPORTED)
    return EFI_SUCCESS; // no media report: not a MAC-layer NIC, no number
  if (EFI_ERROR(status))
    return status;
  *MediaPresent = media.Present;

  auto mac = wc::PoolPtr<EFI_MAC_ADDRESS>::Allocate(sizeof(EFI_MAC_ADDRESS));
  if (!mac) {
    DebugLogPrint(u"Failed malloc of MAC info\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  *mac = media.Permanent;
  ORDERED_LIST_NODE* known = nullptr;
  status = OrderedListFind(macs_.Get(), mac.Get(), &known);
  if (EFI_ERROR(status)) {
    DebugLogPrint(u"Failed to find list node, status = %r\r\n", status);
    return status;
  }
  if (known == nullptr) {
    status = OrderedListAppend(macs_.Get(), mac.Get(), nullptr);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"Failed to append MAC info to list, status = %r\r\n", status);
      return status;
    }
    mac.Release(); // the list owns it now
    *NewNic = TRUE;
  }
  return EFI_SUCCESS;
}

} // namespace

extern const TestInfo kDetectCableTest = {
    .Name = u"detectcable",
    .Description = u"This test is used to generate flag files depending on which network card and network "
                   u"cables are connected.",
    .Options = kOptions.Rows,
    .Procedure = DetectCable,
    .RunTime = 10,
    .ErrorGroup = TestErrorGroup(1),
    .Errors = nullptr, // only the codes every test shares
};

EFI_STATUS DetectCable(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<DetectCableRun>(Result, ErrorCode);
}
