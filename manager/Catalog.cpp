#include "manager/Catalog.h"

#include "base/Memory.h"
#include "base/Number.h"
#include "base/Print.h"
#include "base/String.h"
#include "options/OptionStore.h"

namespace {

const CHAR16* Attribute(const XmlNode* node, const CHAR16* name) {
  return XmlGetAttributeValue(node, name, FALSE);
}

const CHAR16* OrEmpty(const CHAR16* s) {
  return s != nullptr ? s : u"";
}

// Whether Value is one of the comma-separated entries of List (letters in any case, as the module
// compares them).
bool InList(const CHAR16* list, const CHAR16* value) {
  UINTN length = StrLen(value);
  const CHAR16* entry = list;
  for (const CHAR16* c = list;; ++c) {
    if (*c == u',' || *c == 0) {
      UINTN n = UINTN(c - entry);
      if (n == length) {
        CHAR16 piece[kMenuValueChars];
        if (n < kMenuValueChars) {
          CopyMem(piece, entry, n * sizeof(CHAR16));
          piece[n] = 0;
          if (StriEq(piece, value))
            return true;
        }
      }
      if (*c == 0)
        return false;
      entry = c + 1;
    }
  }
}

// A whole number as the module reads one: nothing may follow the digits.
bool ReadNumber(const CHAR16* text, UINT64* number) {
  if (text == nullptr || text[0] == 0)
    return false;
  const CHAR16* end = nullptr;
  *number = StrToInteger(text, &end, FALSE);
  return end != nullptr && *end == 0;
}

} // namespace

EFI_STATUS ReadMenuCatalog(const CHAR16* Text, MenuCatalog* Catalog) {
  if (Text == nullptr || Catalog == nullptr)
    return EFI_INVALID_PARAMETER;
  SetMem(Catalog, sizeof(*Catalog), 0);
  EFI_STATUS status = XmlLoadString(Text, &Catalog->Document, FALSE);
  if (EFI_ERROR(status))
    return status;
  XmlNode* diagnostic = XmlFindElement(Catalog->Document, 0, XML_PRE_ORDER, nullptr, u"DIAGNOSTIC", FALSE,
                                       nullptr, FALSE, nullptr, FALSE);
  if (diagnostic == nullptr)
    return EFI_NOT_FOUND;
  for (XmlNode* test = diagnostic->FirstChild; test != nullptr; test = test->NextSibling) {
    if (test->Type != XML_ELEMENT || !StriEq(test->Name, u"TEST") || Attribute(test, u"Name") == nullptr)
      continue;
    if (Catalog->TestCount == kMenuMaxTests) {
      ++Catalog->Omitted;
      continue;
    }
    MenuTest& t = Catalog->Tests[Catalog->TestCount++];
    t.Name = Attribute(test, u"Name");
    t.Description = OrEmpty(Attribute(test, u"Description"));
    for (XmlNode* arg = test->FirstChild; arg != nullptr; arg = arg->NextSibling) {
      if (arg->Type != XML_ELEMENT || !StriEq(arg->Name, u"ARGUMENT") || Attribute(arg, u"Name") == nullptr)
        continue;
      if (t.ArgumentCount == kMenuMaxArguments) {
        ++t.Omitted;
        continue;
      }
      MenuArgument& a = t.Arguments[t.ArgumentCount++];
      a.Name = Attribute(arg, u"Name");
      a.Default = Attribute(arg, u"Value");
      a.Type = OrEmpty(Attribute(arg, u"Type"));
      a.Description = OrEmpty(Attribute(arg, u"Description"));
      a.Low = Attribute(arg, u"Low");
      a.High = Attribute(arg, u"High");
      a.List = Attribute(arg, u"List");
      a.Required = StriEq(OrEmpty(Attribute(arg, u"Required")), u"true");
      StrCopy(a.Value, sizeof(a.Value), OrEmpty(a.Default));
    }
  }
  return Catalog->TestCount == 0 ? EFI_NOT_FOUND : EFI_SUCCESS;
}

void FreeMenuCatalog(MenuCatalog* Catalog) {
  if (Catalog == nullptr)
    return;
  XmlFreeDocument(Catalog->Document);
  SetMem(Catalog, sizeof(*Catalog), 0);
}

