// The firmware's network stack and PCI side on the fake firmware, as the NIC tests meet them.
//
// A FakeNic is one controller: a PCI function (PCI I/O on its own handle, device path
// PciRoot(0x0)/Pci(Device,0x0)) and, as its child, the MAC-layer handle (device path ending in
// MAC(...)) with simple network, the managed-network, IPv4 and DHCPv4 service bindings and IPv4
// configuration 2. Behind it sits a virtual network with one DHCP server that answers pings. The
// knobs say what the world looks like; the records say what the module did. Every protocol call that
// can fail takes part in the fake firmware's fault injection. The machine around the NICs (their
// drivers' names, the PCI root bridge, HII routing, the manager's menus) is in FakeMachine.h.
#pragma once
#include <set>
#include <string>
#include <vector>

#include "fakes/FakeFirmware.h"
#include "uefi/protocol/Dhcp4.h"
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/Ip4Config2.h"
#include "uefi/protocol/ManagedNetwork.h"
#include "uefi/protocol/Pci.h"

struct FakeNic;

// A service binding whose children each carry the binding's protocol instance.
struct FakeBinding {
  EFI_SERVICE_BINDING_PROTOCOL sb;
  FakeNic* nic;
  EFI_GUID childGuid;
  void* childProtocol;
  std::vector<EFI_HANDLE> children;
};

// A binding's CreateChild: a new handle carrying the binding's protocol instance, recorded among its
// children (each binding destroys its children in a way of its own).
EFI_STATUS EFIAPI FakeCreateChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE* child);

struct FakeNic {
  FakeNic(FakeFirmware& fw, UINT8 device, UINT8 lastMacByte);
  ~FakeNic();
  FakeNic(const FakeNic&) = delete;
  FakeNic& operator=(const FakeNic&) = delete;

  FakeFirmware& fw;
  EFI_HANDLE handle;    // the MAC-layer handle
  EFI_HANDLE pciHandle; // its parent, the PCI function
  UINT8 device;
  std::vector<UINT8> devicePath, pciPath;

  // The world.
  bool link = true;
  EFI_IPv4_ADDRESS server = {{10, 0, 2, 2}};
  EFI_IPv4_ADDRESS client = {{10, 0, 2, 15}};
  EFI_IPv4_ADDRESS gateway = {}; // the default route's gateway in the IPv4 configuration
  UINT64 mappedAt = 0;           // virtual time from which IPv4 has an address; ~0: never
  UINTN dhcpTimeouts = 0;        // Start times out this many times (a silent server: many)
  UINTN dhcpDenials = 0;         // Configure refuses this many times (another client active)
  bool pingAnswers = true;       // the server answers echo requests
  std::set<UINT16> unanswered;   // echo requests with these sequence numbers get no reply
  UINT64 replyDelay = 20000;     // 2 ms
  // Echo replies with these sequence numbers reach the NIC and are dropped there, its receive buffers
  // full: counted in rxDropped, which the simple network's statistics report when keepsStatistics.
  std::set<UINT16> droppedByNic;
  UINT64 rxDropped = 0;
  bool keepsStatistics = true;
  UINTN config2NotReady = 0;           // GetData answers EFI_NOT_READY this many times
  EFI_STATUS policyRead = EFI_SUCCESS; // GetData for the policy: asks for a buffer, then answers this
  bool setDataNotReady = false;        // SetData takes the policy but answers EFI_NOT_READY (applied later)
  // The firmware's DHCP gave up (the cable was out when it started): no address until the DHCP
  // policy is set again, then one after three seconds.
  bool dhcpGaveUp = false;
  // After a link change the firmware puts the address its DHCP got on a new default interface: an
  // IPv4 child configured before the address came stays on the old one, without address, until it
  // is configured again.
  bool childLeftBehind = false;
  EFI_STATUS ip4ConfigureAnswer = EFI_SUCCESS; // a configuration refused with this status (a firmware's own)
  UINT8 config[256] = {};                      // PCI configuration space
  UINT64 frameTime = 120; // a transmitted frame's time on the wire (12 us: 1514 bytes at 1 Gbit/s)
  // Frames numbered from 1 by framesSent + framesRefused (reset them to count from a later point).
  std::set<UINTN> failedFrames;  // transmitted frames that complete with an error (the cable is pulled)
  std::set<UINTN> refusedFrames; // frames whose Transmit call is refused
  std::set<UINTN> stuckFrames;   // frames that never complete until cancelled
  // A transmit ring of this many frames (0: endless). As the firmware's managed network does, a frame
  // that finds it full completes with EFI_DEVICE_ERROR; the ring drains when the module polls.
  UINTN txRingSlots = 0;
  UINTN txRingUsed = 0;
  bool txRingDrains = true;              // false: a NIC that never sends what its ring holds
  bool txRingFullIsOutOfBuffers = false; // a full ring makes Transmit fail with EFI_OUT_OF_RESOURCES

  // What the module did.
  std::vector<std::pair<UINT64, UINT16>> pingsSent; // (time, sequence)
  UINTN badChecksums = 0;                           // echo requests whose ICMP checksum is wrong
  UINTN dhcpConfigures = 0, dhcpStarts = 0, dhcpStops = 0;
  UINTN policySets = 0; // SetData calls for the policy
  UINTN framesSent = 0, framesRefused = 0;
  UINTN framesRingFull = 0;  // frames that found the transmit ring full
  UINTN framesCompleted = 0; // with success
  UINTN LiveChildren() const;

  // Protocol instances, each followed by its owner so that a call finds its NIC.
  template <class P> struct Instance {
    P p;
    FakeNic* nic;
  };
  Instance<EFI_SIMPLE_NETWORK_PROTOCOL> snp{};
  EFI_SIMPLE_NETWORK_MODE mode{};
  Instance<EFI_MANAGED_NETWORK_PROTOCOL> mnp{};
  Instance<EFI_IP4_PROTOCOL> ip4{};
  Instance<EFI_DHCP4_PROTOCOL> dhcp{};
  Instance<EFI_IP4_CONFIG2_PROTOCOL> config2{};
  Instance<EFI_PCI_IO_PROTOCOL> pciIo{};
  FakeBinding mnpBinding{}, ip4Binding{}, dhcpBinding{};

  // Inner state.
  bool mnpConfigured = false;
  std::vector<EFI_MANAGED_NETWORK_COMPLETION_TOKEN*> txQueue;
  bool ip4Configured = false;
  bool ip4LeftBehind = false; // the child holds the old default interface
  EFI_IP4_COMPLETION_TOKEN* rxToken = nullptr;
  std::vector<std::pair<UINT64, UINT16>> repliesDue;
  EFI_IP4_RECEIVE_DATA rxData{};
  EFI_IP4_HEADER rxHeader{};
  UINT8 reply[64]{};
  EFI_DHCP4_STATE dhcpState = Dhcp4Stopped;
  EFI_DHCP4_CONFIG_DATA dhcpConfig{};
  EFI_IP4_CONFIG2_POLICY policy = Ip4Config2PolicyDhcp;
  std::vector<EFI_IPv4_ADDRESS> dnsServers = {
      {{10, 0, 2, 3}}}; // what DHCP gave, as the IPv4 configuration holds it
  std::vector<std::pair<EFI_IP4_CONFIG2_DATA_TYPE, EFI_EVENT>> notifies;

  bool HasAddress() const { return mappedAt != ~0ull && fw.now >= mappedAt; }
  // Reads its PCI configuration space as PCI I/O and the root bridge do: count items of 1 << width bytes.
  EFI_STATUS ReadConfig(UINT32 width, UINT64 offset, UINTN count, void* buffer) const;
};
