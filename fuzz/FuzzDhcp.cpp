// Fuzz target: DHCPv4 data from the firmware: a packet handed to the event callback (a buffer of
// exactly its Size, with any Length) and mode data whose reply packet is such a packet.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fakes/FakeFirmware.h"
#include "nic/Dumps.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  ResetOutputState();
  FuzzedDataProvider in(data, size);
  EFI_DHCP4_MODE_DATA mode{};
  std::vector<uint8_t> modeBytes = in.ConsumeBytes<uint8_t>(sizeof(mode));
  if (!modeBytes.empty())
    std::memcpy(&mode, modeBytes.data(), modeBytes.size());
  UINT32 length = in.ConsumeIntegral<UINT32>();
  auto state = EFI_DHCP4_STATE(in.ConsumeIntegralInRange<UINT32>(0, 12));
  auto event = EFI_DHCP4_EVENT(in.ConsumeIntegralInRange<UINT32>(0, 14));
  std::vector<uint8_t> packetBytes = in.ConsumeRemainingBytes<uint8_t>();
  EFI_DHCP4_PACKET* packet = nullptr;
  if (packetBytes.size() >= 8) {
    packet = reinterpret_cast<EFI_DHCP4_PACKET*>(packetBytes.data());
    packet->Size = UINT32(packetBytes.size());
    packet->Length = length;
  }
  Dhcp4EventCallback(nullptr, nullptr, state, event, packet, nullptr);
  mode.ConfigData = {};
  mode.ReplyPacket = packet;
  DumpDhcp4ModeData(&mode);
  return 0;
}
