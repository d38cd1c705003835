#include "ping/Ipv6Watch.h"

#include "base/Globals.h"
#include "base/Ipv6Text.h"
#include "report/Output.h"

namespace {

bool SameMac(const EFI_MAC_ADDRESS& A, const EFI_MAC_ADDRESS& B) {
  for (UINTN i = 0; i < 6; ++i) {
    if (A.Addr[i] != B.Addr[i])
      return false;
  }
  return true;
}

} // namespace

EFI_STATUS Ipv6Watch::Open(EFI_HANDLE Nic, const EFI_MAC_ADDRESS& Mac) {
  Close();
  own_ = Mac;
  EFI_STATUS status = rxEvent_.CreateForToken();
  if (!EFI_ERROR(status))
    status = txEvent_.CreateForToken();
  if (EFI_ERROR(status))
    return status;
  status = child_.Open(Nic, gImageHandle);
  if (EFI_ERROR(status))
    return status;
  if (!child_)
    return EFI_UNSUPPORTED;
  EFI_MANAGED_NETWORK_CONFIG_DATA config = {};
  config.ProtocolTypeFilter = kEtherTypeIpv6;
  config.EnableUnicastReceive = TRUE;
  config.EnableMulticastReceive = TRUE;
  config.FlushQueuesOnReset = TRUE;
  status = child_->Configure(child_.Get(), &config);
  if (EFI_ERROR(status)) {
    LogPrint(u"The managed-network child that watches IPv6 could not be configured (%r)\r\n", status);
    return status;
  }
  // The all-nodes group, where the answers to solicitations from the unspecified address go.
  EFI_MAC_ADDRESS allNodes = {{0x33, 0x33, 0, 0, 0, 1}};
  status = child_->Groups(child_.Get(), TRUE, &allNodes);
  if (EFI_ERROR(status)) {
    LogPrint(u"The IPv6 watch could not join the all-nodes group (%r)\r\n", status);
    return status;
  }
  return Arm();
}

void Ipv6Watch::Close() {
  if (child_) {
    if (rxArmed_)
      child_->Cancel(child_.Get(), &rxToken_);
    if (txPending_)
      child_->Cancel(child_.Get(), &txToken_);
    child_->Configure(child_.Get(), nullptr);
  }
  rxArmed_ = txPending_ = false;
  child_.Close();
  rxEvent_.Close();
  txEvent_.Close();
}

EFI_STATUS Ipv6Watch::Arm() {
  rxToken_.Event = rxEvent_.Get();
  rxToken_.Status = EFI_NOT_READY;
  rxToken_.Packet.RxData = nullptr;
  EFI_STATUS status = child_->Receive(child_.Get(), &rxToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"The IPv6 watch takes no receive token (%r)\r\n", status);
    return status;
  }
  rxArmed_ = true;
  return EFI_SUCCESS;
}

void Ipv6Watch::Take(const UINT8* Packet, UINTN Length, const EFI_MAC_ADDRESS& From,
                     const EFI_MAC_ADDRESS& Own, Ipv6Seen& Seen) {
  Ipv6Packet p;
  ReadIpv6Packet(Packet, Length, &p);
  if (p.Flaw != nullptr) {
    if (Seen.LastFlaw != p.Flaw)
      LogPrint(u"A malformed IPv6 packet came: %s\r\n", p.Flaw);
    ++Seen.Flawed;
    Seen.LastFlaw = p.Flaw;
  }
  switch (p.Kind) {
  case Ipv6PacketKind::RouterAdvertisement:
    ++Seen.Advertisements;
    Seen.Router = p.Source;
    Seen.Ra = p.Ra;
    break;
  case Ipv6PacketKind::NeighborAdvertisement:
    if (!SameMac(From, Own)) {
      if (Seen.Claims < kMaxNeighborClaims)
        Seen.Claimed[Seen.Claims] = {p.Target, From};
      ++Seen.Claims;
    }
    break;
  case Ipv6PacketKind::Dhcp6Answer:
    ++Seen.Dhcp6Answers;
    Seen.Dhcp6Status = p.Dhcp6Status;
    if (p.HasTarget) {
      Seen.Dhcp6Offered = true;
      Seen.Dhcp6Address = p.Target;
    }
    break;
  case Ipv6PacketKind::Ignored:
    break;
  }
}

void Ipv6Watch::Poll(Ipv6Seen& Seen) {
  if (!child_)
    return;
  // At most a ring's worth of frames in one look, so that a flood cannot hold the test here.
  for (UINTN taken = 0; taken < 64; ++taken) {
    child_->Poll(child_.Get());
    if (txPending_ && txToken_.Status != EFI_NOT_READY)
      txPending_ = false;
    if (!rxArmed_ || rxToken_.Status == EFI_NOT_READY)
      return;
    rxArmed_ = false;
    EFI_MANAGED_NETWORK_RECEIVE_DATA* rx = rxToken_.Packet.RxData;
    if (rxToken_.Status == EFI_SUCCESS && rx != nullptr && rx->PacketData != nullptr) {
      EFI_MAC_ADDRESS from = {};
      if (rx->SourceAddress != nullptr && rx->AddressLength >= 6 && rx->AddressLength <= 32) {
        const auto* s = static_cast<const UINT8*>(rx->SourceAddress);
        for (UINTN i = 0; i < rx->AddressLength; ++i)
          from.Addr[i] = s[i];
      }
      Take(static_cast<const UINT8*>(rx->PacketData), rx->DataLength, from, own_, Seen);
    }
    if (rx != nullptr && rx->RecycleEvent != nullptr)
      gBS->SignalEvent(rx->RecycleEvent);
    if (EFI_ERROR(Arm()))
      return;
  }
}

EFI_STATUS Ipv6Watch::Send(UINTN Length, EFI_MAC_ADDRESS& Destination) {
  if (!child_)
    return EFI_NOT_STARTED;
  if (txPending_) {
    child_->Cancel(child_.Get(), &txToken_);
    txPending_ = false;
  }
  destination_ = Destination;
  txData_ = {};
  txData_.DestinationAddress = &destination_;
  txData_.ProtocolType = kEtherTypeIpv6;
  txData_.DataLength = UINT32(Length);
  txData_.FragmentCount = 1;
  txData_.FragmentTable[0].FragmentLength = UINT32(Length);
  txData_.FragmentTable[0].FragmentBuffer = packet_;
  txToken_.Event = txEvent_.Get();
  txToken_.Status = EFI_NOT_READY;
  txToken_.Packet.TxData = &txData_;
  EFI_STATUS status = child_->Transmit(child_.Get(), &txToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"The IPv6 watch could not send (%r)\r\n", status);
    return status;
  }
  txPending_ = true;
  return EFI_SUCCESS;
}

EFI_STATUS Ipv6Watch::SendRouterSolicitation() {
  EFI_MAC_ADDRESS destination;
  UINTN length = BuildRouterSolicitation(packet_, sizeof(packet_), &destination);
  return Send(length, destination);
}

EFI_STATUS Ipv6Watch::SendDuplicateProbe(const EFI_IPv6_ADDRESS& Target) {
  EFI_MAC_ADDRESS destination;
  UINTN length = BuildDuplicateProbe(packet_, sizeof(packet_), Target, &destination);
  return Send(length, destination);
}
