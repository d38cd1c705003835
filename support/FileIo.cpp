#include "support/FileIo.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "uefi/protocol/LoadedImage.h"
#include "uefi/protocol/Shell.h"
#include "uefi/protocol/UnicodeCollation.h"

namespace {

constinit FileIoNoteWriter gNoteWriter = nullptr;

// A note about a failure of file access, for whoever listens (the debug log, once it has started).
template <class... A> void Note(const CHAR16* Format, const A&... args) {
  if (gNoteWriter == nullptr)
    return;
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  CHAR16 text[kFileIoNoteChars];
  FormatV(text, sizeof(text), Format, list, sizeof...(A));
  gNoteWriter(text);
}

} // namespace

void FileIoSetNoteWriter(FileIoNoteWriter Writer) {
  gNoteWriter = Writer;
}

namespace {

constexpr UINT64 kReadWriteCreate = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;
constexpr UINTN kListInfoBytes = 1104; // EFI_FILE_INFO and a name of up to 511 characters
constexpr UINTN kReadInfoBytes = 512;  // EFI_FILE_INFO for a whole-file read
constexpr UINTN kPrintBytes = 2048;

struct FileIoState {
  BOOLEAN ShellPresent;
  EFI_SHELL_PROTOCOL* Shell;
  EFI_LOADED_IMAGE_PROTOCOL* ModuleImage;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* DefaultVolume;
  CHAR16 ModuleDirectory[kFileIoPathChars];
  CHAR16 CurrentDirectory[kFileIoPathChars];
};

constinit FileIoState gFs = {FALSE, nullptr, nullptr, nullptr, u"\\", u"\\"};

// An EFI_FILE_INFO buffer with the record's alignment.
template <UINTN Bytes> struct InfoBuffer {
  UINT64 storage[(Bytes + 7) / 8];
  EFI_FILE_INFO* Info() { return reinterpret_cast<EFI_FILE_INFO*>(storage); }
};

bool IsVolumeQualified(const CHAR16* path) {
  return path != nullptr && CharToLower(path[0]) == u'f' && CharToLower(path[1]) == u's' &&
         StrFind(path, u":\\") != nullptr;
}

// Copies the text up to and including the first colon.
void CopyVolumeName(CHAR16 (&out)[kFileIoPathChars], const CHAR16* path) {
  UINTN i = 0;
  for (; path[i] != 0 && i + 1 < kFileIoPathChars; ++i) {
    out[i] = path[i];
    if (path[i] == u':') {
      ++i;
      break;
    }
  }
  out[i] = 0;
}

bool EndsWithBackslash(const CHAR16* s) {
  UINTN n = StrLen(s);
  return n > 0 && s[n - 1] == u'\\';
}

// The device part of a device path's text: everything up to its last ")".
void CutAfterLastParenthesis(CHAR16* text) {
  CHAR16* last = nullptr;
  for (CHAR16* p = text; *p != 0; ++p)
    if (*p == u')')
      last = p;
  if (last != nullptr)
    last[1] = 0;
}

// Opens the root directory of the volume holding Path. *Root stays null (with success) when there
// is no volume at all.
EFI_STATUS OpenRoot(const CHAR16* path, wc::FileOwner& root) {
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* volume = nullptr;
  EFI_STATUS status = FileIoLocateVolume(path, &volume);
  if (EFI_ERROR(status) || volume == nullptr)
    return status;
  return volume->OpenVolume(volume, root.Receive());
}

// The root directory of the volume that holds a path, and the path inside that volume. The root
// stays closed (with success) when there is no volume at all.
struct VolumeRoot {
  wc::FileOwner root;
  CHAR16 inside[kFileIoPathChars] = {};

