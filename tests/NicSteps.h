// The NIC steps as the tests take and word them: the choice of a NIC among the managed-network
// handles, the media read through the simple network, and the cable wait of the ping test and the
// NIC tests. The steps below tests/ report what they did; the lines here are the tests' own.
#pragma once
#include "base/Owners.h"
#include "nic/MediaCheck.h"
#include "nic/NicAccess.h"

// How a test words a media read through the simple network: its lines, in the order the read's
// steps ran (nothing else is logged while a read runs, so saying them afterwards keeps the order).
struct MediaWords {
  const CHAR16* OpenFailed;       // %r: the simple network could not be opened
  const CHAR16* NotSupported;     // the NIC cannot report its media
  const CHAR16* Starting;         // before an idle NIC is started; may be null
  const CHAR16* StartFailed;      // %r
  const CHAR16* InitializeFailed; // %r
  const CHAR16* Running;          // %x the NIC's state: somebody runs the NIC already
  const CHAR16* StatusRead;       // %r what GetStatus answered, whatever it was; may be null
  const CHAR16* StatusFailed;     // %r
  const CHAR16* Present;          // %d the media-present flag once read; may be null
};

void SayMedia(const MediaReport& Report, const MediaWords& Words);

// Names in the log the driver that serves the NIC, by the name it gives the controller ("Which" says
// which NIC): a cable verdict is that driver's, and two NICs of one model need not have the same one
// (one NIC's option ROM may take over both).
void SayServingDriver(EFI_HANDLE Nic, const CHAR16* Which);

// What a test logs when it cannot choose its NIC. The line lists end with a null entry.
struct NicChoiceTexts {
  const CHAR16* const* NoHandles;    // no handle carries the managed-network service binding
  const CHAR16* const* LookupFailed; // each with %r: the handle lookup failed otherwise
  const CHAR16* Found;               // %x the number of handles found; may be null
  const CHAR16* NotThere;            // the position or device ID names no handle
};
// What the module can see of why the network stack did not start on the NICs: a line naming the
// missing random-number generator, network drivers not connected to a NIC, no NIC driver at all, or
// a binding missing although all of them are there.
void SayWhyNoNetworkStack();

// ChooseNic, worded with the test's texts; a machine without managed-network bindings also gets
// SayWhyNoNetworkStack's line.
NicChoice ChooseNicSaying(const NicChoiceTexts& Texts, UINT16 DeviceId, UINT64 Index,
                          wc::HandleBuffer& Handles, EFI_HANDLE* Nic, EFI_STATUS* Status);

// The first of Handles whose device path, as text, holds Wanted (logged as "The NIC device path:"); null
// when none does.
EFI_HANDLE NicWithDevicePath(const wc::HandleBuffer& Handles, const CHAR16* Wanted);

// The cable wait of the ping test and of the NIC tests that need a link: up to six media reads
// through a managed-network child, one second apart, with prompt 25 of the message file (connect
// the cable) after the first read that sees none. A NIC that cannot report its media, or whose
// media state cannot be read, counts as connected. FALSE when six reads saw no cable.
bool WaitForCableAtPrompt(EFI_HANDLE Nic);
