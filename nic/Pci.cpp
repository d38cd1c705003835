#include "nic/Pci.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "report/Output.h"

namespace {

constexpr UINT8 kQwordDescriptor = 0x8A;
constexpr UINTN kQwordBytes = 46;
constexpr UINT8 kEndTag = 0x79;
constexpr UINT8 kTypeMemory = 0, kTypeIo = 1, kTypeBus = 2;
constexpr UINT64 kNoSegment = ~UINT64(0);
constexpr UINTN kMaxDescriptorBytes = 64 * 1024; // a walk never runs further than this

// The root bridges of the running test: PciRootBridgeTableOwner builds the table when a run begins
// and gives it back when the run ends; the configuration reads look bus numbers up in it.
constinit PCI_ROOT_BRIDGE_ENTRY* gTable = nullptr;
constinit UINTN gCount = 0;
constinit UINT64 gMaxSegment = kNoSegment;

UINT64 Read64(const UINT8* p) {
  UINT64 v = 0;
  for (UINTN i = 8; i-- > 0;)
    v = (v << 8) | p[i];
  return v;
}

// The length of the descriptor at p; 0 at the end tag.
UINTN DescriptorLength(const UINT8* p) {
  if (p[0] == kEndTag)
    return 0;
  if ((p[0] & 0x80) != 0)
    return 3 + UINTN(p[1] | (p[2] << 8));
  return (p[0] & 7) + 1;
}

// Walks the QWORD descriptors of one type: counts them, and fills min/max when given.
UINTN WalkRanges(const UINT8* descriptors, UINT8 type, UINT64* min, UINT64* max) {
  UINTN n = 0;
  for (UINTN offset = 0; offset < kMaxDescriptorBytes;) {
    const UINT8* p = descriptors + offset;
    UINTN length = DescriptorLength(p);
    if (length == 0)
      break;
    if (p[0] == kQwordDescriptor && length == kQwordBytes && p[3] == type) {
      UINT64 translation = Read64(p + 30);
      if (min != nullptr) {
        min[n] = Read64(p + 14) + translation;
        max[n] = Read64(p + 22) + translation;
      }
      ++n;
    }
    offset += length;
  }
  return n;
}

void FreeEntry(PCI_ROOT_BRIDGE_ENTRY& e) {
  UINT64* arrays[] = {e.BusMin, e.BusMax, e.IoMin, e.IoMax, e.MemMin, e.MemMax};
  for (UINT64* a : arrays)
    if (a != nullptr)
      FreePool(a);
  e = {};
}

// Both range arrays of one type for an entry; FALSE when out of memory.
bool FillRanges(const UINT8* descriptors, UINT8 type, UINT64*& min, UINT64*& max, UINTN& count) {
  count = WalkRanges(descriptors, type, nullptr, nullptr);
  if (count == 0)
    return true;
  min = static_cast<UINT64*>(AllocatePool(count * sizeof(UINT64)));
  max = static_cast<UINT64*>(AllocatePool(count * sizeof(UINT64)));
  if (min == nullptr || max == nullptr)
    return false;
  WalkRanges(descriptors, type, min, max);
  return true;
}

// The same checks for both widths; the bridge that decodes the bus, or null.
EFI_STATUS FindBridge(UINTN segment, UINTN bus, UINTN device, UINTN function, UINTN reg, const void* out,
                      EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL** bridge) {
  if (gMaxSegment == kNoSegment || segment > gMaxSegment)
    return EFI_NOT_FOUND;
  if (out == nullptr || bus >= 256 || device >= 32 || function >= 8 || reg >= 4096)
    return EFI_INVALID_PARAMETER;
  for (UINTN i = 0; i < gCount; ++i) {
    const PCI_ROOT_BRIDGE_ENTRY& e = gTable[i];
    if (e.RootBridgeIo->SegmentNumber != segment)
      continue;
    for (UINTN r = 0; r < e.BusRangeCount; ++r)
      if (e.BusMin[r] <= bus && bus <= e.BusMax[r]) {
        *bridge = e.RootBridgeIo;
        return EFI_SUCCESS;
      }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS ConfigRead(UINTN segment, UINTN bus, UINTN device, UINTN function, UINTN reg,
                      EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width, void* value) {
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* bridge = nullptr;
  EFI_STATUS status = FindBridge(segment, bus, device, function, reg, value, &bridge);
  if (EFI_ERROR(status))
    return status;
  UINT64 address = PciRootBridgeAddress(bus, device, function, reg <= 255 ? reg : 0);
  if (reg > 255)
    address |= UINT64(reg) << 32;
  return bridge->Pci.Read(bridge, width, address, 1, value);
}

// Nodes of a device path before its end node; 0 for a malformed path.
UINTN NodeCount(const EFI_DEVICE_PATH_PROTOCOL* path) {
  if (DevicePathSize(path) == 0)
    return 0;
  UINTN n = 0;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = path; !IsDevicePathEnd(node); node = NextDevicePathNode(node))
    ++n;
  return n;
}

// Whether Path begins with exactly the nodes of Prefix (same lengths and bytes).
bool StartsWithPath(const EFI_DEVICE_PATH_PROTOCOL* path, const EFI_DEVICE_PATH_PROTOCOL* prefix) {
  UINTN prefixBytes = DevicePathSize(prefix);
  UINTN pathBytes = DevicePathSize(path);
  if (prefixBytes < 4 || pathBytes < prefixBytes)
    return false;
  prefixBytes -= 4; // the end node
  if (CompareMem(path, prefix, prefixBytes) != 0)
    return false;
  // The prefix must end on a node boundary of the path.
  UINTN offset = 0;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = path; offset < prefixBytes && !IsDevicePathEnd(node);
       node = NextDevicePathNode(node))
    offset += DevicePathNodeLength(node);
  return offset == prefixBytes;
}

// A NIC the PCI tests can locate: somewhere on its path a PCI node (a PCI function, or a PCI or
// PCI Express root bridge) and no USB node (a USB NIC sits behind a PCI host controller, but its
// PCI function is the controller's, not the NIC's).
bool OnPciNotUsb(const EFI_DEVICE_PATH_PROTOCOL* path) {
  bool pci = false;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = path; !IsDevicePathEnd(node); node = NextDevicePathNode(node)) {
    if (node->Type == MESSAGING_DEVICE_PATH &&
        (node->SubType == MSG_USB_DP || node->SubType == MSG_USB_CLASS_DP ||
         node->SubType == MSG_USB_WWID_DP))
      return false;
    if (node->Type == HARDWARE_DEVICE_PATH && node->SubType == HW_PCI_DP)
      pci = true;
    if (node->Type == ACPI_DEVICE_PATH && node->SubType == ACPI_DP && DevicePathNodeLength(node) >= 8) {
      UINT32 hid = 0;
      CopyMem(&hid, reinterpret_cast<const UINT8*>(node) + 4, sizeof(hid));
      pci = pci || hid == EisaPnpId(0x0A03) || hid == EisaPnpId(0x0A08);
    }
  }
  return pci;
}

} // namespace

