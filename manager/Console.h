// VexRun's console and the manager protocol it installs for the module: output, progress and
// prompts, and the menu operation of the graphics and console library protocols. Everything shown
// also goes to VexRun.log and VexRun.out beside the manager.
#pragma once
#include "base/Print.h"
#include "manager/Manager.h"

// UTF-8 copy of a text into one of the manager's files (nothing when the file is null).
void WriteText(EFI_FILE_PROTOCOL* File, const CHAR16* Text);
// A text on the screen (in the attribute's colour) and in the manager's logs.
void Show(const CHAR16* Text, UINTN Attribute = 0);

template <class... A> void Say(const CHAR16* Format, const A&... Args) {
  CHAR16 line[kLineChars];
  SPrint(line, sizeof(line), Format, Args...);
  Show(line);
}

EFI_INPUT_KEY WaitForKey();
// Lets go of keys typed before a screen appeared.
void DrainKeys();

// A message of a message file in the manager's language, after Prefix ("... unavailable" when the
// file does not have it).
void ShowMessageText(const CHAR16* Prefix, UINTN Id, const CHAR16* File);

// The manager protocol, and the menu protocols that are wanted, on a new handle; removed again by
// UninstallManagerProtocols.
EFI_STATUS InstallManagerProtocols(EFI_HANDLE* Handle, bool GraphicsMenu, bool ConsoleMenu);
void UninstallManagerProtocols(EFI_HANDLE Handle);