  EFI_STATUS Open(const CHAR16* path) {
    EFI_STATUS status = OpenRoot(path, root);
    if (!EFI_ERROR(status) && root)
      FileIoVolumePath(inside, path, sizeof(inside));
    return status;
  }
  // The same for operations that need a volume: no volume at all is EFI_NO_MEDIA.
  EFI_STATUS OpenRequired(const CHAR16* path) {
    EFI_STATUS status = Open(path);
    return !EFI_ERROR(status) && !root ? EFI_NO_MEDIA : status;
  }
  EFI_STATUS OpenEntry(wc::FileOwner& entry, UINT64 mode, UINT64 attributes = 0) {
    return root->Open(root.Get(), entry.Receive(), inside, mode, attributes);
  }
};

// Creates the directory at a path inside the volume, and its missing parents first.
EFI_STATUS CreateDirectoryTree(EFI_FILE_PROTOCOL* root, CHAR16* path) {
  BOOLEAN isFile = FALSE;
  EFI_STATUS status = FileIoProbe(path, root, &isFile);
  if (!EFI_ERROR(status)) {
    if (!isFile)
      return EFI_SUCCESS;
    Note(u"Failed creating directory at \"%s\". A file exists there already. (%r)\r\n", path,
         EFI_WRITE_PROTECTED);
    return EFI_WRITE_PROTECTED;
  }
  if (status != EFI_NOT_FOUND)
    return status;
  CHAR16* last = StrFindLastChar(path, u'\\');
  if (last != nullptr && last != path) {
    *last = 0;
    status = CreateDirectoryTree(root, path);
    *last = u'\\';
    if (EFI_ERROR(status))
      return status;
  }
  wc::FileOwner dir;
  status = root->Open(root, dir.Receive(), path, kReadWriteCreate, EFI_FILE_DIRECTORY);
  if (EFI_ERROR(status))
    Note(u"Failed creating directory at \"%s\". (%r)\r\n", path, status);
  return status;
}

// Creates the missing parent directories of a file's path inside the volume.
EFI_STATUS CreateParents(EFI_FILE_PROTOCOL* root, CHAR16* path) {
  CHAR16* last = StrFindLastChar(path, u'\\');
  if (last == nullptr || last == path)
    return EFI_SUCCESS;
  *last = 0;
  EFI_STATUS status = CreateDirectoryTree(root, path);
  *last = u'\\';
  return status;
}

EFI_STATUS Resolve(CHAR16* Path, UINTN PathSize, bool fromModule) {
  if (Path == nullptr || PathSize < sizeof(CHAR16))
    return EFI_INVALID_PARAMETER;
  CHAR16 work[kFileIoPathChars];
  bool keepVolume = false;
  if (IsVolumeQualified(Path)) {
    if (!fromModule && gFs.ShellPresent) {
      StrCopy(work, sizeof(work), Path);
      keepVolume = true;
    } else {
      StrCopy(work, sizeof(work), StrFindChar(Path, u'\\'));
    }
  } else if (Path[0] == u'\\') {
    StrCopy(work, sizeof(work), Path);
  } else {
    CHAR16 base[256];
    if (fromModule)
      FileIoGetModuleDirectory(base, sizeof(base));
    else
      FileIoGetCurrentDirectory(base, sizeof(base));
    SPrint(work, sizeof(work), u"%s\\%s", base, Path);
  }

  CHAR16 result[kFileIoPathChars] = {};
  UINTN used = 0;
  bool first = true;
  for (CHAR16* component = work; component != nullptr;) {
    CHAR16* next = const_cast<CHAR16*>(StrFindChar(component, u'\\'));
    if (next != nullptr)
      *next++ = 0;
    if (component[0] == 0 || StrEq(component, u".")) {
      // empty components from doubled backslashes vanish
    } else if (keepVolume && first) {
      StrCopy(result, sizeof(result), component);
      used = StrLen(result);
    } else if (StrEq(component, u"..")) {
      for (UINTN i = used; i > 0; --i) {
        if (result[i - 1] == u'\\') {
          used = i - 1;
          result[used] = 0;
          break;
        }
      }
    } else {
      used += SPrint(result + used, sizeof(result) - used * sizeof(CHAR16), u"\\%s", component);
    }
    first = false;
    component = next;
  }
  // The root itself: "\" or "fs0:\".
  if (used == 0 || result[used - 1] == u':')
    StrAppend(result, sizeof(result), u"\\");
  StrCopy(Path, PathSize, result);
  return EFI_SUCCESS;
}

} // namespace

