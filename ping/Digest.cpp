#include "ping/Digest.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"

void DownloadDigest::Begin() {
  child_.Close();
  own_.Reset();
  firmware_ = false;
  status_ = EFI_SUCCESS;
  wc::HandleBuffer services;
  if (EFI_ERROR(services.Locate(EFI_HASH2_SERVICE_BINDING_PROTOCOL_GUID)) || services.Count() == 0)
    return;
  if (EFI_ERROR(child_.Open(services[0], gImageHandle)))
    return;
  if (EFI_ERROR(child_->HashInit(child_.Get(), &EFI_HASH_ALGORITHM_SHA256_GUID))) {
    child_.Close(); // a hash without SHA-256: the module's own does it
    return;
  }
  firmware_ = true;
}

bool DownloadDigest::Update(const UINT8* Data, UINTN Size) {
  if (!firmware_) {
    own_.Update(Data, Size);
    return true;
  }
  if (EFI_ERROR(status_))
    return false;
  status_ = child_->HashUpdate(child_.Get(), Data, Size);
  return !EFI_ERROR(status_);
}

bool DownloadDigest::Final(UINT8 (&Digest)[kSha256Bytes]) {
  if (!firmware_) {
    own_.Final(Digest);
    return true;
  }
  EFI_HASH2_OUTPUT out = {};
  if (!EFI_ERROR(status_))
    status_ = child_->HashFinal(child_.Get(), &out);
  child_.Close();
  CopyMem(Digest, out.Sha256Hash, kSha256Bytes);
  return !EFI_ERROR(status_);
}
