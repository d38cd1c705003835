// VexRun started by the firmware from a boot image (a USB stick or a network boot) rather than from
// the shell: it connects the drivers itself, takes its calls and settings from the files beside it,
// and powers the machine off at the end.
#pragma once
#include "base/Owners.h"
#include "manager/Manager.h"

// The settings files of a boot image, kept while VexRun runs.
struct BootFiles {
  wc::PoolPtr<CHAR16> Language;
  wc::PoolPtr<CHAR16> Upload;
};

// Prepares a boot-mode run: the watchdog off, every controller connected, calls.txt, script.txt,
// lang.txt and upload.txt beside the manager, results.txt made.
void StartBootMode(Settings& S, BootFiles& Files);

// The end of a boot-mode run: the results stay on the screen until a key or the wait is over,
// then the machine powers off.
[[noreturn]] void PowerOff(const UploadState& Upload);