EFI_STATUS FileIoInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable) {
  void* iface = nullptr;
  if (!EFI_ERROR(gBS->LocateProtocol(&EFI_UNICODE_COLLATION_PROTOCOL2_GUID, nullptr, &iface)))
    SetUnicodeCollation(static_cast<EFI_UNICODE_COLLATION_PROTOCOL*>(iface));

  iface = nullptr;
  gFs.ShellPresent =
      !EFI_ERROR(gBS->LocateProtocol(&EFI_SHELL_PROTOCOL_GUID, nullptr, &iface)) && iface != nullptr;
  gFs.Shell = gFs.ShellPresent ? static_cast<EFI_SHELL_PROTOCOL*>(iface) : nullptr;

  EFI_STATUS status = gBS->HandleProtocol(ImageHandle, &EFI_LOADED_IMAGE_PROTOCOL_GUID,
                                          reinterpret_cast<void**>(&gFs.ModuleImage));
  if (EFI_ERROR(status))
    return status;

  UINTN count = 0;
  wc::PoolPtr<EFI_HANDLE> handles;
  if (EFI_ERROR(gBS->LocateHandleBuffer(ByProtocol, &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, nullptr, &count,
                                        handles.Receive())) ||
      count == 0) {
    if (SystemTable->ConOut != nullptr)
      SystemTable->ConOut->OutputString(SystemTable->ConOut,
                                        u"Failed Locating Simple File System Protocol\r\n");
  }
  handles.Reset();

  if (EFI_ERROR(gBS->HandleProtocol(gFs.ModuleImage->DeviceHandle, &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID,
                                    reinterpret_cast<void**>(&gFs.DefaultVolume))))
    gFs.DefaultVolume = nullptr;

  // The module's directory, from the first node of its file path.
  CHAR16 text[kFileIoPathChars] = {};
  if (const EFI_DEVICE_PATH_PROTOCOL* path = gFs.ModuleImage->FilePath) {
    UINTN nodeSize = DevicePathNodeLength(path);
    if (nodeSize >= 4 && nodeSize <= 0xFFFF) {
      // Only the first node: copy it and end the copy there.
      auto copy = wc::PoolPtr<UINT8>::Allocate(nodeSize + 4);
      if (copy) {
        CopyMem(copy.Get(), path, nodeSize);
        UINT8 end[4] = {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0};
        CopyMem(copy.Get() + nodeSize, end, sizeof(end));
        wc::PoolPtr<CHAR16> nodeText(
            DevicePathToText(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(copy.Get()), FALSE, FALSE));
        StrCopy(text, sizeof(text), nodeText.Get());
      }
    }
  }
  UINTN length = StrLen(text);
  UINTN tailEnd = (length > 0 && text[length - 1] == u'\\') ? length - 1 : length;
  bool namesFile = false;
  if (tailEnd >= 4) {
    const CHAR16* tail = text + tailEnd - 4;
    static constexpr const CHAR16* kImageExtensions[] = {u".efi", u".vex", u".vez", u".wex", u".wez"};
    for (const CHAR16* ext : kImageExtensions)
      namesFile |= StrniCmp(tail, ext, 4) == 0;
  }
  if (namesFile) {
    text[tailEnd] = 0;
    CHAR16* lastSlash = StrFindLastChar(text, u'\\');
    if (lastSlash != nullptr)
      lastSlash[1] = 0;
    else
      text[0] = 0; // a bare file name: the module lies in the root directory
  }
  if (text[0] == 0)
    StrCopy(text, sizeof(text), u"\\");
  else if (!EndsWithBackslash(text))
    StrAppend(text, sizeof(text), u"\\");
  StrCopy(gFs.ModuleDirectory, sizeof(gFs.ModuleDirectory), text);

  const CHAR16* cwd = gFs.ShellPresent ? gFs.Shell->GetEnv(u"cwd") : nullptr;
  const CHAR16* colon = StrFindChar(cwd, u':');
  if (colon != nullptr && colon[1] != 0)
    StrCopy(gFs.CurrentDirectory, sizeof(gFs.CurrentDirectory), colon + 1);
  else
    StrCopy(gFs.CurrentDirectory, sizeof(gFs.CurrentDirectory), gFs.ModuleDirectory);
  return EFI_SUCCESS;
}

