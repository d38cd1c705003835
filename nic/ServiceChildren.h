// Children of the network stack's service bindings (managed network, IPv4, DHCPv4), the readers
// that learn a NIC's address and media state through a short-lived managed-network child, the
// DHCPv4 event callback, and owners that destroy a child on every exit path.
#pragma once
#include "uefi/protocol/Dhcp4.h"
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/ManagedNetwork.h"

#pragma pack(push, 1)
struct NicAddr {
  UINT16 Type;
  UINT8 Len;
  UINT8 Addr[32];
};
#pragma pack(pop)
static_assert(sizeof(NicAddr) == 35);

EFI_STATUS CreateServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                              EFI_HANDLE* ChildHandle);
EFI_STATUS DestroyServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                               EFI_HANDLE ChildHandle);
EFI_STATUS OpenIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                        EFI_IP4_PROTOCOL** Ip4);
EFI_STATUS OpenDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                          EFI_DHCP4_PROTOCOL** Dhcp4);
void CloseIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle);
void CloseDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle);

EFI_STATUS ReadNicAddress(EFI_HANDLE NicHandle, NicAddr* Address);
EFI_STATUS ReadMacAddresses(EFI_HANDLE Agent, EFI_HANDLE NicHandle, EFI_MAC_ADDRESS* Current,
                            EFI_MAC_ADDRESS* Permanent);
EFI_STATUS ReadMediaState(EFI_HANDLE Agent, EFI_HANDLE NicHandle, BOOLEAN* MediaSupported,
                          BOOLEAN* MediaPresent);

EFI_STATUS EFIAPI Dhcp4EventCallback(EFI_DHCP4_PROTOCOL* This, void* Context, EFI_DHCP4_STATE CurrentState,
                                     EFI_DHCP4_EVENT Dhcp4Event, EFI_DHCP4_PACKET* Packet,
                                     EFI_DHCP4_PACKET** NewPacket);

// An IPv4 or DHCPv4 child that is closed and destroyed when the owner goes out of scope.
template <class Protocol, EFI_STATUS (*OpenFn)(EFI_HANDLE, EFI_HANDLE, EFI_HANDLE*, Protocol**),
          void (*CloseFn)(EFI_HANDLE, EFI_HANDLE, EFI_HANDLE)>
class NetworkChild {
public:
  NetworkChild() = default;
  NetworkChild(const NetworkChild&) = delete;
  NetworkChild& operator=(const NetworkChild&) = delete;
  ~NetworkChild() { Close(); }

  EFI_STATUS Open(EFI_HANDLE service, EFI_HANDLE agent) {
    Close();
    EFI_STATUS status = OpenFn(service, agent, &child_, &protocol_);
    if (EFI_ERROR(status)) {
      child_ = nullptr;
      protocol_ = nullptr;
      return status;
    }
    service_ = service;
    agent_ = agent;
    return status;
  }
  void Close() {
    if (child_ != nullptr)
      CloseFn(service_, agent_, child_);
    child_ = nullptr;
    protocol_ = nullptr;
  }
  Protocol* operator->() const { return protocol_; }
  Protocol* Get() const { return protocol_; }
  EFI_HANDLE Handle() const { return child_; }
  explicit operator bool() const { return protocol_ != nullptr; }

private:
  EFI_HANDLE service_ = nullptr;
  EFI_HANDLE agent_ = nullptr;
  EFI_HANDLE child_ = nullptr;
  Protocol* protocol_ = nullptr;
};

using Ip4Child = NetworkChild<EFI_IP4_PROTOCOL, OpenIp4Child, CloseIp4Child>;
using Dhcp4Child = NetworkChild<EFI_DHCP4_PROTOCOL, OpenDhcp4Child, CloseDhcp4Child>;
