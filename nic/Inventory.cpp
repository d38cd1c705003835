#include "nic/Inventory.h"
#include "base/Cxx.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "nic/NicAccess.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "report/Messages.h"
#include "uefi/protocol/ComponentName.h"
#include "uefi/protocol/Dhcp4.h"
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/SimpleNetwork.h"

// The first node whose record has these 32 MAC bytes; *Node null when none (not an error).
static EFI_STATUS FindNicByMac(ORDERED_LIST* List, const EFI_MAC_ADDRESS* Mac, ORDERED_LIST_NODE** Node);

namespace {

// One pass after the first: the handles of a protocol attached to the NIC of the same MAC address.
struct AttachPass {
  const EFI_GUID* Protocol;
  const CHAR16* Locating;
  const CHAR16* NoneFound;
  const CHAR16* LocateFailed;
  const CHAR16* Copied;
  const CHAR16* NotMatched;
  EFI_HANDLE NicInfo::*Field;
  bool NullPathEnds; // a handle without a device path ends the inventory (EFI_NOT_FOUND)
  bool Logged;       // the path failure, allocation failure and update lines go to the log
};

constexpr AttachPass kPasses[] = {
    {&EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID, u"Locating EFI_IP4_SERVICE_BINDING_PROTOCOL...\r\n",
     u"No EFI_IP4_SERVICE_BINDING_PROTOCOL is found!\r\n",
     u"Failed Locating EFI_IP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n",
     u"Copied pIp4ServiceBindingProtocolHandle from Handle[%d] !\r\n",
     u"pTmpNICNode is NULL for pIp4ServiceBindingProtocolHandle\r\n",
     &NicInfo::Ip4ServiceBindingProtocolHandle, false, false},
    {&EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID, u"Locating EFI_DHCP4_SERVICE_BINDING_PROTOCOL...\r\n",
     u"No EFI_DHCP4_SERVICE_BINDING_PROTOCOL is found!\r\n",
     u"Failed Locating EFI_DHCP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n",
     u"Copied pDhcp4ServiceBindingProtocolHandle from Handle[%d] !\r\n",
     u"pTmpNICNode is NULL for pDhcp4ServiceBindingProtocolHandle\r\n",
     &NicInfo::Dhcp4ServiceBindingProtocolHandle, true, false},
    {&EFI_IP4_CONFIG2_PROTOCOL_GUID, u"Locating EFI_IP4_CONFIG2_PROTOCOL...\r\n",
     u"No EFI_IP4_CONFIG2_PROTOCOL is found!\r\n", u"Failed Locating EFI_IP4_CONFIG2_PROTOCOL!(%r)\r\n",
     u"Copied pIp4Config2ProtocolHandle from Handle[%d] !\r\n",
     u"pTmpNICNode is NULL for pIp4Config2ProtocolHandle\r\n", &NicInfo::Ip4Config2ProtocolHandle, false,
     true},
};

template <class... A> void Say(bool logged, const CHAR16* format, const A&... args) {
  if (logged)
    LogPrint(format, args...);
  else
    DebugLogPrint(format, args...);
}

// Locates the handles of a pass; the messages for none and for a failure are the caller's.
EFI_STATUS LocatePass(const EFI_GUID& protocol, const CHAR16* locating, const CHAR16* none,
                      const CHAR16* failed, wc::HandleBuffer& handles) {
  DebugLogPrint(locating);
  EFI_STATUS status = handles.Locate(protocol);
  if (status == EFI_NOT_FOUND || (!EFI_ERROR(status) && handles.Count() == 0)) {
    DebugLogPrint(none);
    return EFI_NOT_FOUND;
  }
  if (EFI_ERROR(status))
    DebugLogPrint(failed, status);
  return status;
}

// Opens a handle's device path; a failure is reported (to the log or the debug log) and returned.
EFI_STATUS OpenPathOf(EFI_HANDLE handle, wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL>& path, bool logged) {
  EFI_STATUS status = OpenDevicePath(handle, path);
  if (EFI_ERROR(status))
    Say(logged, u"Failed Open Device Path Protocol!(%r)\r\n", status);
  return status;
}

EFI_STATUS AddNics(const CHAR8* language, ORDERED_LIST* list, UINT64* count) {
  wc::HandleBuffer handles;
  EFI_STATUS status =
      LocatePass(EFI_SIMPLE_NETWORK_PROTOCOL_GUID, u"Locating EFI_SIMPLE_NETWORK_PROTOCOL...\r\n",
                 u"No EFI_SIMPLE_NETWORK_PROTOCOL is found!\r\n",
                 u"Failed Locating EFI_SIMPLE_NETWORK_PROTOCOL!(%r)\r\n", handles);
  if (EFI_ERROR(status))
    return status;
  for (UINTN i = 0; i < handles.Count(); ++i) {
    wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL> path;
    status = OpenPathOf(handles[i], path, true);
    if (EFI_ERROR(status))
      return status;
    EFI_MAC_ADDRESS mac = {};
    if (!DevicePathMac(path.Get(), &mac))
      continue; // a VLAN, IP or other child of a NIC, not a NIC
    wc::PoolPtr<NicInfo> record = wc::PoolPtr<NicInfo>::AllocateZero(sizeof(NicInfo));
    if (!record) {
      DebugLogPrint(u"Failed malloc MAC info\r\n");
      return EFI_OUT_OF_RESOURCES;
    }
    record->MacAddress = mac;
    record->NicHandle = handles[i];
    NicInfo* nic = record.Get();
    status = OrderedListAppend(list, record.Get(), nullptr);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"Failed add NIC device!\r\n");
      return status;
    }
    record.Release(); // the list's now
    GetControllerName(nic->NicHandle, language, &nic->Identifier);
    ++*count;
    wc::PoolPtr<CHAR16> text(DevicePathToText(path.Get(), FALSE, FALSE));
    DebugLogPrint(u"Add NIC Device: %s\r\n", text.Get());
    DebugLogPrint(u"NIC Device Identifier: %s\r\n", nic->Identifier);
  }
  return EFI_SUCCESS;
}

