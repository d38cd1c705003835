#include "manager/ManagerFiles.h"

#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Print.h"
#include "base/String.h"
#include "manager/Console.h"
#include "manager/Script.h"
#include "report/Messages.h"
#include "support/FileIo.h"

namespace {

void PathInDir(CHAR16 (&path)[kPathChars], const CHAR16* name) {
  if (name[0] == u'\\') {
    StrCopy(path, sizeof(path), name);
    return;
  }
  SPrint(path, sizeof(path), u"%s\\%s", gManager->Dir, name);
}

} // namespace

void FindOwnDirectory(EFI_LOADED_IMAGE_PROTOCOL* Self) {
  CHAR16 full[kPathChars] = {};
  for (const EFI_DEVICE_PATH_PROTOCOL* node = Self->FilePath;
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
  StrCopy(gManager->Dir, sizeof(gManager->Dir), full);
}

void MessageFilePath(CHAR16 (&Path)[kPathChars]) {
  StrCopy(Path, sizeof(Path), kMessageFileName);
  FileIoResolveModulePath(Path, sizeof(Path));
}

EFI_STATUS ReadFileBytes(const CHAR16* Name, void** Data, UINTN* Size) {
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), Name);
  FileIoResolveModulePath(path, sizeof(path));
  return FileIoReadFile(path, Data, Size);
}

EFI_STATUS ReadWholeFile(const CHAR16* Name, wc::PoolPtr<CHAR16>& Text, TextEncoding Fallback) {
  wc::PoolPtr<UINT8> data;
  UINTN size = 0;
  EFI_STATUS status = ReadFileBytes(Name, reinterpret_cast<void**>(data.Receive()), &size);
  if (EFI_ERROR(status))
    return status;
  Text.Reset(DecodeText(data.Get(), size, TextEncoding::Detect, Fallback));
  return Text ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

const CHAR16* SettingLine(const CHAR16* Name, wc::PoolPtr<CHAR16>& Text) {
  if (EFI_ERROR(ReadWholeFile(Name, Text)))
    return nullptr;
  CHAR16* cursor = Text.Get();
  while (CHAR16* line = NextLine(&cursor))
    if (line[0] != 0 && line[0] != u'#')
      return line;
  return nullptr;
}

EFI_FILE_PROTOCOL* CreateFresh(const CHAR16* Name) {
  if (gManager->Root == nullptr)
    return nullptr;
  CHAR16 path[kPathChars];
  PathInDir(path, Name);
  EFI_FILE_PROTOCOL* file = nullptr;
  constexpr UINT64 kMode = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;
  if (EFI_ERROR(gManager->Root->Open(gManager->Root, &file, path, kMode, 0)))
    return nullptr;
  file->Delete(file); // start afresh on every run
  if (EFI_ERROR(gManager->Root->Open(gManager->Root, &file, path, kMode, 0)))
    return nullptr;
  return file;
}

void WriteDocument(const CHAR16* Name, CHAR16* Text) {
  wc::PoolPtr<CHAR16> owned(Text);
  EFI_FILE_PROTOCOL* file = CreateFresh(Name);
  if (file == nullptr)
    return;
  WriteText(file, owned.Get());
  file->Close(file);
}

void FlushFiles() {
  EFI_FILE_PROTOCOL* files[] = {gManager->Log, gManager->Out, gManager->Results};
  for (EFI_FILE_PROTOCOL* file : files)
    if (file != nullptr)
      file->Flush(file);
}

EFI_DEVICE_PATH_PROTOCOL* FileDevicePath(EFI_HANDLE Device, const CHAR16* Name) {
  EFI_DEVICE_PATH_PROTOCOL* volume = nullptr;
  if (EFI_ERROR(
          gBS->HandleProtocol(Device, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&volume))))
    return nullptr;
  UINTN volumeSize = DevicePathSize(volume);
  if (volumeSize < 4)
    return nullptr;
  CHAR16 path[kPathChars];
  PathInDir(path, Name);
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

bool OnRamDisk(EFI_HANDLE Device) {
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(Device, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&path))))
    return false;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = path;
       node != nullptr && DevicePathNodeLength(node) >= 4 && !IsDevicePathEnd(node);
       node = NextDevicePathNode(node))
    if (node->Type == MEDIA_DEVICE_PATH && node->SubType == MEDIA_RAM_DISK_DP)
      return true;
  return false;
}
