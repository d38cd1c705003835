#include "fakes/FakeMachine.h"

#include <cstring>

#include "uefi/protocol/Vex.h"

namespace {

FakeFirmware& F() {
  return *FakeFirmware::current;
}

void Put64(std::vector<UINT8>& v, UINT64 x) {
  for (int i = 0; i < 8; ++i)
    v.push_back(UINT8(x >> (8 * i)));
}

// ---- PCI root bridge ----

EFI_STATUS EFIAPI BridgeRead(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                             UINT64 address, UINTN count, void* buffer) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  UINT64 reg = (address >> 32) != 0 ? (address >> 32) : (address & 0xFF);
  UINT8 bus = UINT8(address >> 24), device = UINT8(address >> 16), function = UINT8(address >> 8);
  for (FakeNic* n : FakeRootBridge::current->nics)
    if (bus == 0 && device == n->device && function == 0)
      return n->ReadConfig(width, reg, count, buffer);
  std::memset(buffer, 0xFF, (UINTN(1) << width) * count); // no function there
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI BridgeConfiguration(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*, void** resources) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  *resources = FakeRootBridge::current->descriptors.data();
  return EFI_SUCCESS;
}

// ---- Component names ----

EFI_STATUS EFIAPI ControllerName(EFI_COMPONENT_NAME2_PROTOCOL* self, EFI_HANDLE controller, EFI_HANDLE child,
                                 const CHAR8* language, CHAR16** name) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  auto* names = reinterpret_cast<FakeDriver::Names*>(self);
  FakeDriver& d = *names->driver;
  if (language == nullptr || std::strstr(self->SupportedLanguages, language) == nullptr)
    return EFI_UNSUPPORTED;
  if (controller != d.controller || child != d.child)
    return EFI_UNSUPPORTED;
  *name = d.name.data();
  return EFI_SUCCESS;
}

// ---- HII routing ----

EFI_STATUS EFIAPI BlockToConfig(const EFI_HII_CONFIG_ROUTING_PROTOCOL*, const CHAR16* request,
                                const UINT8* block, UINTN blockSize, EFI_STRING* config,
                                EFI_STRING* progress) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  F().CheckLeavesClean(block, blockSize); // the block is stored in the firmware's variable
  std::u16string text(request);
  void* memory = nullptr;
  EFI_STATUS status = F().bs.AllocatePool(EfiBootServicesData, (text.size() + 1) * 2, &memory);
  if (EFI_ERROR(status))
    return status;
  std::memcpy(memory, text.c_str(), (text.size() + 1) * 2);
  *config = static_cast<EFI_STRING>(memory);
  if (progress != nullptr)
    *progress = nullptr;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI RouteConfig(const EFI_HII_CONFIG_ROUTING_PROTOCOL*, const CHAR16* configuration,
                              EFI_STRING* progress) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeHiiRouting::current->routed.push_back(configuration);
  if (progress != nullptr)
    *progress = nullptr;
  return FakeHiiRouting::current->routeStatus;
}

// ---- Menus ----

EFI_STATUS EFIAPI Menu(const CHAR16* title, UINTN, VEX_MENU_TEXT_LINE** lines, VEX_MENU_ITEM** items,
                       VEX_MENU_SETTINGS*, UINT16, UINT64* selection, UINT8, UINT8, UINT8, UINT64) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeMenus& m = *FakeMenus::current;
  m.shown.push_back(title != nullptr ? title : u"");
  for (auto** l = lines; l != nullptr && *l != nullptr; ++l)
    m.shown.push_back((*l)->Text != nullptr ? (*l)->Text : u"");
  INT64 count = 0;
  for (auto** i = items; i != nullptr && *i != nullptr; ++i, ++count)
    m.shown.push_back((*i)->Text != nullptr ? (*i)->Text : u"");
  if (m.answer < 0 || m.answer >= count - 1)
    *selection = ~0ull; // the cancel entry
  else
    *selection = items[m.answer]->Value;
  return EFI_SUCCESS;
}

constinit VEX_GRAPHICS_LIB_PROTOCOL gGraphicsLib = {{}, Menu};
constinit VEX_CONSOLE_LIB_PROTOCOL gConsoleLib = {{}, Menu};

} // namespace

FakeHiiRouting::FakeHiiRouting(FakeFirmware& fw) {
  current = this;
  protocol.RouteConfig = RouteConfig;
  protocol.BlockToConfig = BlockToConfig;
  fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x7F0000), EFI_HII_CONFIG_ROUTING_PROTOCOL_GUID, &protocol);
}

FakeDriver::FakeDriver(FakeFirmware& fw, FakeNic& nic, const char16_t* text)
    : handle(reinterpret_cast<EFI_HANDLE>(0x7E0000 + uintptr_t(nic.device) * 16)), name(text),
      controller(nic.pciHandle), child(nic.handle) {
  static char kRfc4646[] = "en-US;fr-FR";
  static char kIso639[] = "engfra";
  name2 = {{nullptr, ControllerName, kRfc4646}, this};
  name1 = {{nullptr, ControllerName, kIso639}, this};
  static int bindingInstance = 0;
  fw.AddProtocol(handle, EFI_DRIVER_BINDING_PROTOCOL_GUID, &bindingInstance);
  fw.AddProtocol(handle, EFI_COMPONENT_NAME2_PROTOCOL_GUID, &name2.p);
  fw.AddProtocol(handle, EFI_COMPONENT_NAME_PROTOCOL_GUID, &name1.p);
  // The driver manages the PCI function and created the MAC-layer child on it.
  fw.RecordOpen(nic.pciHandle, EFI_PCI_IO_PROTOCOL_GUID, handle, nic.pciHandle, EFI_OPEN_PROTOCOL_BY_DRIVER);
  fw.RecordOpen(nic.pciHandle, EFI_PCI_IO_PROTOCOL_GUID, handle, nic.handle,
                EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER);
}

FakeRootBridge::FakeRootBridge(FakeFirmware& fw, std::vector<FakeNic*> list)
    : handle(reinterpret_cast<EFI_HANDLE>(0x7D0000)), nics(std::move(list)) {
  current = this;
  // One QWORD address-space descriptor for buses 0 to 0xFF, then the end tag.
  descriptors = {0x8A, 0x2B, 0x00, 2, 0, 0};
  Put64(descriptors, 0);    // granularity
  Put64(descriptors, 0);    // minimum
  Put64(descriptors, 0xFF); // maximum
  Put64(descriptors, 0);    // translation offset
  Put64(descriptors, 0x100);
  descriptors.resize(46);
  descriptors.insert(descriptors.end(), {0x79, 0x00});
  protocol.Pci.Read = BridgeRead;
  protocol.Configuration = BridgeConfiguration;
  fw.AddProtocol(handle, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID, &protocol);
}

FakeMenus::FakeMenus(FakeFirmware& fw, bool graphics, bool console) {
  current = this;
  if (graphics)
    fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x7C0000), VEX_GRAPHICS_LIB_PROTOCOL_GUID, &gGraphicsLib);
  if (console)
    fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x7C0010), VEX_CONSOLE_LIB_PROTOCOL_GUID, &gConsoleLib);
}