void FreePciRootBridgeTable() {
  for (UINTN i = 0; i < gCount; ++i)
    FreeEntry(gTable[i]);
  if (gTable != nullptr)
    FreePool(gTable);
  gTable = nullptr;
  gCount = 0;
  gMaxSegment = kNoSegment;
}

EFI_STATUS BuildPciRootBridgeTable() {
  FreePciRootBridgeTable();
  wc::HandleBuffer handles;
  EFI_STATUS status = handles.Locate(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID);
  if (EFI_ERROR(status))
    return status;
  if (handles.Count() == 0)
    return EFI_PROTOCOL_ERROR;
  gTable =
      static_cast<PCI_ROOT_BRIDGE_ENTRY*>(AllocateZeroPool(handles.Count() * sizeof(PCI_ROOT_BRIDGE_ENTRY)));
  if (gTable == nullptr)
    return EFI_OUT_OF_RESOURCES;
  for (UINTN i = 0; i < handles.Count(); ++i) {
    PCI_ROOT_BRIDGE_ENTRY& e = gTable[i];
    status = gBS->HandleProtocol(handles[i], &EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID,
                                 reinterpret_cast<void**>(&e.RootBridgeIo));
    void* descriptors = nullptr;
    if (!EFI_ERROR(status))
      status = e.RootBridgeIo->Configuration(e.RootBridgeIo, &descriptors);
    if (!EFI_ERROR(status) && descriptors == nullptr)
      status = EFI_PROTOCOL_ERROR;
    if (!EFI_ERROR(status)) {
      const auto* d = static_cast<const UINT8*>(descriptors);
      if (!FillRanges(d, kTypeBus, e.BusMin, e.BusMax, e.BusRangeCount) ||
          !FillRanges(d, kTypeIo, e.IoMin, e.IoMax, e.IoRangeCount) ||
          !FillRanges(d, kTypeMemory, e.MemMin, e.MemMax, e.MemRangeCount))
        status = EFI_OUT_OF_RESOURCES;
    }
    if (EFI_ERROR(status)) {
      gCount = i + 1; // the failed entry's arrays are freed with the others
      FreePciRootBridgeTable();
      return status;
    }
    gCount = i + 1;
    UINT64 segment = e.RootBridgeIo->SegmentNumber;
    if (gMaxSegment == kNoSegment || segment > gMaxSegment)
      gMaxSegment = segment;
  }
  return EFI_SUCCESS;
}