EFI_STATUS Attach(const AttachPass& pass, ORDERED_LIST* list) {
  wc::HandleBuffer handles;
  EFI_STATUS status = LocatePass(*pass.Protocol, pass.Locating, pass.NoneFound, pass.LocateFailed, handles);
  if (EFI_ERROR(status))
    return status;
  for (UINTN i = 0; i < handles.Count(); ++i) {
    wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL> path;
    status = OpenPathOf(handles[i], path, pass.Logged);
    if (EFI_ERROR(status))
      return status;
    if (path.Get() == nullptr) {
      DebugLogPrint(u"pNICDevicePath is Null at Index(%d)!\r\n", i);
      if (pass.NullPathEnds)
        return EFI_NOT_FOUND;
      continue;
    }
    EFI_MAC_ADDRESS mac = {};
    if (!DevicePathMac(path.Get(), &mac))
      continue;
    ORDERED_LIST_NODE* node = nullptr;
    status = FindNicByMac(list, &mac, &node);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"Failed find NIC node!\r\n");
      return status;
    }
    if (node != nullptr) {
      static_cast<NicInfo*>(node->Element)->*pass.Field = handles[i];
      DebugLogPrint(pass.Copied, i);
    } else {
      DebugLogPrint(pass.NotMatched);
    }
    wc::PoolPtr<CHAR16> text(DevicePathToText(path.Get(), FALSE, FALSE));
    Say(pass.Logged, u"Update NIC Device: %s\r\n", text.Get());
  }
  return EFI_SUCCESS;
}

