#include "nic/HiiConfig.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"
#include "uefi/protocol/ManagedNetwork.h"

static CHAR16* ConstructConfigHeader(const EFI_GUID* Guid, const CHAR16* Name, EFI_HANDLE DriverHandle);
static EFI_STATUS FindConfigAccessHandle(EFI_HANDLE ServiceHandle, EFI_HANDLE* DriverHandle);
static EFI_STATUS IsOpenedByChild(EFI_HANDLE ControllerHandle, EFI_HANDLE ChildHandle,
                                  const EFI_GUID* Protocol);

namespace {

constexpr const CHAR16* kVariableName = u"EfiNicIp4ConfigVariable";
constexpr UINTN kRecordBytes = 96;
constexpr UINTN kRecordFixedBytes = 72;
constexpr UINTN kRequestExtraBytes = 6632;
constexpr UINTN kOffsetWidthBytes = 512;

// The record that precedes the route table in the stored configuration.
#pragma pack(push, 1)
struct NicIp4ConfigRecord {
  UINT16 Type;
  UINT8 Len;
  UINT8 MacAddr[32];
  UINT8 Pad0;
  UINT32 Source;
  UINT8 Permanent;
  UINT8 Pad1[7];
  UINT32 StationAddress;
  UINT32 SubnetMask;
  UINT32 RouteTableSize;
  UINT32 Pad2;
  UINT64 RouteTable;
};
#pragma pack(pop)
static_assert(sizeof(NicIp4ConfigRecord) == kRecordFixedBytes);

// Lower-cases the hexadecimal letters of every value ("=" up to the next "&").
void LowerCaseValues(CHAR16* text) {
  bool inValue = false;
  for (CHAR16* p = text; *p != 0; ++p) {
    if (*p == u'=')
      inValue = true;
    else if (*p == u'&')
      inValue = false;
    else if (inValue && *p >= u'A' && *p <= u'F')
      *p = CHAR16(*p - u'A' + u'a');
  }
}

} // namespace

static EFI_STATUS IsOpenedByChild(EFI_HANDLE ControllerHandle, EFI_HANDLE ChildHandle,
                                  const EFI_GUID* Protocol) {
  wc::PoolPtr<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> entries;
  UINTN count = 0;
  EFI_STATUS status = gBS->OpenProtocolInformation(ControllerHandle, Protocol, entries.Receive(), &count);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed OpenProtocolInformation !(%r)\r\n", status);
    return EFI_UNSUPPORTED;
  }
  for (UINTN i = 0; i < count; ++i)
    if (entries[i].ControllerHandle == ChildHandle &&
        (entries[i].Attributes & EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER) != 0)
      return EFI_SUCCESS;
  return EFI_UNSUPPORTED;
}

// The first node is the NIC's own; a configuration driver adds a vendor node after it. The path
// is one DevicePathSize has checked; a path that is only its end node has nothing after the first.
static bool HasVendorNodeAfterFirst(const EFI_DEVICE_PATH_PROTOCOL* Path, const EFI_GUID& Vendor) {
  if (IsDevicePathEnd(Path))
    return false;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = NextDevicePathNode(Path); !IsDevicePathEnd(node);
       node = NextDevicePathNode(node)) {
    if (node->Type == HARDWARE_DEVICE_PATH && node->SubType == HW_VENDOR_DP &&
        DevicePathNodeLength(node) >= 20) {
      EFI_GUID vendor;
      CopyMem(&vendor, reinterpret_cast<const UINT8*>(node) + 4, sizeof(vendor));
      if (vendor == Vendor)
        return true;
    }
  }
  return false;
}

static EFI_STATUS FindConfigAccessHandle(EFI_HANDLE ServiceHandle, EFI_HANDLE* DriverHandle) {
  return FindHiiChildHandle(ServiceHandle, EFI_NIC_IP4_CONFIG_VARIABLE_GUID, DriverHandle);
}

EFI_STATUS FindHiiChildHandle(EFI_HANDLE ServiceHandle, const EFI_GUID& Vendor, EFI_HANDLE* DriverHandle) {
  wc::PoolPtr<EFI_HANDLE> handles;
  UINTN count = 0;
  EFI_STATUS status = gBS->LocateHandleBuffer(ByProtocol, &EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID, nullptr,
                                              &count, handles.Receive());
  if (EFI_ERROR(status) || count == 0) {
    if (!EFI_ERROR(status))
      status = EFI_NOT_FOUND;
    LogPrint(u"Failed handle EFI HiiConfigAccessProtocol !(%r)\r\n", status);
    return status;
  }
  status = EFI_NOT_FOUND;
  for (UINTN i = 0; i < count; ++i) {
    status = IsOpenedByChild(ServiceHandle, handles[i], &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID);
    if (EFI_ERROR(status))
      continue;
    EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
    status = gBS->HandleProtocol(handles[i], &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&path));
    if (EFI_ERROR(status) || DevicePathSize(path) == 0)
      continue;
    if (HasVendorNodeAfterFirst(path, Vendor)) {
      *DriverHandle = handles[i];
      return EFI_SUCCESS;
    }
  }
  // The last check can pass on a child of this NIC that is not the one sought (EDK2's IPv4 and
  // IPv6 configuration forms carry no such vendor node): nothing was found then either.
  return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
}

