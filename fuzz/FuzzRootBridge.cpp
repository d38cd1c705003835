// Fuzz target: what the PCI side reads from the firmware: a root bridge's ACPI resource descriptors
// (small and large ones of any tag and content, QWORD address spaces of any type and bounds, each
// length field true to its descriptor, as the walk must trust them, then the end tag) and a NIC's
// configuration space (any values), through the root-bridge table, configuration reads and the
// NIC's device ID.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fakes/FakeMachine.h"
#include "nic/Pci.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  FuzzedDataProvider in(data, size);
  FakeNic nic{fw, 3, 0x56};
  std::vector<uint8_t> config = in.ConsumeBytes<uint8_t>(sizeof(nic.config));
  if (!config.empty())
    std::memcpy(nic.config, config.data(), config.size());
  FakeRootBridge bridge{fw, {&nic}};
  if (in.ConsumeBool()) {
    std::vector<uint8_t>& d = bridge.descriptors;
    d.clear();
    while (in.remaining_bytes() > 0 && d.size() < 4096) {
      switch (in.ConsumeIntegralInRange<int>(0, 2)) {
      case 0: { // small: tag bits 6-3, length in bits 2-0
        uint8_t tag = in.ConsumeIntegral<uint8_t>() & 0x7F;
        if (tag == 0x79)
          tag = 0x71;
        d.push_back(tag);
        for (int i = 0; i < (tag & 7); ++i)
          d.push_back(in.ConsumeIntegral<uint8_t>());
        break;
      }
      case 1: { // large, any tag
        std::vector<uint8_t> body = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64));
        d.insert(d.end(), {uint8_t(in.ConsumeIntegral<uint8_t>() | 0x80), uint8_t(body.size()),
                           uint8_t(body.size() >> 8)});
        d.insert(d.end(), body.begin(), body.end());
        break;
      }
      default: { // a QWORD address space
        std::vector<uint8_t> body = in.ConsumeBytes<uint8_t>(0x2B);
        body.resize(0x2B);
        body[0] = in.ConsumeIntegralInRange<uint8_t>(0, 3);
        d.insert(d.end(), {0x8A, 0x2B, 0x00});
        d.insert(d.end(), body.begin(), body.end());
      }
      }
    }
    d.insert(d.end(), {0x79, 0x00});
  }
  if (!EFI_ERROR(BuildPciRootBridgeTable())) {
    PciMaxSegment();
    for (UINTN reg = 0; reg < 0x40; reg += 2) {
      UINT16 word = 0;
      UINT8 byte = 0;
      PciConfigRead16(0, 0, 3, 0, reg, &word);
      PciConfigRead8(0, 0, 3, 0, reg + 1, &byte);
    }
    UINT16 device = 0;
    ReadNicDeviceId(nic.handle, &device);
  }
  FreePciRootBridgeTable();
  return 0;
}