void FileIoReset() {
  gFs.ShellPresent = FALSE;
  gFs.Shell = nullptr;
  gFs.ModuleImage = nullptr;
  gFs.DefaultVolume = nullptr;
  StrCopy(gFs.ModuleDirectory, sizeof(gFs.ModuleDirectory), u"\\");
  StrCopy(gFs.CurrentDirectory, sizeof(gFs.CurrentDirectory), u"\\");
  SetUnicodeCollation(nullptr);
}

BOOLEAN FileIoShellPresent() {
  return gFs.ShellPresent;
}

const CHAR16* FileIoGetShellVariable(const CHAR16* Name) {
  return gFs.ShellPresent ? gFs.Shell->GetEnv(Name) : nullptr;
}

EFI_STATUS FileIoGetCurrentDirectory(CHAR16* Buffer, UINTN BufferSize) {
  SPrint(Buffer, BufferSize, u"%s\\", gFs.CurrentDirectory);
  return EFI_SUCCESS;
}

EFI_STATUS FileIoGetModuleDirectory(CHAR16* Buffer, UINTN BufferSize) {
  StrCopy(Buffer, BufferSize, gFs.ModuleDirectory);
  return EFI_SUCCESS;
}

EFI_STATUS FileIoResolvePath(CHAR16* Path, UINTN PathSize) {
  return Resolve(Path, PathSize, false);
}
EFI_STATUS FileIoResolveModulePath(CHAR16* Path, UINTN PathSize) {
  return Resolve(Path, PathSize, true);
}

EFI_STATUS FileIoVolumePath(CHAR16* Buffer, const CHAR16* Path, UINTN BufferSize) {
  if (Buffer == nullptr || Path == nullptr)
    return EFI_INVALID_PARAMETER;
  StrCopy(Buffer, BufferSize, IsVolumeQualified(Path) ? StrFind(Path, u":\\") + 1 : Path);
  return EFI_SUCCESS;
}

EFI_STATUS FileIoLocateVolume(const CHAR16* Path, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL** Volume) {
  if (Path == nullptr || Volume == nullptr)
    return EFI_INVALID_PARAMETER;
  *Volume = gFs.DefaultVolume;
  if (!gFs.ShellPresent)
    return EFI_SUCCESS;

  CHAR16 map[kFileIoPathChars];
  if (IsVolumeQualified(Path)) {
    CopyVolumeName(map, Path);
  } else {
    const CHAR16* cwd = gFs.Shell->GetEnv(u"cwd");
    if (!IsVolumeQualified(cwd))
      return EFI_SUCCESS;
    CopyVolumeName(map, cwd);
  }

  wc::PoolPtr<EFI_DEVICE_PATH_PROTOCOL> mapPath(gFs.Shell->GetDevicePathFromFilePath(map));
  if (!mapPath) {
    Note(u"Failed to get devpath for path [%s]\r\n", Path);
    return EFI_NOT_FOUND;
  }
  wc::PoolPtr<CHAR16> mapText(DevicePathToText(mapPath.Get(), TRUE, TRUE));
  if (!mapText) {
    Note(u"Failed to convert devpath to string for path [%s]\r\n", Path);
    return EFI_UNSUPPORTED;
  }
  CutAfterLastParenthesis(mapText.Get());

  UINTN count = 0;
  wc::PoolPtr<EFI_HANDLE> handles;
  EFI_STATUS status = gBS->LocateHandleBuffer(ByProtocol, &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, nullptr,
                                              &count, handles.Receive());
  if (EFI_ERROR(status)) {
    Note(u"Failed to locate FS protocol - %r\r\n", status);
    return status;
  }
  for (UINTN i = 0; i < count; ++i) {
    EFI_DEVICE_PATH_PROTOCOL* fsPath = nullptr;
    status =
        gBS->HandleProtocol(handles[i], &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&fsPath));
    if (EFI_ERROR(status)) {
      Note(u"Failed to locate FS devpath protocol %d - %r\r\n", i, status);
      return status;
    }
    wc::PoolPtr<CHAR16> fsText(DevicePathToText(fsPath, TRUE, TRUE));
    if (!fsText) {
      Note(u"Failed to convert devpath to string for path [%s]\r\n", Path);
      return EFI_UNSUPPORTED;
    }
    if (StriEq(fsText.Get(), mapText.Get()))
      return gBS->HandleProtocol(handles[i], &EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID,
                                 reinterpret_cast<void**>(Volume));
  }
  *Volume = nullptr;
  return EFI_NOT_FOUND;
}

