// EFI_HTTP_SERVICE_BINDING_PROTOCOL and EFI_HTTP_PROTOCOL: the firmware's HTTP client.
#pragma once
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/ServiceBinding.h"

constexpr EFI_GUID EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID = {
    0xBDC8E6AF, 0xD9BC, 0x4379, {0xA7, 0x2A, 0xE0, 0xC4, 0xE7, 0x5D, 0xAE, 0x1C}};
constexpr EFI_GUID EFI_HTTP_PROTOCOL_GUID = {
    0x7A59B29B, 0x910B, 0x4171, {0x82, 0x42, 0xA8, 0x5A, 0x0D, 0xF2, 0x5B, 0x5B}};

// The error a response token ends with when the server answered with a status of 300 or more.
constexpr EFI_STATUS EFI_HTTP_ERROR = EncodeError(35);

enum EFI_HTTP_VERSION : UINT32 { HttpVersion10, HttpVersion11, HttpVersionUnsupported };

enum EFI_HTTP_METHOD : UINT32 {
  HttpMethodGet,
  HttpMethodPost,
  HttpMethodPatch,
  HttpMethodOptions,
  HttpMethodConnect,
  HttpMethodHead,
  HttpMethodPut,
  HttpMethodDelete,
  HttpMethodTrace,
  HttpMethodMax
};

// The firmware hands a response's status as a position in this list; a code outside it (507, say)
// arrives as 0.
constexpr UINT16 kHttpStatusCodes[] = {0,   100, 101, 200, 201, 202, 203, 204, 205, 206, 300, 301, 302, 303,
                                       304, 305, 307, 400, 401, 402, 403, 404, 405, 406, 407, 408, 409, 410,
                                       411, 412, 413, 414, 415, 416, 417, 500, 501, 502, 503, 504, 505, 308};
using EFI_HTTP_STATUS_CODE = UINT32;

struct EFI_HTTPv4_ACCESS_POINT {
  BOOLEAN UseDefaultAddress;
  EFI_IPv4_ADDRESS LocalAddress;
  EFI_IPv4_ADDRESS LocalSubnet;
  UINT16 LocalPort;
};

struct EFI_HTTPv6_ACCESS_POINT {
  EFI_IPv6_ADDRESS LocalAddress;
  UINT16 LocalPort;
};

struct EFI_HTTP_CONFIG_DATA {
  EFI_HTTP_VERSION HttpVersion;
  UINT32 TimeOutMillisec;
  BOOLEAN LocalAddressIsIPv6;
  union {
    EFI_HTTPv4_ACCESS_POINT* IPv4Node;
    EFI_HTTPv6_ACCESS_POINT* IPv6Node;
  };
};
static_assert(offsetof(EFI_HTTP_CONFIG_DATA, IPv4Node) == 16);

struct EFI_HTTP_REQUEST_DATA {
  EFI_HTTP_METHOD Method;
  CHAR16* Url;
};

struct EFI_HTTP_RESPONSE_DATA {
  EFI_HTTP_STATUS_CODE StatusCode;
};

struct EFI_HTTP_HEADER {
  CHAR8* FieldName;
  CHAR8* FieldValue;
};

struct EFI_HTTP_MESSAGE {
  union {
    EFI_HTTP_REQUEST_DATA* Request;
    EFI_HTTP_RESPONSE_DATA* Response;
  } Data;
  UINTN HeaderCount;
  EFI_HTTP_HEADER* Headers;
  UINTN BodyLength;
  void* Body;
};
static_assert(sizeof(EFI_HTTP_MESSAGE) == 40);

struct EFI_HTTP_TOKEN {
  EFI_EVENT Event;
  EFI_STATUS Status;
  EFI_HTTP_MESSAGE* Message;
};

struct EFI_HTTP_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)(EFI_HTTP_PROTOCOL* This, EFI_HTTP_CONFIG_DATA* HttpConfigData);
  EFI_STATUS(EFIAPI* Configure)(EFI_HTTP_PROTOCOL* This, EFI_HTTP_CONFIG_DATA* HttpConfigData);
  EFI_STATUS(EFIAPI* Request)(EFI_HTTP_PROTOCOL* This, EFI_HTTP_TOKEN* Token);
  EFI_STATUS(EFIAPI* Cancel)(EFI_HTTP_PROTOCOL* This, EFI_HTTP_TOKEN* Token);
  EFI_STATUS(EFIAPI* Response)(EFI_HTTP_PROTOCOL* This, EFI_HTTP_TOKEN* Token);
  EFI_STATUS(EFIAPI* Poll)(EFI_HTTP_PROTOCOL* This);
};
