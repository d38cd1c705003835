// Pool memory and raw memory helpers.
#pragma once
#include "uefi/Base.h"

void* AllocatePool(UINTN Size);
void* AllocateZeroPool(UINTN Size);
void* AllocateCopyPool(UINTN Size, const void* Source);
void FreePool(void* Buffer);

void CopyMem(void* Destination, const void* Source, UINTN Length);
void SetMem(void* Buffer, UINTN Size, UINT8 Value);
void ZeroMem(void* Buffer, UINTN Size);
INTN CompareMem(const void* A, const void* B, UINTN Length);
