#include "tests/NicMenu.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "nic/NicAccess.h"
#include "report/Messages.h"
#include "report/Output.h"

namespace {

constexpr const CHAR16* kMessageFile = u"Wirecheck.msg.xml";
constexpr UINTN kMenuTitle = 100, kMenuText = 102, kMenuCancel = 103;
constexpr UINTN kMaxMenuNics = 10;
constexpr UINTN kMenuTextLines = 5;
constexpr UINTN kMenuItemChars = 64;

void FreeText(CHAR16*& text) {
  if (text != nullptr)
    FreePool(text);
  text = nullptr;
}

} // namespace

EFI_STATUS LocateMenuProtocols(NicMenuProtocols* Menus) {
  Menus->Graphics = nullptr;
  Menus->Console = nullptr;
  EFI_STATUS status = gBS->LocateProtocol(&VEX_GRAPHICS_LIB_PROTOCOL_GUID, nullptr,
                                          reinterpret_cast<void**>(&Menus->Graphics));
  if (!EFI_ERROR(status) && Menus->Graphics != nullptr)
    return EFI_SUCCESS;
  Menus->Graphics = nullptr;
  LogPrint(u"Failed Locating GraphicsLibProtocol!\r\n");
  status =
      gBS->LocateProtocol(&VEX_CONSOLE_LIB_PROTOCOL_GUID, nullptr, reinterpret_cast<void**>(&Menus->Console));
  if (EFI_ERROR(status) || Menus->Console == nullptr) {
    Menus->Console = nullptr;
    LogPrint(u"Failed Locating ConsoleLibProtocol!\r\n");
    return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
  }
  return EFI_SUCCESS;
}

EFI_STATUS SelectNic(const NicMenuProtocols& Menus, const CHAR8* Language, ORDERED_LIST* List,
                     NicInfo** Selected) {
  if (List == nullptr || Selected == nullptr)
    return EFI_INVALID_PARAMETER;
  VEX_MENU menu = Menus.Graphics != nullptr  ? Menus.Graphics->Menu
                  : Menus.Console != nullptr ? Menus.Console->Menu
                                             : nullptr;
  if (menu == nullptr)
    return EFI_NOT_FOUND;
  CHAR16* title = GetMessageText(Language, kMenuTitle, kMessageFile);
  CHAR16* text = GetMessageText(Language, kMenuText, kMessageFile);
  CHAR16* cancel = GetMessageText(Language, kMenuCancel, kMessageFile);
  wc::ScopeGuard freeTexts([&] {
    FreeText(title);
    FreeText(text);
    FreeText(cancel);
  });

  VEX_MENU_TEXT_LINE lines[kMenuTextLines] = {{0, text}, {0, u""}, {0, u""}, {0, u""}, {0, u""}};
  VEX_MENU_TEXT_LINE* lineList[kMenuTextLines + 1] = {};
  for (UINTN i = 0; i < kMenuTextLines; ++i)
    lineList[i] = &lines[i];

  CHAR16 itemText[kMaxMenuNics][kMenuItemChars] = {};
  VEX_MENU_ITEM items[kMaxMenuNics + 1] = {};
  VEX_MENU_ITEM* itemList[kMaxMenuNics + 2] = {};
  UINTN count = 0;
  for (ORDERED_LIST_NODE* n = List->First; n != nullptr; n = n->Next) {
    if (count == kMaxMenuNics) {
      LogPrint(u"NIC devices are more than max supported(%d)!\r\n", kMaxMenuNics);
      break;
    }
    auto* nic = static_cast<NicInfo*>(n->Element);
    if (nic->Identifier != nullptr) {
      items[count].Text = nic->Identifier;
    } else {
      CHAR16 mac[32];
      FormatMacText(nic->MacAddress, mac, sizeof(mac));
      SPrint(itemText[count], sizeof(itemText[count]), u"NIC%d: %s", count + 1, mac);
      items[count].Text = itemText[count];
    }
    items[count].Value = reinterpret_cast<UINT64>(nic);
    itemList[count] = &items[count];
    ++count;
  }
  items[count] = {cancel, ~0ull};
  itemList[count] = &items[count];

  VEX_MENU_SETTINGS settings = {1, 2, 2, 1, {0, 0, 0, 0}};
  UINT64 selection = 255;
  EFI_STATUS status = menu(title, 0, lineList, itemList, &settings, 0, &selection, 0, 0, 0, 0);
  if (selection == ~0ull)
    return EFI_ABORTED;
  if (EFI_ERROR(status))
    return status;
  // Only a value the menu was given is a record.
  for (UINTN i = 0; i < count; ++i)
    if (items[i].Value == selection) {
      *Selected = reinterpret_cast<NicInfo*>(selection);
      return EFI_SUCCESS;
    }
  return EFI_NOT_FOUND;
}
