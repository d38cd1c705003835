#include "manager/Console.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/String.h"
#include "manager/Chooser.h"
#include "report/Messages.h"

void WriteText(EFI_FILE_PROTOCOL* File, const CHAR16* Text) {
  if (File == nullptr || Text == nullptr)
    return;
  CHAR8 bytes[kLineChars * 3];
  while (*Text != 0) {
    UINTN n = 0;
    for (; *Text != 0 && n + 3 < sizeof(bytes); ++Text) {
      CHAR16 c = *Text;
      if (c < 0x80) {
        bytes[n++] = CHAR8(c);
      } else if (c < 0x800) {
        bytes[n++] = CHAR8(0xC0 | (c >> 6));
        bytes[n++] = CHAR8(0x80 | (c & 0x3F));
      } else {
        bytes[n++] = CHAR8(0xE0 | (c >> 12));
        bytes[n++] = CHAR8(0x80 | ((c >> 6) & 0x3F));
        bytes[n++] = CHAR8(0x80 | (c & 0x3F));
      }
    }
    if (EFI_ERROR(File->Write(File, &n, bytes)))
      return;
  }
}

void Show(const CHAR16* Text, UINTN Attribute) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = gST->ConOut;
  if (Attribute != 0)
    out->SetAttribute(out, Attribute);
  out->OutputString(out, Text);
  if (Attribute != 0)
    out->SetAttribute(out, EFI_LIGHTGRAY);
  WriteText(gManager->Log, Text);
  WriteText(gManager->Out, Text);
}

EFI_INPUT_KEY WaitForKey() {
  EFI_INPUT_KEY key = {};
  UINTN index = 0;
  gBS->WaitForEvent(1, &gST->ConIn->WaitForKey, &index);
  gST->ConIn->ReadKeyStroke(gST->ConIn, &key);
  return key;
}

void DrainKeys() {
  EFI_INPUT_KEY key;
  for (UINTN i = 0;
       i < 256 && gST->ConIn != nullptr && !EFI_ERROR(gST->ConIn->ReadKeyStroke(gST->ConIn, &key)); ++i) {
  }
}

void ShowMessageText(const CHAR16* Prefix, UINTN Id, const CHAR16* File) {
  CHAR16* text = nullptr;
  EFI_STATUS status = GetLocalizedMessage(gManager->Language, Id, File, &text);
  if (EFI_ERROR(status))
    Say(u"%s unavailable (%r)\r\n", Prefix, status);
  else
    Say(u"%s%s\r\n", Prefix, text);
  FreePool(text);
}

