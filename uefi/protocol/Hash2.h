// EFI_HASH2_SERVICE_BINDING_PROTOCOL and EFI_HASH2_PROTOCOL: the firmware's hashing, one child per
// digest in progress.
#pragma once
#include "uefi/protocol/ServiceBinding.h"

constexpr EFI_GUID EFI_HASH2_SERVICE_BINDING_PROTOCOL_GUID = {
    0xDA836F8D, 0x217F, 0x4CA0, {0x99, 0xC2, 0x1C, 0xA4, 0xE1, 0x60, 0x77, 0xEA}};
constexpr EFI_GUID EFI_HASH2_PROTOCOL_GUID = {
    0x55B1D734, 0xC5E1, 0x49DB, {0x96, 0x47, 0xB1, 0x6A, 0xFB, 0x0E, 0x30, 0x5B}};
constexpr EFI_GUID EFI_HASH_ALGORITHM_SHA256_GUID = {
    0x51AA59DE, 0xFDF2, 0x4EA3, {0xBC, 0x63, 0x87, 0x5F, 0xB7, 0x84, 0x2E, 0xE9}};

union EFI_HASH2_OUTPUT {
  UINT8 Md5Hash[16];
  UINT8 Sha1Hash[20];
  UINT8 Sha224Hash[28];
  UINT8 Sha256Hash[32];
  UINT8 Sha384Hash[48];
  UINT8 Sha512Hash[64];
};
static_assert(sizeof(EFI_HASH2_OUTPUT) == 64);

struct EFI_HASH2_PROTOCOL {
  EFI_STATUS(EFIAPI* GetHashSize)
  (const EFI_HASH2_PROTOCOL* This, const EFI_GUID* HashAlgorithm, UINTN* HashSize);
  EFI_STATUS(EFIAPI* Hash)
  (const EFI_HASH2_PROTOCOL* This, const EFI_GUID* HashAlgorithm, const UINT8* Message, UINTN MessageSize,
   EFI_HASH2_OUTPUT* Hash);
  EFI_STATUS(EFIAPI* HashInit)(const EFI_HASH2_PROTOCOL* This, const EFI_GUID* HashAlgorithm);
  EFI_STATUS(EFIAPI* HashUpdate)(const EFI_HASH2_PROTOCOL* This, const UINT8* Message, UINTN MessageSize);
  EFI_STATUS(EFIAPI* HashFinal)(const EFI_HASH2_PROTOCOL* This, EFI_HASH2_OUTPUT* Hash);
};
