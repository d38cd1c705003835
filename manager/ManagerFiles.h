// The files beside VexRun: its own directory, settings files, fresh result files, and the device
// path of the module it loads.
#pragma once
#include "base/Owners.h"
#include "manager/Manager.h"
#include "base/TextDecode.h"
#include "uefi/protocol/LoadedImage.h"

// The directory of the manager's own file, from its loaded image, into gManager->Dir.
void FindOwnDirectory(EFI_LOADED_IMAGE_PROTOCOL* Self);

// A text file beside the manager (or at an absolute path), decoded: UTF-16 with its mark, otherwise
// the fallback (UTF-8, with or without its mark, unless said otherwise).
EFI_STATUS ReadWholeFile(const CHAR16* Name, wc::PoolPtr<CHAR16>& Text,
                         TextEncoding Fallback = TextEncoding::Utf8);
// The full path of the module's message file beside the manager.
void MessageFilePath(CHAR16 (&Path)[kPathChars]);
// The bytes of a file beside the manager, in pool.
EFI_STATUS ReadFileBytes(const CHAR16* Name, void** Data, UINTN* Size);

// The first line of a settings file beside the manager that is neither empty nor a "#" comment; it
// points into Text. Null when the file or such a line is missing.
const CHAR16* SettingLine(const CHAR16* Name, wc::PoolPtr<CHAR16>& Text);

// A new, empty file beside the manager (null when it cannot be made: a write-protected stick).
EFI_FILE_PROTOCOL* CreateFresh(const CHAR16* Name);
// A whole document (pool text, which this frees) into a fresh file beside the manager.
void WriteDocument(const CHAR16* Name, CHAR16* Text);
// The manager's open files, written through to the disk.
void FlushFiles();

// The device path of a file beside the manager: the volume's path and a file-path node (pool).
EFI_DEVICE_PATH_PROTOCOL* FileDevicePath(EFI_HANDLE Device, const CHAR16* Name);
// Whether the manager's volume is a disk in memory (a network boot).
bool OnRamDisk(EFI_HANDLE Device);
