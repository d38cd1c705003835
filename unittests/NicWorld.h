// The module loaded on the fake firmware through its protocol, with one NIC: the world the NIC
// tests' host tests and the failure sweep run in.
#pragma once
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "base/Globals.h"
#include "fakes/FakeFileSystem.h"
#include "fakes/FakeIpv6.h"
#include "fakes/FakeMachine.h"
#include "fakes/FakeWeb.h"
#include "frame/CommandLine.h"
#include "frame/Dispatch.h"
#include "frame/Startup.h"
#include "frame/TestModule.h"
#include "nic/Pci.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "uefi/protocol/LoadedImage.h"

inline EFI_HANDLE const kImage = reinterpret_cast<EFI_HANDLE>(0x1000);
inline EFI_HANDLE const kManagerHandle = reinterpret_cast<EFI_HANDLE>(0x2000);
inline EFI_HANDLE const kVolume = reinterpret_cast<EFI_HANDLE>(0x3000);

// The module loaded on the fake firmware, with one NIC on a network whose DHCP server answers.
struct NicWorld {
  FakeFirmware fw;
  FakeManager mgr;
  EFI_LOADED_IMAGE_PROTOCOL image{};
  FakeNic nic{fw, 3, 0x56};
  FakeIpv6 ipv6{nic}; // its IPv6 side
  FakeHiiRouting hii{fw};
  FakeRootBridge bridge{fw, {&nic}};
  FakeFileSystem volume;
  // The module's file on the volume: \Wirecheck.efi.
  std::vector<UINT8> imagePath = {MEDIA_DEVICE_PATH, MEDIA_FILEPATH_DP, 0, 0};
  std::vector<UINT8> volumePath = {
      HARDWARE_DEVICE_PATH,           HW_PCI_DP, 6, 0, 0, 1, END_DEVICE_PATH_TYPE,
      END_ENTIRE_DEVICE_PATH_SUBTYPE, 4,         0};
  VEX_TEST_MODULE_PROTOCOL* module = nullptr;
  // What a scenario may add, gone before the firmware they live in.
  std::unique_ptr<FakeMenus> menus;
  std::unique_ptr<FakeNic> second;
  std::unique_ptr<FakeWeb> web; // the NIC's HTTP and DNS clients, with a server behind them

  NicWorld() {
    FileIoReset();
    DebugLogReset();
    for (char16_t c : std::u16string(u"\\Wirecheck.efi") + u'\0') {
      imagePath.push_back(UINT8(c));
      imagePath.push_back(UINT8(c >> 8));
    }
    imagePath[2] = UINT8(imagePath.size());
    imagePath.insert(imagePath.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});
    image.DeviceHandle = kVolume;
    image.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(imagePath.data());
    fw.AddProtocol(kVolume, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, volume.Protocol());
    fw.AddProtocol(kVolume, EFI_DEVICE_PATH_PROTOCOL_GUID, volumePath.data());
    ResetOutputState();
    SetSelectedTestNumber(0);
    ClearParsedOptions();
    FreeOptionWords();
    gManager = nullptr;
    gImageHandle = nullptr;
    fw.AddProtocol(kImage, EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
    fw.AddProtocol(kManagerHandle, VEX_MANAGER_PROTOCOL_GUID, &mgr.protocol);
  }
  bool Start() {
    if (InitializeTestModule(kImage, &fw.st) != EFI_SUCCESS)
      return false;
    void* iface = nullptr;
    fw.bs.HandleProtocol(kImage, &VEX_TEST_MODULE_PROTOCOL_GUID, &iface);
    module = static_cast<VEX_TEST_MODULE_PROTOCOL*>(iface);
    return module != nullptr;
  }
  ~NicWorld() {
    if (module != nullptr)
      VexUnloadTestModule(kImage);
    FreePciRootBridgeTable();
    FileIoReset();
    DebugLogReset();
    FreeOptionWords();
    ResetOutputState();
    gManager = nullptr;
  }
  struct Outcome {
    EFI_STATUS status;
    UINTN result = 99, error = 99;
  };
  Outcome Execute(std::u16string options) {
    Outcome o;
    o.status = module->ExecuteTest(0, options.data(), &o.result, &o.error);
    return o;
  }
  std::string Said() const { return Narrow(mgr.AllText()); }
};

// The shipped message file beside the module, for the menu's and prompts' texts.
inline void AddMessageFile(NicWorld& w) {
  std::ifstream f(std::string(SOURCE_DIR) + "/support/Wirecheck.msg.xml", std::ios::binary);
  w.volume.AddFile(u"\\Wirecheck.msg.xml", std::string(std::istreambuf_iterator<char>(f), {}));
}

// How many times a text says something.
inline size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}
