#include "fakes/FakeNetwork.h"

#include <algorithm>
#include <cstring>

#include "uefi/protocol/DevicePath.h"
#include "uefi/protocol/Vex.h"

namespace {

FakeFirmware& F() {
  return *FakeFirmware::current;
}

template <class P> FakeNic& NicOf(P* self) {
  return *reinterpret_cast<FakeNic::Instance<P>*>(self)->nic;
}

void Put16(std::vector<UINT8>& v, UINT16 x) {
  v.push_back(UINT8(x));
  v.push_back(UINT8(x >> 8));
}
void Put32(std::vector<UINT8>& v, UINT32 x) {
  Put16(v, UINT16(x));
  Put16(v, UINT16(x >> 16));
}

// PciRoot(0x0)/Pci(device,0x0), and the end node when asked.
std::vector<UINT8> PciPath(UINT8 device, bool end) {
  std::vector<UINT8> p = {ACPI_DEVICE_PATH, ACPI_DP, 12, 0};
  Put32(p, EisaPnpId(0x0A03));
  Put32(p, 0);
  p.insert(p.end(), {HARDWARE_DEVICE_PATH, HW_PCI_DP, 6, 0, 0, device});
  if (end)
    p.insert(p.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});
  return p;
}

// ---- Service bindings ----

EFI_STATUS EFIAPI MnpCancel(EFI_MANAGED_NETWORK_PROTOCOL* self, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token);

