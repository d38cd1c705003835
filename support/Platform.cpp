#include "support/Platform.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "support/DebugLog.h"
#include "support/PlatformFamilies.h"

namespace {

constexpr UINT8 kTypeSystem = 1;
constexpr UINT8 kTypeBaseboard = 2;
constexpr UINT8 kTypeOem201 = 201;
constexpr UINT8 kMinSystemLength = 0x1A;
constexpr UINTN kFamilyOffset = 0x1A;
constexpr UINTN kProductOffset = 5;
constexpr UINTN kSystemIdChars = 10;
constexpr UINTN kFamilyChars = 40;

// The firmware's SMBIOS structure table, found once at start-up and read in place.
constinit const UINT8* gTable = nullptr;
constinit UINT32 gTableLength = 0;

// Offset of the structure after the one at `offset`, or 0 when it would leave the table.
UINTN NextStructure(UINTN offset) {
  if (offset + 4 > gTableLength)
    return 0;
  UINTN length = gTable[offset + 1];
  if (length < 4 || offset + length > gTableLength)
    return 0;
  // The string set ends with two NULs (right after the formatted area when there are no strings).
  for (UINTN i = offset + length; i + 1 < gTableLength; ++i)
    if (gTable[i] == 0 && gTable[i + 1] == 0)
      return i + 2;
  return 0;
}

// Visits every structure of a type in table order.
template <class F> void ForEachOfType(UINT8 type, F&& visit) {
  for (UINTN offset = 0; gTable != nullptr;) {
    UINTN next = NextStructure(offset);
    if (next == 0)
      return;
    if (gTable[offset] == type)
      visit(reinterpret_cast<const SMBIOS_STRUCTURE*>(gTable + offset));
    offset = next;
  }
}

UINTN CountOfType(UINT8 type) {
  UINTN count = 0;
  ForEachOfType(type, [&](const SMBIOS_STRUCTURE*) { ++count; });
  return count;
}

UINT64 Little(const UINT8* P, UINTN Bytes) {
  UINT64 value = 0;
  for (UINTN i = Bytes; i > 0; --i)
    value = value << 8 | P[i - 1];
  return value;
}

const UINT8* ConfigurationTable(EFI_SYSTEM_TABLE* SystemTable, const EFI_GUID& Guid) {
  for (UINTN i = 0; SystemTable != nullptr && i < SystemTable->NumberOfTableEntries; ++i) {
    if (SystemTable->ConfigurationTable[i].VendorGuid == Guid)
      return static_cast<const UINT8*>(SystemTable->ConfigurationTable[i].VendorTable);
  }
  return nullptr;
}

} // namespace

void SmbiosUseTable(const void* Table, UINT32 Length) {
  gTable = static_cast<const UINT8*>(Table);
  gTableLength = Table != nullptr ? Length : 0;
}

EFI_STATUS EfiSmbiosLibInitialize(EFI_HANDLE, EFI_SYSTEM_TABLE* SystemTable) {
  // The 2.x entry point ("_SM_": the table's length at 0x16, its 32-bit address at 0x18), or where a
  // firmware publishes only the 3.0 one (AArch64's virt machine, some x86 firmware) that one ("_SM3_":
  // the table's maximum size at 0x0C, its 64-bit address at 0x10).
  const UINT8* entry = ConfigurationTable(SystemTable, SMBIOS_TABLE_GUID);
  if (entry != nullptr) {
    SmbiosUseTable(reinterpret_cast<const void*>(UINTN(Little(entry + 0x18, 4))),
                   UINT32(Little(entry + 0x16, 2)));
  } else if ((entry = ConfigurationTable(SystemTable, SMBIOS3_TABLE_GUID)) != nullptr) {
    SmbiosUseTable(reinterpret_cast<const void*>(UINTN(Little(entry + 0x10, 8))),
                   UINT32(Little(entry + 0x0C, 4)));
    DebugLogPrint(u"SMBIOS 3.0 entry point only\r\n");
  } else {
    return EFI_NOT_FOUND;
  }

  CHAR16 systemId[kSystemIdChars];
  EFI_STATUS status = GetSystemId(systemId, sizeof(systemId));
  if (EFI_ERROR(status))
    DebugLogPrint(u"Failed getting System ID from SMBIOS table, %r\r\n", status);
  return EFI_SUCCESS;
}

