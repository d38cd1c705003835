#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Print.h"
#include "base/String.h"

namespace {

constexpr UINTN kTextChars = 2048; // longest text the fallback produces; longer paths are cut
constexpr UINTN kMaxNodes = 256;   // a path with more nodes than this is treated as malformed

class TextBuilder {
public:
  explicit TextBuilder(CHAR16* buffer) : buffer_(buffer) { buffer_[0] = 0; }
  template <class... A> void Add(const CHAR16* format, const A&... args) {
    used_ += SPrint(buffer_ + used_, (kTextChars - used_) * sizeof(CHAR16), format, args...);
  }

private:
  CHAR16* buffer_;
  UINTN used_ = 0;
};

UINT16 Read16(const UINT8* p) {
  return UINT16(p[0] | (p[1] << 8));
}
UINT32 Read32(const UINT8* p) {
  return UINT32(p[0]) | (UINT32(p[1]) << 8) | (UINT32(p[2]) << 16) | (UINT32(p[3]) << 24);
}

void AddIPv4(TextBuilder& t, const UINT8* a) {
  t.Add(u"%d.%d.%d.%d", a[0], a[1], a[2], a[3]);
}

void AddIPv6(TextBuilder& t, const UINT8* a) {
  for (int i = 0; i < 16; i += 2)
    t.Add(i == 0 ? u"%x" : u":%x", (a[i] << 8) | a[i + 1]);
}

void AddProtocol(TextBuilder& t, UINT16 protocol) {
  if (protocol == 6)
    t.Add(u"TCP");
  else if (protocol == 17)
    t.Add(u"UDP");
  else
    t.Add(u"0x%x", protocol);
}

void AddNode(TextBuilder& t, const EFI_DEVICE_PATH_PROTOCOL* node, BOOLEAN displayOnly) {
  const UINT8* d = reinterpret_cast<const UINT8*>(node) + 4;
  UINTN len = DevicePathNodeLength(node);
  UINTN dataLen = len - 4;
  switch (node->Type) {
  case HARDWARE_DEVICE_PATH:
    if (node->SubType == HW_PCI_DP && dataLen >= 2) {
      t.Add(u"Pci(0x%x,0x%x)", d[1], d[0]);
      return;
    }
    if (node->SubType == HW_VENDOR_DP && dataLen >= 16) {
      EFI_GUID guid;
      CopyMem(&guid, d, sizeof(guid));
      t.Add(u"VenHw(%g", &guid);
      if (dataLen > 16) {
        t.Add(u",");
        for (UINTN i = 16; i < dataLen; ++i)
          t.Add(u"%02x", d[i]);
      }
      t.Add(u")");
      return;
    }
    break;
  case ACPI_DEVICE_PATH:
    if (node->SubType == ACPI_DP && dataLen >= 8) {
      UINT32 hid = Read32(d);
      UINT32 uid = Read32(d + 4);
      if (hid == EisaPnpId(0x0A03)) {
        t.Add(u"PciRoot(0x%x)", uid);
        return;
      }
      if (hid == EisaPnpId(0x0A08)) {
        t.Add(u"PcieRoot(0x%x)", uid);
        return;
      }
    }
    break;
  case MESSAGING_DEVICE_PATH:
    if (node->SubType == MSG_MAC_ADDR_DP && dataLen >= 33) {
      UINT8 ifType = d[32];
      UINTN size = (ifType == 0 || ifType == 1) ? 6 : 32;
      t.Add(u"MAC(");
      for (UINTN i = 0; i < size; ++i)
        t.Add(u"%02x", d[i]);
      t.Add(u",0x%x)", ifType);
      return;
    }
    if (node->SubType == MSG_IPv4_DP && dataLen >= 15) {
      // Local, remote, local port, remote port, protocol, static flag [, gateway, subnet mask].
      t.Add(u"IPv4(");
      AddIPv4(t, d + 4);
      if (!displayOnly) {
        t.Add(u",");
        AddProtocol(t, Read16(d + 12));
        t.Add(d[14] ? u",Static," : u",DHCP,");
        AddIPv4(t, d);
        if (dataLen >= 23) {
          t.Add(u",");
          AddIPv4(t, d + 15);
          t.Add(u",");
          AddIPv4(t, d + 19);
        }
      }
      t.Add(u")");
      return;
    }
    if (node->SubType == MSG_IPv6_DP && dataLen >= 37) {
      // Local, remote, local port, remote port, protocol, origin [, prefix length, gateway].
      t.Add(u"IPv6(");
      AddIPv6(t, d + 16);
      if (!displayOnly) {
        t.Add(u",");
        AddProtocol(t, Read16(d + 36));
        UINT8 origin = dataLen >= 39 ? d[38] : 0;
        t.Add(origin == 0   ? u",Static,"
              : origin == 1 ? u",StatelessAutoConfigure,"
                            : u",StatefulAutoConfigure,");
        AddIPv6(t, d);
      }
      t.Add(u")");
      return;
    }
    if (node->SubType == MSG_VLAN_DP && dataLen >= 2) {
      t.Add(u"Vlan(%d)", Read16(d));
      return;
    }
    if (node->SubType == MSG_USB_DP && dataLen >= 2) {
      t.Add(u"USB(0x%x,0x%x)", d[0], d[1]);
      return;
    }
    break;
  case MEDIA_DEVICE_PATH:
    if (node->SubType == MEDIA_FILEPATH_DP) {
      // The name may be unaligned and need not be terminated within the node.
      for (UINTN i = 0; i + 1 < dataLen; i += 2) {
        CHAR16 c = CHAR16(Read16(d + i));
        if (c == 0)
          break;
        t.Add(u"%c", c);
      }
      return;
    }
    break;
  default:
    break;
  }
  t.Add(u"?");
}

} // namespace

