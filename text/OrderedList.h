// A doubly linked list of element pointers in insertion order, with compare and free callbacks.
#pragma once
#include "base/Owners.h"
#include "uefi/Base.h"

struct ORDERED_LIST_NODE {
  void* Element; // owned by the list from insertion on
  ORDERED_LIST_NODE* Previous;
  ORDERED_LIST_NODE* Next;
};

using ORDERED_LIST_COMPARE = INTN (*)(const void* Element, const void* Key);
using ORDERED_LIST_FREE_ELEMENT = void (*)(void* Element, ORDERED_LIST_NODE* Node);

struct ORDERED_LIST {
  ORDERED_LIST_COMPARE Compare;
  ORDERED_LIST_FREE_ELEMENT FreeElement;
  ORDERED_LIST_NODE* First;
  ORDERED_LIST_NODE* Last;
  UINTN Count;
};

EFI_STATUS OrderedListCreate(ORDERED_LIST** List, ORDERED_LIST_COMPARE Compare,
                             ORDERED_LIST_FREE_ELEMENT FreeElement);
EFI_STATUS OrderedListAppend(ORDERED_LIST* List, void* Element, ORDERED_LIST_NODE** Node);
EFI_STATUS OrderedListInsertFront(ORDERED_LIST* List, void* Element, ORDERED_LIST_NODE** Node);
EFI_STATUS OrderedListFind(ORDERED_LIST* List, const void* Key, ORDERED_LIST_NODE** Node);
EFI_STATUS OrderedListDestroy(ORDERED_LIST* List);

// A list destroyed, elements and all, whichever way its owner's scope ends.
using OrderedListOwner = wc::Owned<ORDERED_LIST, OrderedListDestroy>;
