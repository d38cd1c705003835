// Children of the network stack's service bindings (managed network, IPv4, DHCPv4), the readers
// that learn a NIC's address and media state through a short-lived managed-network child, the
// DHCPv4 event callback, and owners that destroy a child on every exit path.
#pragma once
#include "uefi/protocol/Dhcp4.h"
#include "uefi/protocol/Dns4.h"
#include "uefi/protocol/Hash2.h"
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/Ip6.h"
#include "uefi/protocol/ManagedNetwork.h"

#pragma pack(push, 1)
struct NicAddr {
  UINT16 Type;
  UINT8 Len;
  UINT8 Addr[32];
};
#pragma pack(pop)
static_assert(sizeof(NicAddr) == 35);

// How the module holds a child of one network service. Two ways, one per use:
// - Held: the IPv4 and DHCPv4 children of the ping and DHCP steps. The binding stays open (get-
//   protocol, no controller) for the child's life, and the protocol is opened on the child with the
//   child as controller, so that the firmware shows the module as the child's user until it closes.
// - Short: the managed-network children of the readers and of transmit bursts. The binding is opened
//   with the service handle as controller only around CreateChild and DestroyChild, and the
//   child's protocol is looked up with HandleProtocol; when only that lookup fails, the owner still
//   holds the child and destroys it.
struct ServiceKind {
  const EFI_GUID* Binding;
  const EFI_GUID* Protocol;
  bool Held;
  const CHAR16* BindingFailed;  // %r; the binding could not be opened to create the child
  const CHAR16* CreateFailed;   // the binding refused to create the child; may be null
  const CHAR16* ProtocolFailed; // the child's protocol could not be opened; may be null
  const CHAR16* RebindFailed;   // the binding could not be opened again to destroy it; may be null
};

template <class Protocol> struct ServiceKindOf;
template <> struct ServiceKindOf<EFI_MANAGED_NETWORK_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_MANAGED_NETWORK_PROTOCOL_GUID,
      .Held = false,
      .BindingFailed = u"Failed CreateServiceChild ManagedNetworkProtocol!(%r)\r\n",
      .CreateFailed = nullptr,
      .ProtocolFailed = nullptr,
      .RebindFailed = nullptr,
  };
};
template <> struct ServiceKindOf<EFI_IP4_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_IP4_PROTOCOL_GUID,
      .Held = true,
      .BindingFailed = u"Failed to Open EFI_IP4_SERVICE_BINDING_PROTOCOL!\r\n",
      .CreateFailed = u"Failed to creat Ip4 child handle!\r\n",
      .ProtocolFailed = u"Failed to open Ip4 Protocol!\r\n",
      .RebindFailed = u"Failed to Open Efi Ip4 Service Binding Protocol!\r\n",
  };
};
template <> struct ServiceKindOf<EFI_DHCP4_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_DHCP4_PROTOCOL_GUID,
      .Held = true,
      .BindingFailed = u"Failed to Open EFI_DHCP4_SERVICE_BINDING_PROTOCOL!\r\n",
      .CreateFailed = u"Failed to creat Ip4 child handle!\r\n", // the words the IPv4 child uses
      .ProtocolFailed = u"Failed to open Dhcp4 Protocol!\r\n",
      .RebindFailed = u"Failed to Open Efi Dhcp4 Service Binding Protocol!\r\n",
  };
};

// A child of a network service with its protocol, closed and destroyed when the owner goes out of
// scope: the one way the module holds a service-binding child. It keeps the binding the child came
// from, so that a child whose binding cannot be opened again is still destroyed.
class ServiceChildOwner {
public:
  explicit ServiceChildOwner(const ServiceKind& Kind) : kind_(Kind) {}
  ServiceChildOwner(const ServiceChildOwner&) = delete;
  ServiceChildOwner& operator=(const ServiceChildOwner&) = delete;
  ~ServiceChildOwner() { Close(); }

  // On failure Handle() tells whether the child itself was made (only its protocol is missing).
  EFI_STATUS Open(EFI_HANDLE Service, EFI_HANDLE Agent);
  void Close();
  EFI_HANDLE Handle() const { return child_; }

protected:
  void* Interface() const { return protocol_; }

private:
  EFI_HANDLE Controller() const { return kind_.Held ? nullptr : service_; }

