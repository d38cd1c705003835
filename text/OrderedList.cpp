#include "text/OrderedList.h"
#include "base/Memory.h"

namespace {
// Links a new node after Reference, or at the front when Reference is null.
EFI_STATUS InsertAfter(ORDERED_LIST* list, ORDERED_LIST_NODE* reference, void* element,
                       ORDERED_LIST_NODE** out) {
  if (list == nullptr)
    return EFI_INVALID_PARAMETER;
  auto* node = static_cast<ORDERED_LIST_NODE*>(AllocateZeroPool(sizeof(ORDERED_LIST_NODE)));
  if (node == nullptr)
    return EFI_OUT_OF_RESOURCES;
  node->Element = element;
  node->Previous = reference;
  node->Next = reference != nullptr ? reference->Next : list->First;
  if (reference != nullptr)
    reference->Next = node;
  else
    list->First = node;
  if (node->Next != nullptr)
    node->Next->Previous = node;
  else
    list->Last = node;
  list->Count++;
  if (out != nullptr)
    *out = node;
  return EFI_SUCCESS;
}

void Unlink(ORDERED_LIST* list, ORDERED_LIST_NODE* node) {
  if (node->Previous != nullptr)
    node->Previous->Next = node->Next;
  else
    list->First = node->Next;
  if (node->Next != nullptr)
    node->Next->Previous = node->Previous;
  else
    list->Last = node->Previous;
  list->Count--;
}
} // namespace

EFI_STATUS OrderedListCreate(ORDERED_LIST** List, ORDERED_LIST_COMPARE Compare,
                             ORDERED_LIST_FREE_ELEMENT FreeElement) {
  if (List == nullptr)
    return EFI_INVALID_PARAMETER;
  auto* list = static_cast<ORDERED_LIST*>(AllocateZeroPool(sizeof(ORDERED_LIST)));
  if (list == nullptr)
    return EFI_OUT_OF_RESOURCES;
  list->Compare = Compare;
  list->FreeElement = FreeElement;
  *List = list;
  return EFI_SUCCESS;
}

EFI_STATUS OrderedListAppend(ORDERED_LIST* List, void* Element, ORDERED_LIST_NODE** Node) {
  return InsertAfter(List, List != nullptr ? List->Last : nullptr, Element, Node);
}

EFI_STATUS OrderedListInsertFront(ORDERED_LIST* List, void* Element, ORDERED_LIST_NODE** Node) {
  return InsertAfter(List, nullptr, Element, Node);
}

EFI_STATUS OrderedListFind(ORDERED_LIST* List, const void* Key, ORDERED_LIST_NODE** Node) {
  if (Node == nullptr)
    return EFI_INVALID_PARAMETER;
  *Node = nullptr;
  if (List == nullptr || Key == nullptr)
    return EFI_INVALID_PARAMETER;
  if (List->Compare == nullptr)
    return EFI_UNSUPPORTED;
  for (ORDERED_LIST_NODE* n = List->First; n != nullptr; n = n->Next) {
    if (List->Compare(n->Element, Key) == 0) {
      *Node = n;
      break;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS OrderedListDestroy(ORDERED_LIST* List) {
  if (List == nullptr)
    return EFI_INVALID_PARAMETER;
  while (ORDERED_LIST_NODE* node = List->First) {
    if (List->FreeElement != nullptr) {
      List->FreeElement(node->Element, node);
    } else {
      FreePool(node->Element);
    }
    Unlink(List, node);
    FreePool(node);
  }
  List->First = nullptr;
  List->Last = nullptr;
  List->Count = 0;
  FreePool(List);
  return EFI_SUCCESS;
}
