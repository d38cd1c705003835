// Fuzz target: the echo-reply check over IPv4 receive data as the firmware hands it over: a header
// (or none), a data length and up to four fragments, each a buffer of exactly its stated length.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fakes/FakeFirmware.h"
#include "ping/IcmpEcho.h"
#include "report/Output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  ResetOutputState();
  FuzzedDataProvider in(data, size);
  EFI_IP4_HEADER header{};
  std::vector<uint8_t> headerBytes = in.ConsumeBytes<uint8_t>(sizeof(header));
  if (!headerBytes.empty())
    std::memcpy(&header, headerBytes.data(), headerBytes.size());
  bool withHeader = in.ConsumeBool();
  UINT32 dataLength = in.ConsumeIntegral<UINT32>();
  UINT32 count = in.ConsumeIntegralInRange<UINT32>(0, 4);
  std::vector<std::vector<uint8_t>> fragments(count);
  std::vector<uint8_t> rxBytes(sizeof(EFI_IP4_RECEIVE_DATA) + 4 * sizeof(EFI_IP4_FRAGMENT_DATA));
  auto* rx = reinterpret_cast<EFI_IP4_RECEIVE_DATA*>(rxBytes.data());
  rx->Header = withHeader ? &header : nullptr;
  rx->HeaderLength = sizeof(header);
  rx->DataLength = dataLength;
  rx->FragmentCount = count;
  for (UINT32 i = 0; i < count; ++i) {
    fragments[i] = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 300));
    rx->FragmentTable[i].FragmentLength = UINT32(fragments[i].size());
    rx->FragmentTable[i].FragmentBuffer = fragments[i].empty() ? nullptr : fragments[i].data();
  }
  EFI_IPv4_ADDRESS from = header.SourceAddress; // the check's later steps are reached too
  static constexpr FirmwareTraits kFirmware = kAssumedFirmware;
  EchoCounter counter = {0, 0};
  for (bool printed : {true, false}) {
    const EchoPolicy policy = {&counter, printed, AddressWait::OneTimer, &kFirmware};
    CheckEchoReply(rx, from, policy);
    CheckEchoReply(rx, EFI_IPv4_ADDRESS{{10, 0, 2, 2}}, policy);
  }
  return 0;
}
