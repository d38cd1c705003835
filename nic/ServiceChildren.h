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

// The children of the service bindings. Create and the openers can hand back the binding interface
// they used (Binding); given to Destroy and the closers, it destroys the child even when the binding
// cannot be opened again, so that an owner never leaves a child behind.
EFI_STATUS CreateServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                              EFI_HANDLE* ChildHandle, EFI_SERVICE_BINDING_PROTOCOL** Binding = nullptr);
EFI_STATUS DestroyServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                               EFI_HANDLE ChildHandle, EFI_SERVICE_BINDING_PROTOCOL* Binding = nullptr);
EFI_STATUS OpenIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                        EFI_IP4_PROTOCOL** Ip4, EFI_SERVICE_BINDING_PROTOCOL** Binding = nullptr);
EFI_STATUS OpenDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                          EFI_DHCP4_PROTOCOL** Dhcp4, EFI_SERVICE_BINDING_PROTOCOL** Binding = nullptr);
void CloseIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                   EFI_SERVICE_BINDING_PROTOCOL* Binding = nullptr);
void CloseDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                     EFI_SERVICE_BINDING_PROTOCOL* Binding = nullptr);

EFI_STATUS ReadNicAddress(EFI_HANDLE NicHandle, NicAddr* Address);
EFI_STATUS ReadMacAddresses(EFI_HANDLE Agent, EFI_HANDLE NicHandle, EFI_MAC_ADDRESS* Current,
                            EFI_MAC_ADDRESS* Permanent);
EFI_STATUS ReadMediaState(EFI_HANDLE Agent, EFI_HANDLE NicHandle, BOOLEAN* MediaSupported,
                          BOOLEAN* MediaPresent);

EFI_STATUS EFIAPI Dhcp4EventCallback(EFI_DHCP4_PROTOCOL* This, void* Context, EFI_DHCP4_STATE CurrentState,
                                     EFI_DHCP4_EVENT Dhcp4Event, EFI_DHCP4_PACKET* Packet,
                                     EFI_DHCP4_PACKET** NewPacket);

// Opens and closes the managed-network child that the readers and the speed test use: the child is
// created through the service binding and its protocol got with HandleProtocol. When only the
// second step fails the child handle is still set, so that its owner destroys it.
EFI_STATUS OpenMnpChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                        EFI_MANAGED_NETWORK_PROTOCOL** Mnp, EFI_SERVICE_BINDING_PROTOCOL** Binding = nullptr);
void CloseMnpChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                   EFI_SERVICE_BINDING_PROTOCOL* Binding = nullptr);

template <class Protocol> struct ChildOps;
template <> struct ChildOps<EFI_MANAGED_NETWORK_PROTOCOL> {
  static constexpr auto Open = OpenMnpChild;
  static constexpr auto Close = CloseMnpChild;
};
template <> struct ChildOps<EFI_IP4_PROTOCOL> {
  static constexpr auto Open = OpenIp4Child;
  static constexpr auto Close = CloseIp4Child;
};
template <> struct ChildOps<EFI_DHCP4_PROTOCOL> {
  static constexpr auto Open = OpenDhcp4Child;
  static constexpr auto Close = CloseDhcp4Child;
};

// A child of a network service binding with its protocol, closed and destroyed when the owner goes
// out of scope: the one way the module holds a service-binding child.
template <class Protocol> class ServiceChild {
public:
  ServiceChild() = default;
  ServiceChild(const ServiceChild&) = delete;
  ServiceChild& operator=(const ServiceChild&) = delete;
  ~ServiceChild() { Close(); }

  // On failure Handle() tells whether the child itself was made (only its protocol is missing).
  EFI_STATUS Open(EFI_HANDLE service, EFI_HANDLE agent) {
    Close();
    EFI_HANDLE child = nullptr;
    Protocol* protocol = nullptr;
    binding_ = nullptr;
    EFI_STATUS status = ChildOps<Protocol>::Open(service, agent, &child, &protocol, &binding_);
    service_ = service;
    agent_ = agent;
    child_ = child;
    protocol_ = EFI_ERROR(status) ? nullptr : protocol;
    return status;
  }
  void Close() {
    if (child_ != nullptr)
      ChildOps<Protocol>::Close(service_, agent_, child_, binding_);
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
  EFI_SERVICE_BINDING_PROTOCOL* binding_ = nullptr; // the binding the child came from
};

using MnpChild = ServiceChild<EFI_MANAGED_NETWORK_PROTOCOL>;
using Ip4Child = ServiceChild<EFI_IP4_PROTOCOL>;
using Dhcp4Child = ServiceChild<EFI_DHCP4_PROTOCOL>;
