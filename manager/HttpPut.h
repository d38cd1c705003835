// One HTTP PUT through the firmware's own HTTP client, and the names results are sent under:
// URL/<machine>/<run>/<file>, where the machine is the SMBIOS system UUID and the run the time the
// manager started.
#pragma once
#include "ping/HttpExchange.h"

constexpr UINTN kUrlChars = 400;
constexpr UINTN kMachineChars = 40;
constexpr UINTN kUploadNameChars = 12; // the longest name of a results file ("results.json")

// The SMBIOS system UUID (type 1, offset 8) in registry form, lower case. SMBIOS stores its first
// three fields little-endian. False for a UUID the table marks as unset (all zeros: not present;
// all ones: not settable), so that no two machines share a made-up name.
bool FormatSystemUuid(const UINT8 (&Uuid)[16], CHAR16* Out, UINTN OutSize);

// The run's folder under the upload URL: URL/<machine>/<yyyymmdd-hhmmss>-<tag>/ (the tag, five digits, keeps
// two runs started in the same second apart). False when it, followed by a file name of
// kUploadNameChars characters, does not fit: two files must never be sent to one cut-off URL.
bool UploadFolder(const CHAR16* BaseUrl, const CHAR16* Machine, const EFI_TIME& Start, UINT16 Tag,
                  CHAR16* Out, UINTN OutSize);

// How one PUT ended.
struct PutOutcome {
  EFI_STATUS Status = EFI_NOT_STARTED; // success only for a 2xx answer
  UINTN HttpCode = 0;    // the answer's code; 0 without an answer, or one the firmware does not name
  bool Answered = false; // the server sent a status line
};

// What an HTTPS upload without an answer says of the firmware's TLS, as its HTTP client reports it:
// EFI_NOT_FOUND for a missing TlsCaCertificate variable (no certificate authority enrolled) and
// EFI_ABORTED for a handshake that failed. Null for any other outcome.
const CHAR16* HttpsTrouble(const CHAR16* Url, const PutOutcome& Outcome);

// One HTTP PUT of Body to Url through the HTTP service binding on Service, in a child of its own
// that is destroyed before it returns. Waits at most TimeoutMs for each of the request and the answer
// (the firmware's own TCP connect may take up to its connection timeout before that).
// Each token lives, with the message it carries, in pool until the firmware is done with it: a token
// that Cancel does not withdraw is left to the firmware (ReleaseFinishedExchanges frees it later).
// Bound, when given, ends every wait once it is over.
PutOutcome HttpPut(EFI_HANDLE Service, const CHAR16* Url, const CHAR8* ContentType, const void* Body,
                   UINTN Size, UINT32 TimeoutMs, const WaitBound* Bound = nullptr);