EFI_STATUS SmbiosGetStructures(UINT8 Type, const SMBIOS_STRUCTURE*** Structures, UINT16* Count) {
  if (gTable == nullptr)
    return EFI_NOT_FOUND;
  if (Structures == nullptr || Count == nullptr)
    return EFI_INVALID_PARAMETER;
  UINTN count = CountOfType(Type);
  if (count == 0)
    return EFI_NOT_FOUND;
  auto* array = static_cast<const SMBIOS_STRUCTURE**>(AllocatePool(count * sizeof(SMBIOS_STRUCTURE*)));
  if (array == nullptr)
    return EFI_OUT_OF_RESOURCES;
  UINTN n = 0;
  ForEachOfType(Type, [&](const SMBIOS_STRUCTURE* s) { array[n++] = s; });
  *Structures = array;
  *Count = UINT16(count);
  return EFI_SUCCESS;
}

const CHAR8* SmbiosGetString(const SMBIOS_STRUCTURE* Structure, UINT8 Number) {
  if (Structure == nullptr || Number == 0 || gTable == nullptr)
    return nullptr;
  const UINT8* base = reinterpret_cast<const UINT8*>(Structure);
  // Strings are only read within the structure table.
  UINTN offset = UINTN(base - gTable);
  if (base < gTable || offset >= gTableLength)
    return nullptr;
  UINTN next = NextStructure(offset);
  if (next == 0)
    return nullptr;
  UINTN p = offset + Structure->Length;
  for (UINT8 n = 1; p < next - 1 && gTable[p] != 0; ++n) {
    if (n == Number)
      return reinterpret_cast<const CHAR8*>(gTable + p);
    while (p < next && gTable[p] != 0)
      ++p;
    ++p;
  }
  return nullptr;
}

EFI_STATUS GetSystemId(CHAR16* Buffer, UINTN BufferSize) {
  if (Buffer == nullptr || BufferSize < kSystemIdChars)
    return EFI_INVALID_PARAMETER;
  StrCopy(Buffer, BufferSize, u"XXXX");
  const SMBIOS_STRUCTURE** boards = nullptr;
  UINT16 count = 0;
  if (EFI_ERROR(SmbiosGetStructures(kTypeBaseboard, &boards, &count)))
    return EFI_SUCCESS;
  wc::PoolPtr<const SMBIOS_STRUCTURE*> owned(boards);
  const SMBIOS_STRUCTURE* board = boards[0];
  if (board->Length > kProductOffset) {
    if (const CHAR8* product =
            SmbiosGetString(board, reinterpret_cast<const UINT8*>(board)[kProductOffset])) {
      AsciiToUnicode(Buffer, BufferSize, product);
      if (BufferSize / sizeof(CHAR16) > 4)
        Buffer[4] = 0;
    }
  }
  DebugLogPrint(u"System ID: %s\r\n", Buffer);
  return EFI_SUCCESS;
}

UINTN GetPlatformFamilyId() {
  const SMBIOS_STRUCTURE** systems = nullptr;
  UINT16 count = 0;
  if (EFI_ERROR(SmbiosGetStructures(kTypeSystem, &systems, &count))) {
    DebugLogPrint(u"Get type 1 table failed\r\n");
    return 0;
  }
  wc::PoolPtr<const SMBIOS_STRUCTURE*> owned(systems);
  const SMBIOS_STRUCTURE* system = systems[0];
  if (system->Length < kMinSystemLength) {
    DebugLogPrint(u"Invalid length (0x%X) for type 1 table\r\n", system->Length);
    return 0;
  }
  CHAR16 family[kFamilyChars] = {};
  // A missing family string counts as an empty one: no row matches it.
  AsciiToUnicode(family, sizeof(family),
                 SmbiosGetString(system, reinterpret_cast<const UINT8*>(system)[kFamilyOffset]));
  StrToUpper(family);
  for (const PlatformFamily& row : kPlatformFamilyTable)
    if (StrnCmp(family, row.Key, StrLen(row.Key)) == 0)
      return row.Id;
  if (CountOfType(kTypeOem201) == 1)
    return 8;
  DebugLogPrint(u"Unsupported SMBIOS Family string: %s\r\n", family);
  return 0;
}