  const ServiceKind& kind_;
  EFI_HANDLE service_ = nullptr;
  EFI_HANDLE agent_ = nullptr;
  EFI_HANDLE child_ = nullptr;
  void* protocol_ = nullptr;
  EFI_SERVICE_BINDING_PROTOCOL* binding_ = nullptr; // the binding the child came from
};

template <class Protocol> class ServiceChild : public ServiceChildOwner {
public:
  ServiceChild() : ServiceChildOwner(ServiceKindOf<Protocol>::kKind) {}
  Protocol* operator->() const { return Get(); }
  Protocol* Get() const { return static_cast<Protocol*>(Interface()); }
  explicit operator bool() const { return Get() != nullptr; }
};

template <> struct ServiceKindOf<EFI_IP6_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_IP6_PROTOCOL_GUID,
      .Held = true,
      .BindingFailed = u"Failed to open the IPv6 service binding (%r)\r\n",
      .CreateFailed = u"The IPv6 service binding made no child\r\n",
      .ProtocolFailed = u"The IPv6 child's protocol could not be opened\r\n",
      .RebindFailed = u"Failed to open the IPv6 service binding again to destroy its child\r\n",
  };
};

template <> struct ServiceKindOf<EFI_DNS4_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_DNS4_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_DNS4_PROTOCOL_GUID,
      .Held = true,
      .BindingFailed = u"Failed to open the DNS service binding (%r)\r\n",
      .CreateFailed = u"The DNS service binding made no child\r\n",
      .ProtocolFailed = u"The DNS child's protocol could not be opened\r\n",
      .RebindFailed = u"Failed to open the DNS service binding again to destroy its child\r\n",
  };
};

template <> struct ServiceKindOf<EFI_HASH2_PROTOCOL> {
  static constexpr ServiceKind kKind = {
      .Binding = &EFI_HASH2_SERVICE_BINDING_PROTOCOL_GUID,
      .Protocol = &EFI_HASH2_PROTOCOL_GUID,
      .Held = true,
      .BindingFailed = u"Failed to open the firmware's hash service binding (%r)\r\n",
      .CreateFailed = u"The firmware's hash service binding made no child\r\n",
      .ProtocolFailed = u"The hash child's protocol could not be opened\r\n",
      .RebindFailed = u"Failed to open the hash service binding again to destroy its child\r\n",
  };
};

using MnpChild = ServiceChild<EFI_MANAGED_NETWORK_PROTOCOL>;
using Ip6Child = ServiceChild<EFI_IP6_PROTOCOL>;
using Ip4Child = ServiceChild<EFI_IP4_PROTOCOL>;
using Dhcp4Child = ServiceChild<EFI_DHCP4_PROTOCOL>;
using Dns4Child = ServiceChild<EFI_DNS4_PROTOCOL>;
using Hash2Child = ServiceChild<EFI_HASH2_PROTOCOL>;

// The readers: what a NIC's simple-network mode says, through a short-lived managed-network child.
EFI_STATUS ReadNicAddress(EFI_HANDLE NicHandle, NicAddr* Address);
EFI_STATUS ReadMacAddresses(EFI_HANDLE Agent, EFI_HANDLE NicHandle, EFI_MAC_ADDRESS* Current,
                            EFI_MAC_ADDRESS* Permanent);
EFI_STATUS ReadMediaState(EFI_HANDLE Agent, EFI_HANDLE NicHandle, BOOLEAN* MediaSupported,
                          BOOLEAN* MediaPresent);

// The DHCPv4 event callback that the DHCP configurations install: it traces the exchange and lets
// the driver go on unchanged.
EFI_STATUS EFIAPI Dhcp4EventCallback(EFI_DHCP4_PROTOCOL* This, void* Context, EFI_DHCP4_STATE CurrentState,
                                     EFI_DHCP4_EVENT Dhcp4Event, EFI_DHCP4_PACKET* Packet,
                                     EFI_DHCP4_PACKET** NewPacket);
