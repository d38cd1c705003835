// The cable check through a NIC's simple network: a NIC that nobody runs is started and
// initialized just long enough to read its media state and then put back; a running one is asked
// for its status. The cable-detection test and the interactive test both check this way; what each
// says at each step, and whether a NIC whose Initialize failed is stopped again, is theirs to give.
#pragma once
#include "uefi/protocol/SimpleNetwork.h"

struct MediaCheckRules {
  const CHAR16* OpenFailed;       // %r: the simple network could not be opened
  const CHAR16* NotSupported;     // the NIC cannot report its media
  const CHAR16* Starting;         // before an idle NIC is started; may be null
  const CHAR16* StartFailed;      // %r
  const CHAR16* InitializeFailed; // %r
  bool StopAfterFailedInitialize; // put an idle NIC back to stopped when Initialize fails
  const CHAR16* Running;          // %x the NIC's state: somebody runs the NIC already
  const CHAR16* StatusRead;       // %r what GetStatus answered, whatever it was; may be null
  const CHAR16* StatusFailed;     // %r
  const CHAR16* Present;          // %d the media-present flag once read; may be null
};

struct MediaState {
  bool Present;              // a link is up
  EFI_MAC_ADDRESS Permanent; // the NIC's permanent address, all 32 bytes of it
};

// Reads the media state of the NIC on this handle. EFI_UNSUPPORTED when the NIC cannot report its
// media (State untouched), EFI_DEVICE_ERROR when its driver gives no mode data, otherwise the
// failing firmware status. The NIC is left in the state it was found in, except after a failed
// Start, and after a failed Initialize unless the rules stop it again.
EFI_STATUS CheckMedia(EFI_HANDLE Nic, const MediaCheckRules& Rules, MediaState* State);