namespace {

// Non-blocking look at the keyboard: ESC cancels, F fails; anything else is ignored.
UINTN KeyboardInterrupt() {
  EFI_INPUT_KEY key;
  if (gST->ConIn == nullptr || EFI_ERROR(gST->ConIn->ReadKeyStroke(gST->ConIn, &key)))
    return 0;
  if (key.ScanCode == SCAN_ESC)
    return 2;
  if (key.UnicodeChar == u'f' || key.UnicodeChar == u'F')
    return 3;
  return 0;
}

EFI_STATUS EFIAPI ManagerProgress(UINTN Percent, UINTN SecondsRemaining, UINTN* Interrupt) {
  constexpr UINTN kBar = 20;
  CHAR16 bar[kBar + 1];
  UINTN filled = (Percent > 100 ? 100 : Percent) * kBar / 100;
  for (UINTN i = 0; i < kBar; ++i)
    bar[i] = i < filled ? u'#' : u'.';
  bar[kBar] = 0;
  Say(u"PROGRESS [%s] %3d%% %d s left\r\n", bar, Percent, SecondsRemaining);
  if (Interrupt != nullptr) {
    UINTN value = 0;
    if (const Answer* a = TakeAnswer(gManager->Script, AnswerKind::Progress))
      value = UINTN(a->Value);
    else if (gManager->Script == nullptr)
      value = KeyboardInterrupt();
    *Interrupt = value;
    if (value != 0)
      Say(u"PROGRESS interrupt=%s\r\n", ResultName(value));
  }
  return EFI_SUCCESS;
}

// The module's catalog, asked for with -catalog and no path, comes through the output operation:
// kept whole for the technician's menu instead of being shown.
void TakeCatalogText(const CHAR16* Text) {
  UINTN had = gManager->CatalogText != nullptr ? StrLen(gManager->CatalogText) : 0;
  auto* grown = static_cast<CHAR16*>(AllocatePool((had + StrLen(Text) + 1) * sizeof(CHAR16)));
  if (grown == nullptr)
    return; // the menu then finds the catalog cut short and says so
  if (had != 0)
    CopyMem(grown, gManager->CatalogText, had * sizeof(CHAR16));
  CopyMem(grown + had, Text, StrSize(Text));
  FreePool(gManager->CatalogText);
  gManager->CatalogText = grown;
}

EFI_STATUS EFIAPI ManagerOutput(CHAR16* Text, BOOLEAN Flag, BOOLEAN ToConsole, BOOLEAN ToError) {
  if (Text == nullptr)
    return EFI_INVALID_PARAMETER;
  if (gManager->TakingCatalog && ToConsole && !ToError) {
    TakeCatalogText(Text);
    return EFI_SUCCESS;
  }
  gManager->Tail.Add(Text);
  if (gManager->Verbose) {
    Say(u"[flag=%d console=%d error=%d] ", Flag, ToConsole, ToError);
    Show(Text, ToError ? EFI_LIGHTRED : 0);
  } else if (ToConsole || ToError) {
    Show(Text, ToError ? EFI_LIGHTRED : 0);
  } else {
    WriteText(gManager->Log, Text); // for the log only
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ManagerPrompt(UINTN MessageId, CHAR16* MessageFile) {
  Say(u"PROMPT message=%d file=%s\r\n", MessageId, MessageFile);
  ShowMessageText(u"PROMPT text=", MessageId, MessageFile);
  bool abort = false;
  if (gManager->Script != nullptr) {
    const Answer* a = TakeAnswer(gManager->Script, AnswerKind::Prompt);
    abort = a != nullptr && a->Value != 0;
    Say(u"PROMPT answer=%s%s\r\n", abort ? u"abort" : u"ok",
        a == nullptr ? u" (script has no answer left)" : u"");
  } else {
    Say(u"Press a key to continue, ESC to abort.\r\n");
    abort = WaitForKey().ScanCode == SCAN_ESC;
    Say(u"PROMPT answer=%s\r\n", abort ? u"abort" : u"ok");
  }
  return abort ? EFI_ABORTED : EFI_SUCCESS;
}

EFI_STATUS EFIAPI ManagerReserved() {
  return EFI_UNSUPPORTED;
}

// The module's menu: its title, text lines and items (the cancel entry, value all ones, by name).
void DrawModuleMenu(const CHAR16* title, VEX_MENU_TEXT_LINE** lines, VEX_MENU_ITEM** items, UINTN highlight) {
  Say(u"MENU title=%s\r\n", title != nullptr ? title : u"");
  for (VEX_MENU_TEXT_LINE** l = lines; l != nullptr && *l != nullptr; ++l)
    if ((*l)->Text != nullptr && (*l)->Text[0] != 0)
      Say(u"MENU text=%s\r\n", (*l)->Text);
  UINTN number = 0;
  for (VEX_MENU_ITEM** i = items; *i != nullptr; ++i) {
    const CHAR16* text = (*i)->Text != nullptr ? (*i)->Text : u"";
    if ((*i)->Value == ~0ull) {
      Say(u"MENU cancel=%s\r\n", text);
    } else {
      CHAR16 line[kLineChars];
      SPrint(line, sizeof(line), u"MENU item=%d %s\r\n", ++number, text);
      Show(line, number == highlight ? EFI_BLACK | 0x70 : 0); // reverse video for the highlight
    }
  }
}

// The menu operation of both library protocols: shows everything it is given and hands back the
// value of the chosen item, or that of the cancel entry (all ones).
EFI_STATUS EFIAPI ManagerMenu(const CHAR16* Title, UINTN, VEX_MENU_TEXT_LINE** Lines, VEX_MENU_ITEM** Items,
                              VEX_MENU_SETTINGS*, UINT16, UINT64* Selection, UINT8, UINT8, UINT8, UINT64) {
  if (Items == nullptr || Selection == nullptr)
    return EFI_INVALID_PARAMETER;
  UINTN choices = 0;
  bool hasCancel = false;
  for (VEX_MENU_ITEM** i = Items; *i != nullptr; ++i)
    (*i)->Value == ~0ull ? hasCancel = true : ++choices;
  INT64 choice = -1;
  if (gManager->Script != nullptr) {
    DrawModuleMenu(Title, Lines, Items, 0);
    const Answer* a = TakeAnswer(gManager->Script, AnswerKind::Menu);
    if (a == nullptr)
      Say(u"MENU the script has no answer left: cancel\r\n");
    else if (a->Value > INT64(choices))
      Say(u"MENU the script's item %d is not there: cancel\r\n", a->Value);
    else
      choice = a->Value;
  } else {
    DrainKeys();
    bool drawn = false;
    choice = ChooseItem(
        choices, WaitForKey,
        [&](UINTN highlight) {
          DrawModuleMenu(Title, Lines, Items, highlight);
          if (!drawn)
            Say(u"Choose an item with its number, ESC to cancel.\r\n");
          drawn = true;
        },
        [&](UINTN n) { Say(u"MENU no item %d; choose 1 to %d, ESC to cancel.\r\n", n, choices); });
  }
  *Selection = ~0ull;
  if (choice >= 1) {
    UINTN seen = 0;
    for (VEX_MENU_ITEM** i = Items; *i != nullptr; ++i)
      if ((*i)->Value != ~0ull && ++seen == UINTN(choice))
        *Selection = (*i)->Value;
    Say(u"MENU answer=%d\r\n", choice);
  } else {
    Say(u"MENU answer=cancel%s\r\n", hasCancel ? u"" : u" (no cancel entry)");
  }
  return EFI_SUCCESS;
}

constinit VEX_GRAPHICS_LIB_PROTOCOL gGraphicsLib = {{}, ManagerMenu};
constinit VEX_CONSOLE_LIB_PROTOCOL gConsoleLib = {{}, ManagerMenu};
constinit VEX_MANAGER_PROTOCOL gManagerProtocol = {ManagerProgress, ManagerReserved, ManagerOutput,
                                                   ManagerReserved, ManagerPrompt};

struct MenuProtocol {
  const EFI_GUID* guid;
  void* iface;
  bool installed;
};
constinit MenuProtocol gMenus[] = {{&VEX_GRAPHICS_LIB_PROTOCOL_GUID, &gGraphicsLib, false},
                                   {&VEX_CONSOLE_LIB_PROTOCOL_GUID, &gConsoleLib, false}};

} // namespace

EFI_STATUS InstallManagerProtocols(EFI_HANDLE* Handle, bool GraphicsMenu, bool ConsoleMenu) {
  EFI_STATUS status = gBS->InstallProtocolInterface(Handle, &VEX_MANAGER_PROTOCOL_GUID, EFI_NATIVE_INTERFACE,
                                                    &gManagerProtocol);
  if (EFI_ERROR(status))
    return status;
  // The menu protocols live on the manager's handle, each only when asked for.
  bool wanted[] = {GraphicsMenu, ConsoleMenu};
  for (UINTN i = 0; i < 2; ++i)
    gMenus[i].installed = wanted[i] && !EFI_ERROR(gBS->InstallProtocolInterface(
                                           Handle, gMenus[i].guid, EFI_NATIVE_INTERFACE, gMenus[i].iface));
  return EFI_SUCCESS;
}

void UninstallManagerProtocols(EFI_HANDLE Handle) {
  for (MenuProtocol& m : gMenus)
    if (m.installed)
      gBS->UninstallProtocolInterface(Handle, m.guid, m.iface);
  gBS->UninstallProtocolInterface(Handle, &VEX_MANAGER_PROTOCOL_GUID, &gManagerProtocol);
}
