// The one media read, and the one wait for a cable built on it. A NIC's media state is read one of
// two ways: through its simple network (a NIC nobody runs is started and initialized just long
// enough to read it and put back; a running one is asked for its status), or through the mode data
// a short-lived managed-network child reports. The read says what it did in a report and logs
// nothing: the caller words the report.
#pragma once
#include "uefi/protocol/SimpleNetwork.h"

enum class MediaPath : UINT8 { SimpleNetwork, ManagedNetworkChild };

// Where a read ended.
enum class MediaStep : UINT8 {
  Read,             // the state was read: Present
  OpenFailed,       // the simple network (or the managed-network child) could not be had: Status
  NoModeData,       // the driver gives no mode data
  NotSupported,     // the NIC cannot report its media
  StartFailed,      // Status
  InitializeFailed, // Status
  StatusFailed,     // Status
};

struct MediaReport {
  MediaStep Step;
  EFI_STATUS Status;
  bool FoundRunning;         // simple network: somebody ran the NIC already (FoundState says how)
  UINT32 FoundState;         // the simple network's state as found
  EFI_STATUS StatusRead;     // a running NIC's GetStatus answer
  bool Present;              // a link is up
  EFI_MAC_ADDRESS Permanent; // the NIC's permanent address, all 32 bytes of it
};

// Reads the media state of the NIC on this handle. EFI_SUCCESS with the state, EFI_UNSUPPORTED when
// the NIC cannot report it, EFI_DEVICE_ERROR when its driver gives no mode data, otherwise the
// failing firmware status. The NIC is left in the state it was found in, except after a failed
// Start, and after a failed Initialize unless StopAfterFailedInitialize.
EFI_STATUS ReadMedia(EFI_HANDLE Nic, MediaPath Path, bool StopAfterFailedInitialize, MediaReport* Report);

// A wait for a cable: Passes passes of up to Checks reads, Pause µs apart (before each read when
// PauseFirst, otherwise after each read that saw none).
struct CableWaitPlan {
  UINTN Passes;
  UINTN Checks;
  UINTN Pause;
  bool PauseFirst;
};
enum class CableSeen : UINT8 { Present, Absent, Stop };
enum class CableWaitEnd : UINT8 { Cabled, NoCable, Stopped };

// Check() reads once in the caller's way and says what it saw (Stop ends the wait: the caller's own
// verdict). NoCableYet(Pass, Check) runs after each read that saw none, before the pause, for the
// caller's prompts and reports; FALSE ends the wait.
template <class Check, class NoCableYet>
CableWaitEnd WaitForCable(const CableWaitPlan& Plan, Check&& CheckOnce, NoCableYet&& Absent,
                          void (*Pause)(UINTN));

template <class Check, class NoCableYet>
CableWaitEnd WaitForCable(const CableWaitPlan& Plan, Check&& CheckOnce, NoCableYet&& Absent,
                          void (*Pause)(UINTN)) {
  for (UINTN pass = 0; pass < Plan.Passes; ++pass)
    for (UINTN check = 0; check < Plan.Checks; ++check) {
      if (Plan.PauseFirst)
        Pause(Plan.Pause);
      switch (CheckOnce()) {
      case CableSeen::Present:
        return CableWaitEnd::Cabled;
      case CableSeen::Stop:
        return CableWaitEnd::Stopped;
      case CableSeen::Absent:
        break;
      }
      if (!Absent(pass, check))
        return CableWaitEnd::Stopped;
      if (!Plan.PauseFirst)
        Pause(Plan.Pause);
    }
  return CableWaitEnd::NoCable;
}

// Stalls for the given microseconds: the wait's pause in firmware.
void StallMicroseconds(UINTN Microseconds);
