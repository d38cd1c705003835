// The keyboard's choice among the items 1..Count of a screen, for both of the manager's menus (the
// module's NIC menu and the technician's menu): a number and Enter, or the arrow keys and Enter; ESC
// gives -1. Other keys are let go, so a key held down only repeats itself.
#pragma once
#include "uefi/Uefi.h"

// ReadKey() waits for a key; Draw(highlight) shows the screen with that item highlighted; Refuse(n)
// says that there is no item n. Returns the item chosen, or -1.
template <class ReadKey, class Draw, class Refuse>
INT64 ChooseItem(UINTN Count, ReadKey readKey, Draw draw, Refuse refuse) {
  UINTN highlight = 1;
  UINTN typed = 0;
  draw(highlight);
  for (;;) {
    EFI_INPUT_KEY key = readKey();
    if (key.ScanCode == SCAN_ESC)
      return -1;
    if (key.ScanCode == SCAN_UP || key.ScanCode == SCAN_DOWN) {
      highlight = key.ScanCode == SCAN_UP ? (highlight > 1 ? highlight - 1 : Count)
                                          : (highlight < Count ? highlight + 1 : 1);
      typed = 0;
      draw(highlight);
    } else if (key.UnicodeChar >= u'0' && key.UnicodeChar <= u'9' && typed < 1000) {
      typed = typed * 10 + UINTN(key.UnicodeChar - u'0');
    } else if (key.UnicodeChar == u'\r') {
      UINTN chosen = typed != 0 ? typed : highlight;
      if (chosen >= 1 && chosen <= Count)
        return INT64(chosen);
      refuse(chosen);
      typed = 0;
    }
  }
}