// Asks driver Driver for the name of child Child of controller Controller (or, with a null
// controller, for its own name): component name 2 with the RFC 4646 form of the language first, then
// component name with its ISO 639-2 form.
EFI_STATUS AskDriver(EFI_HANDLE driver, EFI_HANDLE controller, EFI_HANDLE child, const CHAR8* language,
                     CHAR16** name) {
  struct Kind {
    const EFI_GUID* Protocol;
    const CHAR8* (*Pick)(const CHAR8*, const CHAR8*);
    const CHAR16* SupportedLine;
    const CHAR16* PickLine;
  };
  static constexpr Kind kKinds[] = {
      {&EFI_COMPONENT_NAME2_PROTOCOL_GUID, Iso639ToRfc4646, u"ComponentName2->SupportedLanguages  = %a. \r\n",
       u"Iso639ToRfc4646(Language, ComponentName2->SupportedLanguages)  = %a. \r\n"},
      {&EFI_COMPONENT_NAME_PROTOCOL_GUID, LookupIso639, u"ComponentName->SupportedLanguages  = %a. \r\n",
       u"LookupIso639(Language, ComponentName->SupportedLanguages) = %a. \r\n"},
  };
  EFI_STATUS status = EFI_UNSUPPORTED;
  for (const Kind& kind : kKinds) {
    void* iface = nullptr;
    status =
        gBS->OpenProtocol(driver, kind.Protocol, &iface, nullptr, nullptr, EFI_OPEN_PROTOCOL_GET_PROTOCOL);
    if (EFI_ERROR(status) || iface == nullptr)
      continue;
    auto* names = static_cast<EFI_COMPONENT_NAME2_PROTOCOL*>(iface);
    const CHAR8* picked = kind.Pick(language, names->SupportedLanguages);
    CHAR16* found = nullptr;
    status = controller != nullptr ? names->GetControllerName(names, controller, child, picked, &found)
                                   : names->GetDriverName(names, picked, &found);
    if (EFI_ERROR(status) || found == nullptr)
      continue;
    *name = found;
    if (controller == nullptr)
      return status;
    TracePrint(kind.SupportedLine, names->SupportedLanguages);
    TracePrint(kind.PickLine, picked);
    TracePrint(u"Contrllor pName  = %s. \r\n", found);
    TracePrint(u"DriverBindingHandle = 0x%lx\r\n", driver);
    TracePrint(u"ControllerHandle = 0x%lx\r\n", controller);
    if (child != nullptr)
      TracePrint(u"ChildHandle = 0x%lx\r\n", child);
    return status;
  }
  return status;
}

UINTN IndexOf(const wc::HandleBuffer& handles, EFI_HANDLE handle) {
  for (UINTN i = 0; i < handles.Count(); ++i)
    if (handles[i] == handle)
      return i;
  return handles.Count();
}

// Sets bits on a handle of the database; handles outside it are ignored.
void Mark(wc::PoolPtr<UINT32>& flags, const wc::HandleBuffer& handles, EFI_HANDLE handle, UINT32 bits) {
  UINTN i = IndexOf(handles, handle);
  if (i < handles.Count())
    flags[i] |= bits;
}

} // namespace

void FreeNicInfo(void* Element, ORDERED_LIST_NODE*) {
  auto* nic = static_cast<NicInfo*>(Element);
  if (nic == nullptr)
    return;
  FreePool(nic->Ip4Config2InterfaceInfo);
  nic->Ip4Config2InterfaceInfo = nullptr;
  FreePool(nic);
}

EFI_STATUS BuildNicInventory(const CHAR8* Language, ORDERED_LIST* List, UINT64* Count) {
  if (List == nullptr || Count == nullptr)
    return EFI_INVALID_PARAMETER;
  *Count = 0;
  EFI_STATUS status = AddNics(Language, List, Count);
  for (const AttachPass& pass : kPasses)
    if (!EFI_ERROR(status))
      status = Attach(pass, List);
  return status;
}