UINTN DevicePathNodeLength(const EFI_DEVICE_PATH_PROTOCOL* Node) {
  return UINTN(Node->Length[0]) | (UINTN(Node->Length[1]) << 8);
}

const EFI_DEVICE_PATH_PROTOCOL* NextDevicePathNode(const EFI_DEVICE_PATH_PROTOCOL* Node) {
  return reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(reinterpret_cast<const UINT8*>(Node) +
                                                           DevicePathNodeLength(Node));
}

bool IsDevicePathEnd(const EFI_DEVICE_PATH_PROTOCOL* Node) {
  return Node->Type == END_DEVICE_PATH_TYPE && Node->SubType == END_ENTIRE_DEVICE_PATH_SUBTYPE;
}

UINTN DevicePathSize(const EFI_DEVICE_PATH_PROTOCOL* Path) {
  if (Path == nullptr)
    return 0;
  UINTN size = 0;
  const EFI_DEVICE_PATH_PROTOCOL* node = Path;
  for (UINTN count = 0; count < kMaxNodes; ++count) {
    UINTN len = DevicePathNodeLength(node);
    if (len < 4)
      return 0;
    size += len;
    if (IsDevicePathEnd(node))
      return size;
    node = NextDevicePathNode(node);
  }
  return 0;
}

CHAR16* DevicePathToTextFallback(const EFI_DEVICE_PATH_PROTOCOL* Path, BOOLEAN DisplayOnly) {
  if (Path == nullptr)
    return nullptr;
  auto* buffer = static_cast<CHAR16*>(AllocatePool(kTextChars * sizeof(CHAR16)));
  if (buffer == nullptr)
    return nullptr;
  TextBuilder t(buffer);
  const EFI_DEVICE_PATH_PROTOCOL* node = Path;
  bool first = true;
  for (UINTN count = 0; count < kMaxNodes; ++count) {
    if (DevicePathNodeLength(node) < 4 || IsDevicePathEnd(node))
      break;
    if (node->Type == END_DEVICE_PATH_TYPE) {
      t.Add(u",");
      first = true;
    } else {
      if (!first)
        t.Add(u"/");
      AddNode(t, node, DisplayOnly);
      first = false;
    }
    node = NextDevicePathNode(node);
  }
  return buffer;
}

CHAR16* DevicePathToText(const EFI_DEVICE_PATH_PROTOCOL* Path, BOOLEAN DisplayOnly, BOOLEAN AllowShortcuts) {
  if (Path == nullptr)
    return nullptr;
  EFI_DEVICE_PATH_TO_TEXT_PROTOCOL* toText = nullptr;
  if (gBS != nullptr &&
      !EFI_ERROR(gBS->LocateProtocol(&EFI_DEVICE_PATH_TO_TEXT_PROTOCOL_GUID, nullptr,
                                     reinterpret_cast<void**>(&toText))) &&
      toText != nullptr) {
    if (CHAR16* text = toText->ConvertDevicePathToText(Path, DisplayOnly, AllowShortcuts))
      return text;
  }
  return DevicePathToTextFallback(Path, DisplayOnly);
}
