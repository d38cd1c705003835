// A session of VexRun with the module: load it, name it, run the calls (or the technician's menu),
// unload it, and say after each step what happened.
#pragma once
#include "manager/Manager.h"

// Loads the module, names it, runs calls [First, Last) or the menu, and unloads it again.
EFI_STATUS RunSession(EFI_HANDLE Image, EFI_DEVICE_PATH_PROTOCOL* ModulePath, const Settings& Settings,
                      UINTN First, UINTN Last);
