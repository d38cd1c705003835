// Fuzz target: the IPv4 interface information a NIC's configuration driver hands over: any bytes,
// any size, a route-table pointer inside the buffer, past it or anywhere; read into a NIC record,
// then the default gateway taken from it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "base/Memory.h"
#include "fuzz/NicFuzzWorld.h"
#include "nic/NicConfig.h"

namespace {

std::vector<uint8_t> gInfo;
UINTN gTableOffset = 0;
bool gTableAnywhere = false;

EFI_STATUS EFIAPI GetData(EFI_IP4_CONFIG2_PROTOCOL*, EFI_IP4_CONFIG2_DATA_TYPE type, UINTN* size,
                          void* data) {
  if (type != Ip4Config2DataTypeInterfaceInfo)
    return EFI_NOT_FOUND;
  if (*size < gInfo.size() || data == nullptr) {
    *size = gInfo.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  if (!gInfo.empty())
    std::memcpy(data, gInfo.data(), gInfo.size());
  *size = gInfo.size();
  if (gInfo.size() >= sizeof(EFI_IP4_CONFIG2_INTERFACE_INFO)) {
    auto* info = static_cast<EFI_IP4_CONFIG2_INTERFACE_INFO*>(data);
    info->RouteTable =
        gTableAnywhere ? reinterpret_cast<EFI_IP4_ROUTE_TABLE*>(UINTN(0x1000) + gTableOffset)
                       : reinterpret_cast<EFI_IP4_ROUTE_TABLE*>(static_cast<uint8_t*>(data) + gTableOffset);
  }
  return EFI_SUCCESS;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NicFuzzWorld world;
  FakeNic& nic = world.nic;
  FuzzedDataProvider in(data, size);
  nic.config2.p.GetData = GetData;
  gTableOffset = in.ConsumeIntegralInRange<UINTN>(0, 4096);
  gTableAnywhere = in.ConsumeBool();
  bool sameMac = in.ConsumeBool();
  gInfo = in.ConsumeRemainingBytes<uint8_t>();
  NicInfo record{};
  if (sameMac && gInfo.size() >= sizeof(EFI_IP4_CONFIG2_INTERFACE_INFO))
    record.MacAddress = reinterpret_cast<const EFI_IP4_CONFIG2_INTERFACE_INFO*>(gInfo.data())->HwAddress;
  if (!EFI_ERROR(GetNicConfig(&record)) && record.Ip4Config2InterfaceInfo != nullptr) {
    DefaultGateway(record.Ip4Config2InterfaceInfo);
    FreePool(record.Ip4Config2InterfaceInfo);
  }
  EFI_IPv4_ADDRESS address{};
  NicHasStationAddress(nic.handle, &address);
  return 0;
}