EFI_STATUS EFIAPI DestroyChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE child) {
  auto* b = reinterpret_cast<FakeBinding*>(self);
  if (std::erase(b->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  if (b == &b->nic->mnpBinding)
    MnpCancel(&b->nic->mnp.p, nullptr); // a destroyed child's pending frames end aborted
  F().RemoveHandle(child);
  return EFI_SUCCESS;
}

// ---- Simple network ----

EFI_STATUS EFIAPI SnpStart(EFI_SIMPLE_NETWORK_PROTOCOL* self) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (n.mode.State != EfiSimpleNetworkStopped)
    return EFI_ALREADY_STARTED;
  n.mode.State = EfiSimpleNetworkStarted;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SnpStop(EFI_SIMPLE_NETWORK_PROTOCOL* self) {
  NicOf(self).mode.State = EfiSimpleNetworkStopped;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SnpInitialize(EFI_SIMPLE_NETWORK_PROTOCOL* self, UINTN, UINTN) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (n.mode.State != EfiSimpleNetworkStarted)
    return EFI_NOT_STARTED;
  n.mode.State = EfiSimpleNetworkInitialized;
  n.mode.MediaPresent = n.link;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SnpShutdown(EFI_SIMPLE_NETWORK_PROTOCOL* self) {
  FakeNic& n = NicOf(self);
  if (n.mode.State == EfiSimpleNetworkInitialized)
    n.mode.State = EfiSimpleNetworkStarted;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SnpGetStatus(EFI_SIMPLE_NETWORK_PROTOCOL* self, UINT32* interrupts, void** txBuffer) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (interrupts != nullptr)
    *interrupts = 0;
  if (txBuffer != nullptr)
    *txBuffer = nullptr;
  n.mode.MediaPresent = n.link;
  return EFI_SUCCESS;
}

// Reports the counters as a driver that keeps only the dropped frames would: every other one all ones.
EFI_STATUS EFIAPI SnpStatistics(EFI_SIMPLE_NETWORK_PROTOCOL* self, BOOLEAN reset, UINTN* size,
                                EFI_NETWORK_STATISTICS* table) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (!n.keepsStatistics)
    return EFI_UNSUPPORTED;
  if (n.mode.State != EfiSimpleNetworkInitialized)
    return EFI_NOT_STARTED;
  if (reset)
    n.rxDropped = 0;
  if (size == nullptr)
    return table == nullptr ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
  EFI_NETWORK_STATISTICS counters;
  std::memset(&counters, 0xFF, sizeof(counters));
  counters.RxDroppedFrames = n.rxDropped;
  if (table != nullptr)
    std::memcpy(table, &counters, std::min<UINTN>(*size, sizeof(counters)));
  bool small = *size < sizeof(counters);
  *size = sizeof(counters);
  return small ? EFI_BUFFER_TOO_SMALL : EFI_SUCCESS;
}

// ---- Managed network ----

EFI_STATUS EFIAPI MnpGetModeData(EFI_MANAGED_NETWORK_PROTOCOL* self, EFI_MANAGED_NETWORK_CONFIG_DATA*,
                                 EFI_SIMPLE_NETWORK_MODE* snpMode) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  n.mode.MediaPresent = n.link;
  if (snpMode != nullptr)
    *snpMode = n.mode;
  return n.mnpConfigured ? EFI_SUCCESS : EFI_NOT_STARTED;
}
EFI_STATUS EFIAPI MnpConfigure(EFI_MANAGED_NETWORK_PROTOCOL* self, EFI_MANAGED_NETWORK_CONFIG_DATA* config) {
  if (config != nullptr && F().Fail())
    return EFI_DEVICE_ERROR;
  NicOf(self).mnpConfigured = config != nullptr;
  return EFI_SUCCESS;
}
// Like the firmware's own driver, a frame is on the wire when Transmit returns: the clock moves by the
// frame's time and the token completes (stuck frames wait for a cancel instead).
EFI_STATUS EFIAPI MnpTransmit(EFI_MANAGED_NETWORK_PROTOCOL* self,
                              EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (!n.mnpConfigured)
    return EFI_NOT_STARTED;
  if (token == nullptr || token->Event == nullptr || token->Packet.TxData == nullptr)
    return EFI_INVALID_PARAMETER;
  for (UINT32 i = 0; i < token->Packet.TxData->FragmentCount; ++i)
    F().CheckLeavesClean(token->Packet.TxData->FragmentTable[i].FragmentBuffer,
                         token->Packet.TxData->FragmentTable[i].FragmentLength);
  UINTN number = n.framesSent + n.framesRefused + 1;
  if (n.refusedFrames.count(number) != 0) {
    ++n.framesRefused;
    return EFI_DEVICE_ERROR;
  }
  if (n.txRingSlots != 0 && n.txRingUsed >= n.txRingSlots) {
    ++n.framesRingFull;
    if (n.txRingFullIsOutOfBuffers)
      return EFI_OUT_OF_RESOURCES;
    token->Status = EFI_DEVICE_ERROR;
    F().bs.SignalEvent(token->Event);
    return EFI_SUCCESS;
  }
  ++n.txRingUsed;
  ++n.framesSent;
  if (n.stuckFrames.count(number) != 0) {
    n.txQueue.push_back(token);
    return EFI_SUCCESS;
  }
  n.fw.Advance(n.frameTime);
  token->Status = n.failedFrames.count(number) != 0 ? EFI_NO_MEDIA : EFI_SUCCESS;
  if (token->Status == EFI_SUCCESS)
    ++n.framesCompleted;
  F().bs.SignalEvent(token->Event);
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI MnpCancel(EFI_MANAGED_NETWORK_PROTOCOL* self, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token) {
  FakeNic& n = NicOf(self);
  auto cancelled = std::move(n.txQueue);
  n.txQueue.clear();
  for (auto* t : cancelled) {
    if (token != nullptr && t != token) {
      n.txQueue.push_back(t);
      continue;
    }
    t->Status = EFI_ABORTED;
    F().bs.SignalEvent(t->Event);
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI MnpPoll(EFI_MANAGED_NETWORK_PROTOCOL* self) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (NicOf(self).txRingDrains)
    NicOf(self).txRingUsed = 0;
  return EFI_SUCCESS;
}

// ---- IPv4 ----

EFI_STATUS EFIAPI Ip4GetModeData(EFI_IP4_PROTOCOL* self, EFI_IP4_MODE_DATA* mode,
                                 EFI_MANAGED_NETWORK_CONFIG_DATA*, EFI_SIMPLE_NETWORK_MODE*) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (mode != nullptr) {
    *mode = {};
    mode->IsStarted = n.ip4Configured;
    mode->IsConfigured = n.ip4Configured && n.HasAddress() && !n.ip4LeftBehind;
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Ip4Configure(EFI_IP4_PROTOCOL* self, EFI_IP4_CONFIG_DATA* config) {
  FakeNic& n = NicOf(self);
  if (config == nullptr) {
    n.ip4Configured = false;
    n.ip4LeftBehind = false;
    if (n.rxToken != nullptr)
      n.rxToken->Status = EFI_ABORTED;
    n.rxToken = nullptr;
    n.repliesDue.clear();
    return EFI_SUCCESS;
  }
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (EFI_ERROR(n.ip4ConfigureAnswer))
    return n.ip4ConfigureAnswer;
  n.ip4Configured = true;
  n.ip4LeftBehind = n.childLeftBehind && !n.HasAddress();
  return n.HasAddress() ? EFI_SUCCESS : EFI_NO_MAPPING;
}
EFI_STATUS EFIAPI Ip4Transmit(EFI_IP4_PROTOCOL* self, EFI_IP4_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (!n.ip4Configured)
    return EFI_NOT_STARTED;
  const auto& fragment = token->Packet.TxData->FragmentTable[0];
  const auto* icmp = static_cast<const UINT8*>(fragment.FragmentBuffer);
  F().CheckLeavesClean(icmp, fragment.FragmentLength);
  UINT32 sum = 0;
  for (UINT32 i = 0; i + 1 < fragment.FragmentLength; i += 2)
    sum += UINT32(icmp[i] | (icmp[i + 1] << 8));
  while (sum > 0xFFFF)
    sum = (sum & 0xFFFF) + (sum >> 16);
  n.badChecksums += sum != 0xFFFF;
  UINT16 seq = UINT16(icmp[6] | (icmp[7] << 8));
  n.pingsSent.push_back({F().now, seq});
  if (n.pingAnswers && n.unanswered.count(seq) == 0 &&
      std::memcmp(&token->Packet.TxData->DestinationAddress, &n.server, 4) == 0) {
    if (n.droppedByNic.count(seq) != 0)
      ++n.rxDropped;
    else
      n.repliesDue.push_back({F().now + n.replyDelay, seq});
  }
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Ip4Receive(EFI_IP4_PROTOCOL* self, EFI_IP4_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (!n.ip4Configured)
    return EFI_NOT_STARTED;
  n.rxToken = token;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Ip4Cancel(EFI_IP4_PROTOCOL*, EFI_IP4_COMPLETION_TOKEN* token) {
  if (token != nullptr)
    token->Status = EFI_ABORTED;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Ip4Poll(EFI_IP4_PROTOCOL* self) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (n.rxToken == nullptr || n.repliesDue.empty() || n.repliesDue.front().first > F().now)
    return EFI_SUCCESS;
  UINT16 seq = n.repliesDue.front().second;
  n.repliesDue.erase(n.repliesDue.begin());
  n.rxHeader = {};
  n.rxHeader.Protocol = 1;
  n.rxHeader.SourceAddress = n.server;
  std::memset(n.reply, 0, sizeof(n.reply));
  n.reply[6] = UINT8(seq);
  n.reply[7] = UINT8(seq >> 8);
  n.rxData = {};
  n.rxData.Header = &n.rxHeader;
  n.rxData.DataLength = sizeof(n.reply);
  n.rxData.FragmentCount = 1;
  n.rxData.FragmentTable[0] = {UINT32(sizeof(n.reply)), n.reply};
  n.rxToken->Packet.RxData = &n.rxData;
  n.rxToken->Status = EFI_SUCCESS;
  n.rxToken = nullptr;
  return EFI_SUCCESS;
}

// ---- DHCPv4 ----

EFI_STATUS EFIAPI DhcpGetModeData(EFI_DHCP4_PROTOCOL* self, EFI_DHCP4_MODE_DATA* mode) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  *mode = {};
  mode->State = n.dhcpState;
  mode->ConfigData = n.dhcpConfig;
  std::memcpy(&mode->ClientMacAddress, &n.mode.CurrentAddress, sizeof(EFI_MAC_ADDRESS));
  if (n.dhcpState == Dhcp4Bound) {
    mode->ClientAddress = n.client;
    mode->ServerAddress = n.server;
    mode->SubnetMask = {{255, 255, 255, 0}};
    mode->LeaseTime = 86400;
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI DhcpConfigure(EFI_DHCP4_PROTOCOL* self, EFI_DHCP4_CONFIG_DATA* config) {
  FakeNic& n = NicOf(self);
  if (config == nullptr) {
    n.dhcpState = Dhcp4Stopped;
    return EFI_SUCCESS;
  }
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  ++n.dhcpConfigures;
  if (n.dhcpDenials > 0) {
    --n.dhcpDenials;
    return EFI_ACCESS_DENIED;
  }
  n.dhcpConfig = *config;
  n.dhcpState = Dhcp4Init;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI DhcpStart(EFI_DHCP4_PROTOCOL* self, EFI_EVENT) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (n.dhcpState != Dhcp4Init)
    return EFI_NOT_STARTED;
  ++n.dhcpStarts;
  auto callback = n.dhcpConfig.Dhcp4Callback;
  if (callback != nullptr)
    callback(self, n.dhcpConfig.CallbackContext, n.dhcpState, Dhcp4SendDiscover, nullptr, nullptr);
  if (n.dhcpTimeouts > 0) {
    --n.dhcpTimeouts;
    return EFI_TIMEOUT;
  }
  n.dhcpState = Dhcp4Bound;
  if (callback != nullptr)
    callback(self, n.dhcpConfig.CallbackContext, n.dhcpState, Dhcp4BoundCompleted, nullptr, nullptr);
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI DhcpStop(EFI_DHCP4_PROTOCOL* self) {
  ++NicOf(self).dhcpStops;
  NicOf(self).dhcpState = Dhcp4Stopped;
  return EFI_SUCCESS;
}

// ---- IPv4 configuration 2 ----

EFI_STATUS EFIAPI Config2GetData(EFI_IP4_CONFIG2_PROTOCOL* self, EFI_IP4_CONFIG2_DATA_TYPE type, UINTN* size,
                                 void* data) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (type == Ip4Config2DataTypePolicy) {
    if (*size < sizeof(n.policy)) {
      *size = sizeof(n.policy);
      return EFI_BUFFER_TOO_SMALL;
    }
    if (EFI_ERROR(n.policyRead))
      return n.policyRead;
    std::memcpy(data, &n.policy, sizeof(n.policy));
    return EFI_SUCCESS;
  }
  if (type == Ip4Config2DataTypeDnsServer) {
    UINTN need = n.dnsServers.size() * sizeof(EFI_IPv4_ADDRESS);
    if (need == 0)
      return EFI_NOT_FOUND;
    if (*size < need || data == nullptr) {
      *size = need;
      return EFI_BUFFER_TOO_SMALL;
    }
    std::memcpy(data, n.dnsServers.data(), need);
    *size = need;
    return EFI_SUCCESS;
  }
  if (type != Ip4Config2DataTypeInterfaceInfo)
    return EFI_NOT_FOUND;
  if (n.config2NotReady > 0) {
    --n.config2NotReady;
    return EFI_NOT_READY;
  }
  bool mapped = n.HasAddress();
  UINTN routes = mapped ? 2 : 0;
  UINTN need = sizeof(EFI_IP4_CONFIG2_INTERFACE_INFO) + routes * sizeof(EFI_IP4_ROUTE_TABLE);
  if (*size < need || data == nullptr) {
    *size = need;
    return EFI_BUFFER_TOO_SMALL;
  }
  auto* info = static_cast<EFI_IP4_CONFIG2_INTERFACE_INFO*>(data);
  *info = {};
  std::memcpy(info->Name, u"eth0", 10);
  info->IfType = 1;
  info->HwAddressSize = 6;
  info->HwAddress = n.mode.CurrentAddress;
  if (mapped) {
    info->StationAddress = n.client;
    info->SubnetMask = {{255, 255, 255, 0}};
    auto* table = reinterpret_cast<EFI_IP4_ROUTE_TABLE*>(info + 1);
    table[0] = {{{n.client.Addr[0], n.client.Addr[1], n.client.Addr[2], 0}}, {{255, 255, 255, 0}}, {}};
    table[1] = {{}, {}, n.gateway};
    info->RouteTableSize = UINT32(routes);
    info->RouteTable = table;
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Config2SetData(EFI_IP4_CONFIG2_PROTOCOL* self, EFI_IP4_CONFIG2_DATA_TYPE type, UINTN size,
                                 void* data) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeNic& n = NicOf(self);
  if (type != Ip4Config2DataTypePolicy || size != sizeof(n.policy) || data == nullptr)
    return EFI_UNSUPPORTED;
  std::memcpy(&n.policy, data, sizeof(n.policy));
  if (n.dhcpGaveUp && n.policy == Ip4Config2PolicyDhcp) {
    n.dhcpGaveUp = false;
    n.mappedAt = n.fw.now + 30000000;
  }
  for (auto& [t, event] : n.notifies)
    if (t == type)
      F().bs.SignalEvent(event);
  ++n.policySets;
  return n.setDataNotReady ? EFI_NOT_READY : EFI_SUCCESS;
}
EFI_STATUS EFIAPI Config2Register(EFI_IP4_CONFIG2_PROTOCOL* self, EFI_IP4_CONFIG2_DATA_TYPE type,
                                  EFI_EVENT event) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  NicOf(self).notifies.push_back({type, event});
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI Config2Unregister(EFI_IP4_CONFIG2_PROTOCOL* self, EFI_IP4_CONFIG2_DATA_TYPE type,
                                    EFI_EVENT event) {
  auto& list = NicOf(self).notifies;
  return std::erase(list, std::make_pair(type, event)) != 0 ? EFI_SUCCESS : EFI_NOT_FOUND;
}

// ---- PCI ----

EFI_STATUS EFIAPI PciIoRead(EFI_PCI_IO_PROTOCOL* self, EFI_PCI_IO_PROTOCOL_WIDTH width, UINT32 offset,
                            UINTN count, void* buffer) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  return NicOf(self).ReadConfig(width, offset, count, buffer);
}
EFI_STATUS EFIAPI PciIoLocation(EFI_PCI_IO_PROTOCOL* self, UINTN* segment, UINTN* bus, UINTN* device,
                                UINTN* function) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  *segment = 0;
  *bus = 0;
  *device = NicOf(self).device;
  *function = 0;
  return EFI_SUCCESS;
}
} // namespace

EFI_STATUS EFIAPI FakeCreateChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE* child) {
  if (F().Fail())
    return EFI_OUT_OF_RESOURCES;
  auto* b = reinterpret_cast<FakeBinding*>(self);
  static uintptr_t next = 0x900000;
  EFI_HANDLE h = reinterpret_cast<EFI_HANDLE>(next += 16);
  F().AddProtocol(h, b->childGuid, b->childProtocol);
  b->children.push_back(h);
  *child = h;
  return EFI_SUCCESS;
}

FakeNic::FakeNic(FakeFirmware& f, UINT8 dev, UINT8 lastMacByte) : fw(f), device(dev) {
  handle = reinterpret_cast<EFI_HANDLE>(0x800000 + uintptr_t(dev) * 0x1000);
  pciHandle = reinterpret_cast<EFI_HANDLE>(0x800000 + uintptr_t(dev) * 0x1000 + 0x100);

  mode.State = EfiSimpleNetworkInitialized; // the network stack owns the NIC
  mode.HwAddressSize = 6;
  mode.MediaHeaderSize = 14;
  mode.MaxPacketSize = 1500;
  mode.IfType = 1;
  mode.MediaPresentSupported = TRUE;
  const UINT8 mac[6] = {0x52, 0x54, 0x00, 0x12, 0x34, lastMacByte};
  std::memcpy(mode.CurrentAddress.Addr, mac, 6);
  mode.PermanentAddress = mode.CurrentAddress;
  std::memset(mode.BroadcastAddress.Addr, 0xFF, 6);

  pciPath = PciPath(dev, true);
  devicePath = PciPath(dev, false);
  devicePath.insert(devicePath.end(), {MESSAGING_DEVICE_PATH, MSG_MAC_ADDR_DP, 37, 0});
  devicePath.insert(devicePath.end(), mode.CurrentAddress.Addr, mode.CurrentAddress.Addr + 32);
  devicePath.push_back(mode.IfType);
  devicePath.insert(devicePath.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});

  // Red Hat's virtio network device, interrupt line 11.
  config[0] = 0xF4;
  config[1] = 0x1A;
  config[2] = 0x00;
  config[3] = 0x10;
  config[PCI_INT_LINE_OFFSET] = 11;

  snp.nic = mnp.nic = ip4.nic = dhcp.nic = config2.nic = pciIo.nic = this;
  snp.p.Start = SnpStart;
  snp.p.Stop = SnpStop;
  snp.p.Initialize = SnpInitialize;
  snp.p.Shutdown = SnpShutdown;
  snp.p.GetStatus = SnpGetStatus;
  snp.p.Statistics = SnpStatistics;
  snp.p.Mode = &mode;
  mnp.p = {MnpGetModeData, MnpConfigure, nullptr, nullptr, MnpTransmit, nullptr, MnpCancel, MnpPoll};
  ip4.p = {Ip4GetModeData, Ip4Configure, nullptr, nullptr, Ip4Transmit, Ip4Receive, Ip4Cancel, Ip4Poll};
  dhcp.p.GetModeData = DhcpGetModeData;
  dhcp.p.Configure = DhcpConfigure;
  dhcp.p.Start = DhcpStart;
  dhcp.p.Stop = DhcpStop;
  config2.p = {Config2SetData, Config2GetData, Config2Register, Config2Unregister};
  pciIo.p.Pci.Read = PciIoRead;
  pciIo.p.GetLocation = PciIoLocation;

  mnpBinding = {{FakeCreateChild, DestroyChild}, this, EFI_MANAGED_NETWORK_PROTOCOL_GUID, &mnp.p, {}};
  ip4Binding = {{FakeCreateChild, DestroyChild}, this, EFI_IP4_PROTOCOL_GUID, &ip4.p, {}};
  dhcpBinding = {{FakeCreateChild, DestroyChild}, this, EFI_DHCP4_PROTOCOL_GUID, &dhcp.p, {}};

  fw.AddProtocol(pciHandle, EFI_DEVICE_PATH_PROTOCOL_GUID, pciPath.data());
  fw.AddProtocol(pciHandle, EFI_PCI_IO_PROTOCOL_GUID, &pciIo.p);
  fw.AddProtocol(handle, EFI_DEVICE_PATH_PROTOCOL_GUID, devicePath.data());
  fw.AddProtocol(handle, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, &snp.p);
  fw.AddProtocol(handle, EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID, &mnpBinding.sb);
  fw.AddProtocol(handle, EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID, &ip4Binding.sb);
  fw.AddProtocol(handle, EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID, &dhcpBinding.sb);
  fw.AddProtocol(handle, EFI_IP4_CONFIG2_PROTOCOL_GUID, &config2.p);
}

FakeNic::~FakeNic() {
  fw.tickers.clear();
  for (FakeBinding* b : {&mnpBinding, &ip4Binding, &dhcpBinding})
    for (EFI_HANDLE child : b->children)
      fw.RemoveHandle(child);
  fw.RemoveHandle(handle);
  fw.RemoveHandle(pciHandle);
}

EFI_STATUS FakeNic::ReadConfig(UINT32 width, UINT64 offset, UINTN count, void* buffer) const {
  UINTN bytes = (UINTN(1) << width) * count;
  if (width > EfiPciIoWidthUint64 || offset + bytes > sizeof(config))
    return EFI_INVALID_PARAMETER;
  std::memcpy(buffer, config + offset, bytes);
  return EFI_SUCCESS;
}

UINTN FakeNic::LiveChildren() const {
  return mnpBinding.children.size() + ip4Binding.children.size() + dhcpBinding.children.size();
}
