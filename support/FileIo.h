// File access over the firmware's simple file systems: volume lookup (with the UEFI shell's map
// names and current directory when the shell is there), path resolution, probing, creating,
// deleting, listing, reading and writing files.
//
// Path forms: volume-qualified ("fs0:\dir\file", any case, the volume being the text up to the
// first colon), absolute ("\dir\file") and relative (anything else, "fsdata\x" included).
#pragma once
#include "base/Print.h"
#include "uefi/SystemTable.h"
#include "uefi/protocol/SimpleFileSystem.h"

constexpr UINTN kFileIoPathChars = 512;
constexpr UINT64 kFileIoEndOfFile = 0xFFFFFFFFFFFFFFFFull;
constexpr UINT64 kFileIoNeverRestart = 0xFFFFFFFFFFFFFFFFull;

struct FILE_IO_LIST_ENTRY {
  CHAR16* FileName; // pool copy owned by the list
  UINT64 Attribute;
};

// Starts file access and, through it, the debug log. Called first at start-up.
EFI_STATUS FileIoInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);
// The module's own directory ("\" before start-up), ending in a backslash.
const CHAR16* FileIoModuleDirectory();

// File access notes its own failures (a volume or path it cannot reach) through the writer given
// here; the debug log attaches itself when it starts. Without a writer the notes are dropped.
constexpr UINTN kFileIoNoteChars = 1024;
using FileIoNoteWriter = EFI_STATUS (*)(const CHAR16* Text);
void FileIoSetNoteWriter(FileIoNoteWriter Writer);
BOOLEAN FileIoShellPresent();
const CHAR16* FileIoGetShellVariable(const CHAR16* Name);
EFI_STATUS FileIoGetCurrentDirectory(CHAR16* Buffer, UINTN BufferSize);
EFI_STATUS FileIoGetModuleDirectory(CHAR16* Buffer, UINTN BufferSize);
// Rewrite Path (a buffer of PathSize bytes) as an absolute, normalised path: relative paths are
// taken from the current directory, or from the module's directory for the module form.
EFI_STATUS FileIoResolvePath(CHAR16* Path, UINTN PathSize);
EFI_STATUS FileIoResolveModulePath(CHAR16* Path, UINTN PathSize);
EFI_STATUS FileIoLocateVolume(const CHAR16* Path, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL** Volume);
EFI_STATUS FileIoVolumePath(CHAR16* Buffer, const CHAR16* Path, UINTN BufferSize);
EFI_STATUS FileIoProbe(const CHAR16* VolumePath, EFI_FILE_PROTOCOL* Root, BOOLEAN* IsFile);
BOOLEAN FileIoFileExists(const CHAR16* Path);
EFI_STATUS FileIoCreateDirectory(const CHAR16* Path);
EFI_STATUS FileIoCreateFile(const CHAR16* Path);
EFI_STATUS FileIoDeleteFile(const CHAR16* Path);
EFI_STATUS FileIoOpenFile(const CHAR16* Path, UINT64 OpenMode, UINT64 Attributes, EFI_FILE_PROTOCOL** File);
// Directories first, then files, each group in the firmware's order; the caller frees each name
// and the array.
EFI_STATUS FileIoListDirectory(const CHAR16* Path, FILE_IO_LIST_ENTRY** List, UINTN* Count);
EFI_STATUS FileIoGetFileSize(EFI_FILE_PROTOCOL* File, UINT64* Size);
// The whole file in a new pool buffer (no terminator), which the caller frees.
EFI_STATUS FileIoReadFile(const CHAR16* Path, void** Buffer, UINTN* Size);
// Writes at Position (kFileIoEndOfFile: at the end), creating the file. A file already larger than
// RestartAbove bytes is emptied first (deleted and created anew), as a log file that must not grow
// without bound asks for.
EFI_STATUS FileIoWriteFile(const CHAR16* Path, const void* Data, UINTN Count, UINT64 Position,
                           UINT64 RestartAbove = kFileIoNeverRestart);
// Appends the characters (two bytes each, no terminator) at the end of an open file.
EFI_STATUS FileIoWriteString(EFI_FILE_PROTOCOL* File, const CHAR16* String);
// Formats into at most 2048 bytes and appends the text at the end of the file.
EFI_STATUS FileIoPrintV(EFI_FILE_PROTOCOL* File, const CHAR16* Format, const PrintArg* Args, UINTN Count);

template <class... A>
EFI_STATUS FileIoPrint(EFI_FILE_PROTOCOL* File, const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  return FileIoPrintV(File, Format, list, sizeof...(A));
}

// Returns file access to its state before start-up (for tests that load the module repeatedly).
void FileIoReset();