EFI_STATUS FileIoProbe(const CHAR16* VolumePath, EFI_FILE_PROTOCOL* Root, BOOLEAN* IsFile) {
  if (VolumePath == nullptr || Root == nullptr || IsFile == nullptr)
    return EFI_INVALID_PARAMETER;
  wc::FileOwner entry;
  EFI_STATUS status = Root->Open(Root, entry.Receive(), VolumePath, EFI_FILE_MODE_READ, 0);
  if (status == EFI_NOT_FOUND)
    return status;
  if (EFI_ERROR(status)) {
    Note(u"Failed opening file at \"%s\". (%r)\r\n", VolumePath, status);
    return status;
  }
  UINT64 position = 0;
  status = entry->GetPosition(entry.Get(), &position);
  entry.Close();
  if (!EFI_ERROR(status)) {
    *IsFile = TRUE;
    return EFI_SUCCESS;
  }
  if (status == EFI_UNSUPPORTED) {
    *IsFile = FALSE;
    return EFI_SUCCESS;
  }
  Note(u"Failed getting position at \"%s\". (%r)\r\n", VolumePath, status);
  return status;
}

BOOLEAN FileIoFileExists(const CHAR16* Path) {
  VolumeRoot v;
  wc::FileOwner file;
  if (Path == nullptr || EFI_ERROR(v.Open(Path)) || !v.root ||
      EFI_ERROR(v.OpenEntry(file, EFI_FILE_MODE_READ)))
    return FALSE;
  UINT64 position = 0;
  return EFI_ERROR(file->GetPosition(file.Get(), &position)) ? FALSE : TRUE;
}