static CHAR16* ConstructConfigHeader(const EFI_GUID* Guid, const CHAR16* Name, EFI_HANDLE DriverHandle) {
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  EFI_STATUS status =
      gBS->HandleProtocol(DriverHandle, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&path));
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed handle EFI Device Path Protocol!(%r)\r\n", status);
    return nullptr;
  }
  UINTN pathSize = DevicePathSize(path);
  UINTN chars = 2 * pathSize + 4 * StrLen(Name) + 49 + 1;
  auto* header = static_cast<CHAR16*>(AllocateZeroPool(chars * sizeof(CHAR16)));
  if (header == nullptr)
    return nullptr;
  UINTN used = SPrint(header, chars * sizeof(CHAR16), u"GUID=");
  auto append = [&](const CHAR16* format, UINTN value) {
    used += SPrint(header + used, (chars - used) * sizeof(CHAR16), format, value);
  };
  const auto* guidBytes = reinterpret_cast<const UINT8*>(Guid);
  for (UINTN i = 0; i < sizeof(EFI_GUID); ++i)
    append(u"%02x", guidBytes[i]);
  used += SPrint(header + used, (chars - used) * sizeof(CHAR16), u"&NAME=");
  for (const CHAR16* c = Name; *c != 0; ++c)
    append(u"00%x", *c);
  used += SPrint(header + used, (chars - used) * sizeof(CHAR16), u"&PATH=");
  const auto* pathBytes = reinterpret_cast<const UINT8*>(path);
  for (UINTN i = 0; i < pathSize; ++i)
    append(u"%02x", pathBytes[i]);
  LowerCaseValues(header);
  return header;
}

UINTN AppendOffsetWidth(CHAR16* Buffer, UINTN BufferSize, UINTN Offset, UINTN Width) {
  CHAR16 text[kOffsetWidthBytes / sizeof(CHAR16)];
  UINTN length = SPrint(text, sizeof(text), u"&OFFSET=%x&WIDTH=%x", Offset, Width);
  StrAppend(Buffer, BufferSize, text);
  return length;
}

EFI_STATUS SetNicByHii() {
  EFI_HII_CONFIG_ROUTING_PROTOCOL* routing = nullptr;
  EFI_STATUS status =
      gBS->LocateProtocol(&EFI_HII_CONFIG_ROUTING_PROTOCOL_GUID, nullptr, reinterpret_cast<void**>(&routing));
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed Locating HiiConfigRoutingProtocol!(%r)\r\n", status);
    return status;
  }
  wc::PoolPtr<EFI_HANDLE> handles;
  UINTN count = 0;
  status = gBS->LocateHandleBuffer(ByProtocol, &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID, nullptr,
                                   &count, handles.Receive());
  LogPrint(u"ManagedNetworkServiceBindingProtocolGuid HandleCount = %d(%r)\r\n", count, status);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed Locating ManagedNetworkServiceBindingProtocol!(%r)\r\n", status);
    return status;
  }

  for (UINTN i = 0; i < count; ++i) {
    EFI_HANDLE driver = nullptr;
    bool driverFound = !EFI_ERROR(FindConfigAccessHandle(handles[i], &driver));
    if (!driverFound)
      driver = handles[i];
    wc::PoolPtr<CHAR16> header(
        ConstructConfigHeader(&EFI_NIC_IP4_CONFIG_VARIABLE_GUID, kVariableName, driver));
    if (!header)
      return EFI_OUT_OF_RESOURCES;
    UINTN requestBytes = StrSize(header.Get()) + kRequestExtraBytes;
    auto request = wc::PoolPtr<CHAR16>::AllocateZero(requestBytes);
    if (!request)
      return EFI_OUT_OF_RESOURCES;
    StrCopy(request.Get(), requestBytes, header.Get());

    auto record = wc::PoolPtr<NicIp4ConfigRecord>::AllocateZero(kRecordBytes);
    if (!record)
      return EFI_OUT_OF_RESOURCES;
    // The record carries the address of its own route table as it stands in memory.
    record->RouteTable = UINT64(reinterpret_cast<UINTN>(record.Get())) + kRecordFixedBytes;
    NicAddr address = {};
    ReadNicAddress(handles[i], &address);
    record->Type = address.Type;
    record->Len = address.Len;
    CopyMem(record->MacAddr, address.Addr, wc::Min<UINTN>(address.Len, sizeof(record->MacAddr)));
    record->Source = 0;
    record->Permanent = 1;

    auto block = wc::PoolPtr<UINT8>::AllocateZero(kNicIp4ConfigBlockSize);
    if (!block)
      return EFI_OUT_OF_RESOURCES;
    CopyMem(block.Get(), record.Get(), kRecordFixedBytes + 12 * record->RouteTableSize);
    AppendOffsetWidth(request.Get(), requestBytes, 0, kNicIp4ConfigBlockSize);

    wc::PoolPtr<CHAR16> response;
    EFI_STRING progress = nullptr;
    status = routing->BlockToConfig(routing, request.Get(), block.Get(), kNicIp4ConfigBlockSize,
                                    response.Receive(), &progress);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed BlockToConfig !(%r)\r\n", status);
      return status;
    }
    status = routing->RouteConfig(routing, response.Get(), &progress);
    if (status == EFI_NOT_FOUND && !driverFound) {
      // Firmware with only the newer IPv4 configuration driver keeps no such variable: no driver
      // owns this configuration, so there is nothing to rewrite for this NIC. A driver that was
      // found and does not take its own configuration is a real failure.
      LogPrint(u"No driver owns EfiNicIp4ConfigVariable for NIC %d, nothing to rewrite (%r)\r\n", i + 1,
               status);
      continue;
    }
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed RouteConfig !(%r)\r\n", status);
      return status;
    }
  }
  return EFI_SUCCESS;
}
