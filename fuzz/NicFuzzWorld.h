// What a fuzz target over the NIC side starts from: the fake firmware with one NIC on it, output
// reset, and the module's image handle set for the run.
#pragma once
#include "base/Globals.h"
#include "fakes/FakeNetwork.h"
#include "report/Output.h"

struct NicFuzzWorld {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  NicFuzzWorld() {
    ResetOutputState();
    gImageHandle = reinterpret_cast<EFI_HANDLE>(0x1000);
  }
  ~NicFuzzWorld() { gImageHandle = nullptr; }
  NicFuzzWorld(const NicFuzzWorld&) = delete;
  NicFuzzWorld& operator=(const NicFuzzWorld&) = delete;
};