void DescribeMenuLimits(const MenuArgument& Argument, CHAR16* Out, UINTN OutSize) {
  const MenuArgument& a = Argument;
  if (a.List != nullptr) {
    SPrint(Out, OutSize, u"%s", a.List);
    for (CHAR16* c = Out; *c != 0; ++c)
      if (*c == u',')
        *c = u'|';
  } else if (a.Low != nullptr && a.High != nullptr) {
    SPrint(Out, OutSize, u"%s..%s", a.Low, a.High);
  } else if (a.Low != nullptr) {
    SPrint(Out, OutSize, u"%s or higher", a.Low);
  } else if (a.High != nullptr) {
    SPrint(Out, OutSize, u"%s or lower", a.High);
  } else if (OutSize >= sizeof(CHAR16)) {
    Out[0] = 0;
  }
}

bool CheckMenuValue(const MenuArgument& Argument, const CHAR16* Value, CHAR16* Why, UINTN WhySize) {
  const MenuArgument& a = Argument;
  Value = OrEmpty(Value);
  if (StrLen(Value) + 1 >= kMenuValueChars) {
    SPrint(Why, WhySize, u"%s: a value of at most %d characters", a.Name, kMenuValueChars - 2);
    return false;
  }
  for (const CHAR16* c = Value; *c != 0; ++c)
    if (*c == u'"' || *c == u'\'') { // the option string could not carry it
      SPrint(Why, WhySize, u"%s: a value without quote marks", a.Name);
      return false;
    }
  CHAR16 limits[160];
  DescribeMenuLimits(a, limits, sizeof(limits));
  if (a.List != nullptr && !InList(a.List, Value)) {
    SPrint(Why, WhySize, u"%s takes one of %s; '%s' is not one", a.Name, limits, Value);
    return false;
  }
  bool integer = StriEq(a.Type, u"integer");
  if (integer || StriEq(a.Type, u"integer64")) {
    UINT64 number = 0;
    if (!ReadNumber(Value, &number)) {
      SPrint(Why, WhySize, u"%s takes a whole number%s%s; '%s' is not one", a.Name, limits[0] ? u" in " : u"",
             limits, Value);
      return false;
    }
    UINT64 low = 0, high = 0;
    bool below =
        a.Low != nullptr && ReadNumber(a.Low, &low) && (integer ? INT64(number) < INT64(low) : number < low);
    bool above = a.High != nullptr && ReadNumber(a.High, &high) &&
                 (integer ? INT64(number) > INT64(high) : number > high);
    if (below || above) {
      SPrint(Why, WhySize, u"%s takes %s; %s is outside", a.Name, limits, Value);
      return false;
    }
  } else if (StriEq(a.Type, u"boolean")) {
    BOOLEAN flag = FALSE;
    if (EFI_ERROR(ParseBoolean(Value, &flag))) {
      SPrint(Why, WhySize, u"%s takes true or false; '%s' is neither", a.Name, Value);
      return false;
    }
  } else if (StriEq(a.Type, u"string") && a.Required && Value[0] == 0) {
    SPrint(Why, WhySize, u"%s needs a value", a.Name);
    return false;
  }
  return true;
}

bool BuildMenuOptions(const MenuTest& Test, CHAR16* Out, UINTN OutSize) {
  UINTN written = SPrint(Out, OutSize, u"-test=%s", Test.Name);
  for (UINTN i = 0; i < Test.ArgumentCount; ++i) {
    const MenuArgument& a = Test.Arguments[i];
    if (!a.Edited)
      continue;
    CHAR16 piece[kMenuValueChars * 2];
    if (a.Type[0] == 0) { // a switch: present or not
      BOOLEAN on = FALSE;
      if (EFI_ERROR(ParseBoolean(a.Value, &on)) || !on)
        continue;
      SPrint(piece, sizeof(piece), u" %s", a.Name);
    } else {
      bool blank = false;
      for (const CHAR16* c = a.Value; *c != 0; ++c)
        blank = blank || *c == u' ';
      // A value with a blank stays one word in double quotes right after "=".
      SPrint(piece, sizeof(piece), blank ? u" %s=\"%s\"" : u" %s=%s", a.Name, a.Value);
    }
    if (written + StrLen(piece) + 1 > OutSize / sizeof(CHAR16))
      return false;
    StrAppend(Out, OutSize, piece);
    written += StrLen(piece);
  }
  return written + 1 < OutSize / sizeof(CHAR16);
}
