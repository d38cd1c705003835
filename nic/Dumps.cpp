#include "nic/Dumps.h"
#include "report/Output.h"

namespace {
const CHAR16* Bool(BOOLEAN b) {
  return b ? u"true" : u"false";
}

void AddressLine(const CHAR16* title, const EFI_IPv4_ADDRESS& address) {
  TracePrint(title);
  DumpIpv4Address(&address);
}
} // namespace

void DumpIpv4Address(const EFI_IPv4_ADDRESS* Address) {
  if (Address != nullptr)
    TracePrint(u"%d.%d.%d.%d\r\n", Address->Addr[0], Address->Addr[1], Address->Addr[2], Address->Addr[3]);
}

void DumpIp4ConfigData(const EFI_IP4_CONFIG_DATA* Data) {
  TracePrint(u"Dump Ip4 Config Data.\r\n");
  if (Data == nullptr)
    return;
  TracePrint(u"DefaultProtocol:0x%x\r\n", Data->DefaultProtocol);
  TracePrint(u"TypeOfService: 0x%x\r\n", Data->TypeOfService);
  TracePrint(u"TimeToLive: 0x%x\r\n", Data->TimeToLive);
  TracePrint(u"ReceiveTimeout:  0x%x\r\n", Data->ReceiveTimeout);
  TracePrint(u"TransmitTimeout: 0x%x\r\n", Data->TransmitTimeout);
  AddressLine(u"StationAddress:\r\n", Data->StationAddress);
  AddressLine(u"SubnetMask:\r\n", Data->SubnetMask);
  TracePrint(u"AcceptAnyProtocol: %s\r\n", Bool(Data->AcceptAnyProtocol));
  TracePrint(u"AcceptIcmpErrors: %s\r\n", Bool(Data->AcceptIcmpErrors));
  TracePrint(u"AcceptBroadcast: %s\r\n", Bool(Data->AcceptBroadcast));
  TracePrint(u"AcceptPromiscuous: %s\r\n", Bool(Data->AcceptPromiscuous));
  TracePrint(u"UseDefaultAddress: %s\r\n", Bool(Data->UseDefaultAddress));
  TracePrint(u"DoNotFragment: %s\r\n", Bool(Data->DoNotFragment));
  TracePrint(u"RawData: %s\r\n", Bool(Data->RawData));
}

void DumpGroupTable(const EFI_IPv4_ADDRESS* Table, UINTN Count) {
  if (Table == nullptr || Count == 0)
    return;
  TracePrint(u"Dump Group Table\r\n");
  for (UINTN i = 0; i < Count; ++i)
    DumpIpv4Address(&Table[i]);
}

void DumpRouteTable(const EFI_IP4_ROUTE_TABLE* Table, UINTN Count) {
  if (Table == nullptr || Count == 0)
    return;
  TracePrint(u"Dump Route Table\r\n");
  for (UINTN i = 0; i < Count; ++i) {
    AddressLine(u"SubnetAddress:\r\n", Table[i].SubnetAddress);
    AddressLine(u"SubnetMask:\r\n", Table[i].SubnetMask);
    AddressLine(u"GatewayAddress:\r\n", Table[i].GatewayAddress);
  }
}

void DumpIp4ModeData(const EFI_IP4_MODE_DATA* Data) {
  TracePrint(u"Dump Ip4 Mode Data.\r\n");
  if (Data == nullptr)
    return;
  TracePrint(u"IsStarted: %s\r\n", Bool(Data->IsStarted));
  DumpIp4ConfigData(&Data->ConfigData);
  TracePrint(u"IsConfigured: %s\r\n", Bool(Data->IsConfigured));
  if (Data->IsConfigured) {
    TracePrint(u"GroupCount: 0x%x\r\n", Data->GroupCount);
    DumpGroupTable(Data->GroupTable, Data->GroupCount);
    TracePrint(u"RouteCount: 0x%x\r\n", Data->RouteCount);
    DumpRouteTable(Data->RouteTable, Data->RouteCount);
  }
  TracePrint(u"IcmpTypeCount: 0x%x\r\n", Data->IcmpTypeCount);
}

