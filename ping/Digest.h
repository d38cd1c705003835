// The SHA-256 of a download: the firmware's EFI_HASH2_PROTOCOL where the firmware has one (a
// platform's own, perhaps on the processor's SHA instructions), the module's own otherwise. The choice
// is made once per digest; a firmware hash that fails half way loses the digest, which no fallback
// could rebuild from bytes already gone.
#pragma once
#include "base/Sha256.h"
#include "nic/ServiceChildren.h"

class DownloadDigest {
public:
  DownloadDigest() = default;
  DownloadDigest(const DownloadDigest&) = delete;
  DownloadDigest& operator=(const DownloadDigest&) = delete;

  // Starts a digest: by the firmware when a hash child can be had and takes SHA-256.
  void Begin();
  // False once the firmware's hash has refused a piece (Status() says how); the pieces after it are
  // not hashed.
  bool Update(const UINT8* Data, UINTN Size);
  // The digest; false when the firmware's hash failed at any point. The child goes.
  bool Final(UINT8 (&Digest)[kSha256Bytes]);
  bool ByFirmware() const { return firmware_; }
  EFI_STATUS Status() const { return status_; }

private:
  Sha256 own_;
  Hash2Child child_;
  bool firmware_ = false;
  EFI_STATUS status_ = EFI_SUCCESS;
};
