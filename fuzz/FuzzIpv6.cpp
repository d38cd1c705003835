// Fuzz target: every IPv6 input the IPv6 ping test reads: a packet from the link as the watch takes
// it (router advertisements and their options, neighbour advertisements, DHCPv6 answers), an
// echo reply as the firmware's IPv6 child hands it over, the interface information of the IPv6
// configuration protocol (counts that need not match the buffer), and an address typed as -target.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/Ipv6Text.h"
#include "fakes/FakeFirmware.h"
#include "nic/Ip6State.h"
#include "ping/Echo6.h"
#include "ping/Ipv6Watch.h"
#include "report/Output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  ResetOutputState();
  FuzzedDataProvider in(data, size);
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
  case 0: {
    std::vector<uint8_t> packet = in.ConsumeRemainingBytes<uint8_t>();
    Ipv6Seen seen = {};
    EFI_MAC_ADDRESS from = {{0x52, 0x55, 0x0A, 0, 0, 1}}, own = {{0x52, 0x54, 0, 0x12, 0x34, 0x56}};
    for (int i = 0; i < 10; ++i) // more claims than are kept
      Ipv6Watch::Take(packet.empty() ? nullptr : packet.data(), packet.size(), from, own, seen);
    break;
  }
  case 1: {
    Echo6Run run = {};
    run.Identifier = in.ConsumeIntegral<UINT16>();
    run.Sent = in.ConsumeIntegralInRange<UINT32>(0, kMaxEcho6Requests + 2);
    EFI_IPv6_ADDRESS from = {}, target = {};
    in.ConsumeData(from.Addr, in.ConsumeBool() ? 16 : 0);
    std::vector<uint8_t> message = in.ConsumeRemainingBytes<uint8_t>();
    TakeEcho6Reply(message.empty() ? nullptr : message.data(), message.size(), from, target, &run);
    TakeEcho6Reply(message.empty() ? nullptr : message.data(), message.size(), from, from, &run);
    break;
  }
  case 2: {
    // The record, then its arrays where the fuzzer says: inside the buffer or nowhere.
    std::vector<uint8_t> buffer = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 600));
    if (buffer.size() < sizeof(EFI_IP6_CONFIG_INTERFACE_INFO))
      buffer.resize(sizeof(EFI_IP6_CONFIG_INTERFACE_INFO));
    auto* info = reinterpret_cast<EFI_IP6_CONFIG_INTERFACE_INFO*>(buffer.data());
    size_t addressAt = in.ConsumeIntegralInRange<size_t>(0, buffer.size() - 1);
    size_t routeAt = in.ConsumeIntegralInRange<size_t>(0, buffer.size() - 1);
    info->AddressInfo =
        in.ConsumeBool() ? reinterpret_cast<EFI_IP6_ADDRESS_INFO*>(buffer.data() + addressAt) : nullptr;
    info->RouteTable =
        in.ConsumeBool() ? reinterpret_cast<EFI_IP6_ROUTE_TABLE*>(buffer.data() + routeAt) : nullptr;
    Ip6State state = {};
    DigestIp6InterfaceInfo(info, buffer.size(), &state);
    break;
  }
  default: {
    std::string text = in.ConsumeRemainingBytesAsString();
    std::u16string wide(text.begin(), text.end());
    EFI_IPv6_ADDRESS address = {};
    if (ParseIpv6Address(wide.c_str(), &address)) {
      CHAR16 back[kIpv6TextChars];
      FormatIpv6Address(address, back, sizeof(back));
      EFI_IPv6_ADDRESS again = {};
      if (!ParseIpv6Address(back, &again) || !SameIpv6Address(address, again))
        __builtin_trap(); // the written form must read back as the same address
    }
    break;
  }
  }
  return 0;
}