void DumpDhcp4ConfigData(const EFI_DHCP4_CONFIG_DATA* Data) {
  TracePrint(u"Dump Dhcp4 Config Data.\r\n");
  if (Data == nullptr)
    return;
  TracePrint(u"DiscoverTryCount:0x%x\r\n", Data->DiscoverTryCount);
  TracePrint(u"DiscoverTimeout: 0x%x\r\n", Data->DiscoverTimeout); // pointers print in full
  TracePrint(u"RequestTryCount: 0x%x\r\n", Data->RequestTryCount);
  TracePrint(u"RequestTimeout:  0x%x\r\n", Data->RequestTimeout);
  AddressLine(u"ClientAddress:\r\n", Data->ClientAddress);
  TracePrint(u"OptionCount: 0x%x\r\n", Data->OptionCount);
  TracePrint(u"CallbackContext: 0x%x\r\n", Data->CallbackContext);
  TracePrint(u"Dhcp4Callback: 0x%x\r\n", reinterpret_cast<const void*>(Data->Dhcp4Callback));
}

void DumpDhcp4ModeData(const EFI_DHCP4_MODE_DATA* Data) {
  TracePrint(u"Dump Dhcp4 Mode Data.\r\n");
  if (Data == nullptr)
    return;
  TracePrint(u"State: 0x%x\r\n", Data->State);
  DumpDhcp4ConfigData(&Data->ConfigData);
  AddressLine(u"ClientAddress:\r\n", Data->ClientAddress);
  const UINT8* mac = Data->ClientMacAddress.Addr;
  TracePrint(u"ClientMacAddress:\r\n");
  TracePrint(u"%x-%x-%x-%x-%x-%x\r\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  AddressLine(u"ServerAddress:\r\n", Data->ServerAddress);
  AddressLine(u"RouterAddress:\r\n", Data->RouterAddress);
  AddressLine(u"SubnetMask:\r\n", Data->SubnetMask);
  TracePrint(u"LeaseTime: 0x%x\r\n", Data->LeaseTime);
}

void DumpDhcp4Header(const EFI_DHCP4_HEADER* Header) {
  TracePrint(u"dump dhcp4 Header:\r\n");
  if (Header == nullptr)
    return;
  TracePrint(u"OpCode:0x%x\r\n", Header->OpCode);
  TracePrint(u"HwType:0x%x\r\n", Header->HwType);
  TracePrint(u"HwAddrLen:0x%x\r\n", Header->HwAddrLen);
  TracePrint(u"Hops:0x%x\r\n", Header->Hops);
  TracePrint(u"Xid:0x%x\r\n", UINT32(Header->Xid));
  TracePrint(u"Seconds:0x%x\r\n", UINT16(Header->Reserved));
  TracePrint(u"Reserved:0x%x\r\n", UINT16(Header->Reserved1));
  AddressLine(u"ClientAddress in header:\r\n", Header->ClientAddr);
  AddressLine(u"ServerAddress in header:\r\n", Header->ServerAddr);
  AddressLine(u"YourAddress in header:\r\n", Header->YourAddr);
  AddressLine(u"GatewayAddr in header:\r\n", Header->GatewayAddr);
  const UINT8* hw = Header->ClientHwAddr;
  TracePrint(u"ClientHwAddr: %x%x%x%x%x%x\r\n", hw[0], hw[1], hw[2], hw[3], hw[4], hw[5]);
}

void DumpDhcp4Packet(const EFI_DHCP4_PACKET* Packet) {
  TracePrint(u"dump dhcp4 packet:\r\n");
  if (Packet == nullptr)
    return;
  TracePrint(u"Size:0x%x\r\n", UINT32(Packet->Size));
  TracePrint(u"Length:0x%x\r\n", UINT32(Packet->Length));
  // The firmware's buffer is Size bytes: a packet too short for the header, the magic cookie and
  // one option byte is not read further.
  constexpr UINTN kDumped = offsetof(EFI_DHCP4_PACKET, Dhcp4.Option) + 1;
  if (Packet->Size < kDumped || Packet->Length < kDumped - offsetof(EFI_DHCP4_PACKET, Dhcp4)) {
    TracePrint(u"dhcp4 packet too short to dump\r\n");
    return;
  }
  DumpDhcp4Header(&Packet->Dhcp4.Header);
  TracePrint(u"dhcp4 Magik:0x%x\r\n", UINT32(Packet->Dhcp4.Magik));
  TracePrint(u"dhcp4 Option:0x%x\r\n", Packet->Dhcp4.Option[0]);
}