UINTN PciRootBridgeCount() {
  return gCount;
}
const PCI_ROOT_BRIDGE_ENTRY* PciRootBridgeAt(UINTN Index) {
  return Index < gCount ? &gTable[Index] : nullptr;
}
UINT64 PciMaxSegment() {
  return gMaxSegment;
}

EFI_STATUS PciConfigRead16(UINTN Segment, UINTN Bus, UINTN Device, UINTN Function, UINTN Register,
                           UINT16* Value) {
  if (Segment <= gMaxSegment && gMaxSegment != kNoSegment && (Register & 1) != 0)
    return EFI_INVALID_PARAMETER;
  return ConfigRead(Segment, Bus, Device, Function, Register, EfiPciIoWidthUint16, Value);
}

EFI_STATUS PciConfigRead8(UINTN Segment, UINTN Bus, UINTN Device, UINTN Function, UINTN Register,
                          UINT8* Value) {
  return ConfigRead(Segment, Bus, Device, Function, Register, EfiPciIoWidthUint8, Value);
}

EFI_STATUS GetNicPciLocation(EFI_HANDLE Nic, PciLocation* Location) {
  if (Location == nullptr)
    return EFI_INVALID_PARAMETER;
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  EFI_STATUS status =
      gBS->HandleProtocol(Nic, &EFI_DEVICE_PATH_PROTOCOL_GUID, reinterpret_cast<void**>(&path));
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed get handle Device Path Protocol.(%r)\r\n", status);
    return status;
  }
  wc::PoolPtr<CHAR16> text(DevicePathToText(path, FALSE, FALSE));
  if (!text) {
    LogPrint(u"Failed convert handle device path\r\n");
    return EFI_NOT_FOUND;
  }
  LogPrint(u"Handle Device Path: %s\r\n", text.Get());
  if (DevicePathSize(path) == 0 || !OnPciNotUsb(path)) {
    LogPrint(u"Device is unsupported\r\n");
    return EFI_UNSUPPORTED;
  }
  wc::HandleBuffer functions;
  status = functions.Locate(EFI_PCI_IO_PROTOCOL_GUID);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed locate PciIo Protocol handle buffer\r\n");
    return status;
  }
  UINTN best = functions.Count();
  UINTN bestNodes = 0;
  for (UINTN i = 0; i < functions.Count(); ++i) {
    EFI_DEVICE_PATH_PROTOCOL* functionPath = nullptr;
    status = gBS->HandleProtocol(functions[i], &EFI_DEVICE_PATH_PROTOCOL_GUID,
                                 reinterpret_cast<void**>(&functionPath));
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed get PciIo Device Path Protocol.(%r)\r\n", status);
      continue;
    }
    UINTN nodes = NodeCount(functionPath);
    if (nodes > bestNodes && StartsWithPath(path, functionPath)) {
      best = i;
      bestNodes = nodes;
    }
  }
  if (best == functions.Count()) {
    LogPrint(u"No device path matched\r\n");
    return EFI_NOT_FOUND;
  }
  EFI_PCI_IO_PROTOCOL* pciIo = nullptr;
  status = gBS->HandleProtocol(functions[best], &EFI_PCI_IO_PROTOCOL_GUID, reinterpret_cast<void**>(&pciIo));
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed locate PciIo Protocol for handle %d\r\n", best);
    return status;
  }
  PciLocation l = {};
  status = pciIo->GetLocation(pciIo, &l.Segment, &l.Bus, &l.Device, &l.Function);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed get pci location\r\n");
    return status;
  }
  LogPrint(u"PCI Network Handle location at [%02x:%02x:%02x:%02x]\r\n", l.Segment, l.Bus, l.Device,
           l.Function);
  *Location = l;
  return EFI_SUCCESS;
}

EFI_STATUS ReadNicDeviceId(EFI_HANDLE Nic, UINT16* DeviceId) {
  PciLocation l = {};
  EFI_STATUS status = GetNicPciLocation(Nic, &l);
  if (EFI_ERROR(status))
    return status;
  return PciConfigRead16(l.Segment, l.Bus, l.Device, l.Function, PCI_DEVICE_ID_OFFSET, DeviceId);
}
