// Fundamental UEFI data types and status codes, written from the UEFI specification.
// The same header serves the firmware builds (x86-64 and AArch64 PE32+, freestanding) and the host
// build used for unit tests. EFIAPI is the calling convention UEFI gives each processor: Microsoft's
// x64 one on x86-64, the processor's standard one (AAPCS64) on AArch64.
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(__x86_64__)
#define EFIAPI __attribute__((ms_abi))
#else
#define EFIAPI
#endif

using UINT8 = uint8_t;
using UINT16 = uint16_t;
using UINT32 = uint32_t;
using UINT64 = uint64_t;
using INT8 = int8_t;
using INT16 = int16_t;
using INT32 = int32_t;
using INT64 = int64_t;
using UINTN = uint64_t;
using INTN = int64_t;
using BOOLEAN = uint8_t;
using CHAR8 = char;
using CHAR16 = char16_t;
using VOID = void;

static_assert(sizeof(void*) == 8, "Wirecheck targets 64-bit firmware only");

constexpr BOOLEAN TRUE = 1;
constexpr BOOLEAN FALSE = 0;

using EFI_STATUS = UINTN;
using EFI_HANDLE = void*;
using EFI_EVENT = void*;
using EFI_TPL = UINTN;
using EFI_LBA = UINT64;
using EFI_PHYSICAL_ADDRESS = UINT64;
using EFI_VIRTUAL_ADDRESS = UINT64;

struct EFI_GUID {
  UINT32 Data1;
  UINT16 Data2;
  UINT16 Data3;
  UINT8 Data4[8];
};
static_assert(sizeof(EFI_GUID) == 16);

inline bool operator==(const EFI_GUID& a, const EFI_GUID& b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3)
    return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i])
      return false;
  return true;
}

struct EFI_TIME {
  UINT16 Year;
  UINT8 Month;
  UINT8 Day;
  UINT8 Hour;
  UINT8 Minute;
  UINT8 Second;
  UINT8 Pad1;
  UINT32 Nanosecond;
  INT16 TimeZone;
  UINT8 Daylight;
  UINT8 Pad2;
};
static_assert(sizeof(EFI_TIME) == 16);

struct EFI_TIME_CAPABILITIES {
  UINT32 Resolution;
  UINT32 Accuracy;
  BOOLEAN SetsToZero;
};

struct EFI_MAC_ADDRESS {
  UINT8 Addr[32];
};
struct EFI_IPv4_ADDRESS {
  UINT8 Addr[4];
};
struct EFI_IPv6_ADDRESS {
  UINT8 Addr[16];
};
union EFI_IP_ADDRESS {
  UINT32 Addr[4];
  EFI_IPv4_ADDRESS v4;
  EFI_IPv6_ADDRESS v6;
};
static_assert(sizeof(EFI_IP_ADDRESS) == 16);

// Status codes.
constexpr EFI_STATUS EFI_ERROR_BIT = 0x8000000000000000ull;
constexpr EFI_STATUS EncodeError(UINTN code) {
  return EFI_ERROR_BIT | code;
}
constexpr bool EFI_ERROR(EFI_STATUS s) {
  return (s & EFI_ERROR_BIT) != 0;
}

constexpr EFI_STATUS EFI_SUCCESS = 0;
constexpr EFI_STATUS EFI_LOAD_ERROR = EncodeError(1);
constexpr EFI_STATUS EFI_INVALID_PARAMETER = EncodeError(2);
constexpr EFI_STATUS EFI_UNSUPPORTED = EncodeError(3);
constexpr EFI_STATUS EFI_BAD_BUFFER_SIZE = EncodeError(4);
constexpr EFI_STATUS EFI_BUFFER_TOO_SMALL = EncodeError(5);
constexpr EFI_STATUS EFI_NOT_READY = EncodeError(6);
constexpr EFI_STATUS EFI_DEVICE_ERROR = EncodeError(7);
constexpr EFI_STATUS EFI_WRITE_PROTECTED = EncodeError(8);
constexpr EFI_STATUS EFI_OUT_OF_RESOURCES = EncodeError(9);
constexpr EFI_STATUS EFI_VOLUME_CORRUPTED = EncodeError(10);
constexpr EFI_STATUS EFI_VOLUME_FULL = EncodeError(11);
constexpr EFI_STATUS EFI_NO_MEDIA = EncodeError(12);
constexpr EFI_STATUS EFI_MEDIA_CHANGED = EncodeError(13);
constexpr EFI_STATUS EFI_NOT_FOUND = EncodeError(14);
constexpr EFI_STATUS EFI_ACCESS_DENIED = EncodeError(15);
constexpr EFI_STATUS EFI_NO_RESPONSE = EncodeError(16);
constexpr EFI_STATUS EFI_NO_MAPPING = EncodeError(17);
constexpr EFI_STATUS EFI_TIMEOUT = EncodeError(18);
constexpr EFI_STATUS EFI_NOT_STARTED = EncodeError(19);
constexpr EFI_STATUS EFI_ALREADY_STARTED = EncodeError(20);
constexpr EFI_STATUS EFI_ABORTED = EncodeError(21);
constexpr EFI_STATUS EFI_ICMP_ERROR = EncodeError(22);
constexpr EFI_STATUS EFI_TFTP_ERROR = EncodeError(23);
constexpr EFI_STATUS EFI_PROTOCOL_ERROR = EncodeError(24);
constexpr EFI_STATUS EFI_INCOMPATIBLE_VERSION = EncodeError(25);
constexpr EFI_STATUS EFI_SECURITY_VIOLATION = EncodeError(26);
constexpr EFI_STATUS EFI_CRC_ERROR = EncodeError(27);
constexpr EFI_STATUS EFI_END_OF_MEDIA = EncodeError(28);
constexpr EFI_STATUS EFI_END_OF_FILE = EncodeError(31);
constexpr EFI_STATUS EFI_INVALID_LANGUAGE = EncodeError(32);
constexpr EFI_STATUS EFI_COMPROMISED_DATA = EncodeError(33);
// What the firmware's network stack ends a connection with.
constexpr EFI_STATUS EFI_NETWORK_UNREACHABLE = EncodeError(100);
constexpr EFI_STATUS EFI_HOST_UNREACHABLE = EncodeError(101);
constexpr EFI_STATUS EFI_PROTOCOL_UNREACHABLE = EncodeError(102);
constexpr EFI_STATUS EFI_PORT_UNREACHABLE = EncodeError(103);
constexpr EFI_STATUS EFI_CONNECTION_FIN = EncodeError(104);
constexpr EFI_STATUS EFI_CONNECTION_RESET = EncodeError(105);
constexpr EFI_STATUS EFI_CONNECTION_REFUSED = EncodeError(106);

constexpr EFI_STATUS EFI_WARN_UNKNOWN_GLYPH = 1;
constexpr EFI_STATUS EFI_WARN_DELETE_FAILURE = 2;
constexpr EFI_STATUS EFI_WARN_WRITE_FAILURE = 3;
constexpr EFI_STATUS EFI_WARN_BUFFER_TOO_SMALL = 4;

// Task priority levels.
constexpr EFI_TPL TPL_APPLICATION = 4;
constexpr EFI_TPL TPL_CALLBACK = 8;
constexpr EFI_TPL TPL_NOTIFY = 16;