EFI_STATUS FileIoCreateDirectory(const CHAR16* Path) {
  if (Path == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.Open(Path);
  if (EFI_ERROR(status) || !v.root)
    return status;
  return CreateDirectoryTree(v.root.Get(), v.inside);
}

EFI_STATUS FileIoCreateFile(const CHAR16* Path) {
  if (Path == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.Open(Path);
  if (EFI_ERROR(status) || !v.root)
    return status;
  BOOLEAN isFile = FALSE;
  status = FileIoProbe(v.inside, v.root.Get(), &isFile);
  if (!EFI_ERROR(status)) {
    if (isFile)
      return EFI_SUCCESS;
    Note(u"Failed creating file at \"%s\". A directory exists there already. (%r)\r\n", Path,
         EFI_WRITE_PROTECTED);
    return EFI_WRITE_PROTECTED;
  }
  if (status != EFI_NOT_FOUND)
    return status;
  status = CreateParents(v.root.Get(), v.inside);
  if (EFI_ERROR(status))
    return status;
  wc::FileOwner file;
  status = v.OpenEntry(file, kReadWriteCreate);
  if (EFI_ERROR(status))
    Note(u"Failed creating file at \"%s\". (%r)\r\n", v.inside, status);
  return status;
}

EFI_STATUS FileIoDeleteFile(const CHAR16* Path) {
  if (Path == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.OpenRequired(Path);
  if (EFI_ERROR(status))
    return status;
  wc::FileOwner file;
  status = v.OpenEntry(file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE);
  if (EFI_ERROR(status))
    return status;
  EFI_FILE_PROTOCOL* f = file.Release(); // Delete closes the handle
  return f->Delete(f);
}

EFI_STATUS FileIoOpenFile(const CHAR16* Path, UINT64 OpenMode, UINT64 Attributes, EFI_FILE_PROTOCOL** File) {
  if (File != nullptr)
    *File = nullptr;
  if (Path == nullptr || File == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.OpenRequired(Path);
  if (EFI_ERROR(status))
    return status;
  return v.root->Open(v.root.Get(), File, v.inside, OpenMode, Attributes);
}

EFI_STATUS FileIoListDirectory(const CHAR16* Path, FILE_IO_LIST_ENTRY** List, UINTN* Count) {
  if (Path == nullptr || List == nullptr || Count == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.Open(Path);
  if (EFI_ERROR(status) || !v.root)
    return status;
  wc::FileOwner dir;
  status = v.OpenEntry(dir, EFI_FILE_MODE_READ);
  if (EFI_ERROR(status))
    return status;
  auto info = wc::PoolPtr<EFI_FILE_INFO>::Allocate(kListInfoBytes);
  if (!info)
    return EFI_OUT_OF_RESOURCES;

  // Calls visit(entry) for every entry but "." and ".."; stops at the first failure.
  auto walk = [&](auto&& visit) -> EFI_STATUS {
    EFI_STATUS s = dir->SetPosition(dir.Get(), 0);
    if (EFI_ERROR(s))
      return s;
    for (;;) {
      UINTN size = kListInfoBytes;
      s = dir->Read(dir.Get(), &size, info.Get());
      if (EFI_ERROR(s))
        return s;
      if (size == 0)
        return EFI_SUCCESS;
      // The name must end within what was read.
      reinterpret_cast<CHAR16*>(info.Get())[kListInfoBytes / sizeof(CHAR16) - 1] = 0;
      if (StrEq(info->FileName, u".") || StrEq(info->FileName, u".."))
        continue;
      s = visit(*info);
      if (EFI_ERROR(s))
        return s;
    }
  };

  UINTN directories = 0;
  UINTN files = 0;
  status = walk([&](const EFI_FILE_INFO& e) {
    ++((e.Attribute & EFI_FILE_DIRECTORY) != 0 ? directories : files);
    return EFI_SUCCESS;
  });
  if (EFI_ERROR(status))
    return status;
  UINTN total = directories + files;
  auto list =
      wc::PoolPtr<FILE_IO_LIST_ENTRY>::AllocateZero(wc::Max<UINTN>(total, 1) * sizeof(FILE_IO_LIST_ENTRY));
  if (!list)
    return EFI_OUT_OF_RESOURCES;
  UINTN nextDir = 0;
  UINTN nextFile = directories;
  status = walk([&](const EFI_FILE_INFO& e) -> EFI_STATUS {
    bool isDir = (e.Attribute & EFI_FILE_DIRECTORY) != 0;
    UINTN& slot = isDir ? nextDir : nextFile;
    if (slot >= (isDir ? directories : total))
      return EFI_SUCCESS; // the directory changed between the passes
    CHAR16* name = StrDuplicate(e.FileName);
    if (name == nullptr)
      return EFI_OUT_OF_RESOURCES;
    list[slot].FileName = name;
    list[slot].Attribute = e.Attribute;
    ++slot;
    return EFI_SUCCESS;
  });
  if (EFI_ERROR(status)) {
    for (UINTN i = 0; i < total; ++i)
      FreePool(list[i].FileName);
    *List = nullptr;
    *Count = 0;
    return status;
  }
  *List = list.Release();
  *Count = total;
  return EFI_SUCCESS;
}

EFI_STATUS FileIoGetFileSize(EFI_FILE_PROTOCOL* File, UINT64* Size) {
  if (File == nullptr || Size == nullptr)
    return EFI_INVALID_PARAMETER;
  InfoBuffer<kListInfoBytes> buffer;
  UINTN size = sizeof(buffer.storage);
  EFI_STATUS status = File->GetInfo(File, &EFI_FILE_INFO_ID, &size, buffer.Info());
  if (!EFI_ERROR(status))
    *Size = buffer.Info()->FileSize;
  return status;
}

EFI_STATUS FileIoReadFile(const CHAR16* Path, void** Buffer, UINTN* Size) {
  if (Path == nullptr || Buffer == nullptr || Size == nullptr)
    return EFI_INVALID_PARAMETER;
  *Buffer = nullptr;
  VolumeRoot v;
  EFI_STATUS status = v.OpenRequired(Path);
  if (EFI_ERROR(status))
    return status;
  wc::FileOwner file;
  status = v.OpenEntry(file, EFI_FILE_MODE_READ);
  if (EFI_ERROR(status))
    return status;
  InfoBuffer<kReadInfoBytes> info;
  UINTN infoSize = sizeof(info.storage);
  status = file->GetInfo(file.Get(), &EFI_FILE_INFO_ID, &infoSize, info.Info());
  if (EFI_ERROR(status))
    return status;
  UINT64 fileSize = info.Info()->FileSize;
  auto data = wc::PoolPtr<UINT8>::Allocate(fileSize == 0 ? 1 : fileSize);
  if (!data)
    return EFI_OUT_OF_RESOURCES;
  *Size = fileSize;
  UINTN read = fileSize;
  status = file->Read(file.Get(), &read, data.Get());
  if (EFI_ERROR(status))
    return status;
  if (read < fileSize)
    return EFI_DEVICE_ERROR;
  *Buffer = data.Release();
  return EFI_SUCCESS;
}

EFI_STATUS FileIoWriteFile(const CHAR16* Path, const void* Data, UINTN Count, UINT64 Position,
                           UINT64 RestartAbove) {
  if (Path == nullptr || Data == nullptr)
    return EFI_INVALID_PARAMETER;
  VolumeRoot v;
  EFI_STATUS status = v.OpenRequired(Path);
  if (EFI_ERROR(status))
    return status;
  wc::FileOwner file;
  status = v.OpenEntry(file, kReadWriteCreate);
  if (EFI_ERROR(status))
    return status;
  UINT64 size = 0;
  if (RestartAbove != kFileIoNeverRestart && EFI_ERROR(FileIoGetFileSize(file.Get(), &size)))
    size = 0;
  if (size > RestartAbove) {
    EFI_FILE_PROTOCOL* old = file.Release();
    old->Delete(old);
    status = v.OpenEntry(file, kReadWriteCreate);
    if (EFI_ERROR(status))
      return status;
  }
  status = file->SetPosition(file.Get(), Position);
  if (EFI_ERROR(status))
    return status;
  const auto* bytes = static_cast<const UINT8*>(Data);
  while (Count > 0) {
    UINTN chunk = Count;
    status = file->Write(file.Get(), &chunk, bytes);
    if (EFI_ERROR(status))
      return status;
    if (chunk == 0)
      return EFI_DEVICE_ERROR; // no progress: the volume takes nothing more
    bytes += chunk;
    Count -= wc::Min(chunk, Count);
  }
  return EFI_SUCCESS;
}

EFI_STATUS FileIoWriteString(EFI_FILE_PROTOCOL* File, const CHAR16* String) {
  if (File == nullptr)
    return EFI_INVALID_PARAMETER;
  if (String == nullptr)
    return EFI_SUCCESS;
  EFI_STATUS status = File->SetPosition(File, kFileIoEndOfFile);
  if (EFI_ERROR(status))
    return status;
  UINTN size = StrLen(String) * sizeof(CHAR16);
  return File->Write(File, &size, String);
}

EFI_STATUS FileIoPrintV(EFI_FILE_PROTOCOL* File, const CHAR16* Format, const PrintArg* Args, UINTN Count) {
  CHAR16 text[kPrintBytes / sizeof(CHAR16)];
  FormatV(text, sizeof(text), Format, Args, Count);
  return FileIoWriteString(File, text);
}

const CHAR16* FileIoModuleDirectory() {
  return gFs.ModuleDirectory;
}