static EFI_STATUS FindNicByMac(ORDERED_LIST* List, const EFI_MAC_ADDRESS* Mac, ORDERED_LIST_NODE** Node) {
  if (Node == nullptr || List == nullptr || Mac == nullptr)
    return EFI_INVALID_PARAMETER;
  *Node = nullptr;
  if (List->FreeElement == nullptr)
    return EFI_UNSUPPORTED;
  for (ORDERED_LIST_NODE* n = List->First; n != nullptr; n = n->Next) {
    if (CompareMem(&static_cast<NicInfo*>(n->Element)->MacAddress, Mac, sizeof(EFI_MAC_ADDRESS)) == 0) {
      DebugLogPrint(u"MAC Address Matched!\r\n");
      *Node = n;
      break;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS FindRelatedHandles(EFI_HANDLE Driver, EFI_HANDLE Controller, UINT32 Mask, EFI_HANDLE** Handles,
                              UINTN* Count) {
  *Handles = nullptr;
  *Count = 0;
  wc::HandleBuffer all;
  EFI_STATUS status = all.LocateAll();
  if (EFI_ERROR(status))
    return status;
  auto flags = wc::PoolPtr<UINT32>::AllocateZero(all.Count() * sizeof(UINT32));
  if (!flags)
    return EFI_OUT_OF_RESOURCES;
  for (UINTN x = 0; x < all.Count(); ++x) {
    wc::PoolPtr<EFI_GUID*> guids;
    UINTN guidCount = 0;
    if (EFI_ERROR(gBS->ProtocolsPerHandle(all[x], guids.Receive(), &guidCount)))
      continue;
    for (UINTN g = 0; g < guidCount; ++g) {
      if (*guids[g] == EFI_DRIVER_BINDING_PROTOCOL_GUID)
        flags[x] |= HANDLE_DRIVER_BINDING;
      if (*guids[g] == EFI_DEVICE_PATH_PROTOCOL_GUID)
        flags[x] |= HANDLE_DEVICE;
      wc::PoolPtr<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> entries;
      UINTN entryCount = 0;
      if (EFI_ERROR(gBS->OpenProtocolInformation(all[x], guids[g], entries.Receive(), &entryCount)))
        continue;
      for (UINTN e = 0; e < entryCount; ++e) {
        const EFI_OPEN_PROTOCOL_INFORMATION_ENTRY& entry = entries[e];
        bool byChild = (entry.Attributes & EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER) != 0;
        if (Driver != nullptr) {
          if (entry.AgentHandle == Driver && all[x] == Controller && byChild)
            Mark(flags, all, entry.ControllerHandle, HANDLE_CHILD | HANDLE_DEVICE);
        } else if (entry.ControllerHandle == Controller) {
          if ((entry.Attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) != 0)
            Mark(flags, all, entry.AgentHandle, HANDLE_DEVICE_DRIVER);
          if (byChild) {
            flags[x] |= HANDLE_PARENT;
            Mark(flags, all, entry.AgentHandle, HANDLE_BUS_DRIVER);
          }
        }
      }
    }
  }
  UINTN found = 0;
  for (UINTN x = 0; x < all.Count(); ++x)
    found += (flags[x] & Mask) == Mask ? 1 : 0;
  if (found == 0)
    return EFI_NOT_FOUND;
  auto result = wc::PoolPtr<EFI_HANDLE>::Allocate(found * sizeof(EFI_HANDLE));
  if (!result)
    return EFI_OUT_OF_RESOURCES;
  for (UINTN x = 0, n = 0; x < all.Count(); ++x)
    if ((flags[x] & Mask) == Mask)
      result[n++] = all[x];
  *Handles = result.Release();
  *Count = found;
  return EFI_SUCCESS;
}

namespace {

// The name that the driver which made the NIC's handle gives the NIC (Own: gives itself), found
// through the handle database's relations: the NIC's parents, their drivers, and the children each
// driver made. A later driver that answers replaces an earlier answer.
EFI_STATUS NameFromServingDriver(EFI_HANDLE NicHandle, const CHAR8* Language, bool Own, CHAR16** Name) {
  if (Name == nullptr)
    return EFI_INVALID_PARAMETER;
  *Name = nullptr;
  wc::PoolPtr<EFI_HANDLE> parents;
  UINTN parentCount = 0;
  EFI_STATUS status = FindRelatedHandles(nullptr, NicHandle, HANDLE_PARENT, parents.Receive(), &parentCount);
  for (UINTN p = 0; p < parentCount; ++p) {
    wc::PoolPtr<EFI_HANDLE> drivers;
    UINTN driverCount = 0;
    status = FindRelatedHandles(nullptr, parents[p], HANDLE_DRIVER_BINDING | HANDLE_DEVICE_DRIVER,
                                drivers.Receive(), &driverCount);
    for (UINTN d = 0; d < driverCount; ++d) {
      wc::PoolPtr<EFI_HANDLE> children;
      UINTN childCount = 0;
      status = FindRelatedHandles(drivers[d], parents[p], HANDLE_CHILD | HANDLE_DEVICE, children.Receive(),
                                  &childCount);
      for (UINTN c = 0; c < childCount; ++c) {
        if (children[c] != NicHandle)
          continue;
        CHAR16* name = nullptr;
        status = Own ? AskDriver(drivers[d], nullptr, nullptr, Language, &name)
                     : AskDriver(drivers[d], parents[p], NicHandle, Language, &name);
        if (!EFI_ERROR(status))
          *Name = name;
      }
    }
  }
  return *Name != nullptr ? EFI_SUCCESS : status;
}

} // namespace

EFI_STATUS GetControllerName(EFI_HANDLE NicHandle, const CHAR8* Language, CHAR16** Name) {
  return NameFromServingDriver(NicHandle, Language, false, Name);
}

EFI_STATUS GetServingDriverName(EFI_HANDLE NicHandle, const CHAR8* Language, CHAR16** Name) {
  return NameFromServingDriver(NicHandle, Language, true, Name);
}
