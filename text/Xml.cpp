#include "text/Xml.h"
#include "base/TextDecode.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "text/Regex.h"

namespace {

constexpr UINTN kAttributeValueChars = 512;

struct Span {
  const CHAR16* begin = nullptr;
  const CHAR16* end = nullptr;
  UINTN Length() const { return UINTN(end - begin); }
};

bool IsWs(CHAR16 c) {
  return c == 0x09 || c == 0x0A || c == 0x0D || c == 0x20;
}
const CHAR16* SkipWs(const CHAR16* p) {
  while (IsWs(*p))
    ++p;
  return p;
}

bool IsNameStart(CHAR16 c) {
  return c == u':' || c == u'_' || (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') ||
         (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) ||
         (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) ||
         (c >= 0xF900 && c <= 0xFDCF) || (c >= 0xFDF0 && c <= 0xFFFD);
}
bool IsNameChar(CHAR16 c) {
  return IsNameStart(c) || c == u'-' || c == u'.' || (c >= u'0' && c <= u'9') || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

// The end of a name at p, or null.
const CHAR16* ScanName(const CHAR16* p) {
  if (!IsNameStart(*p))
    return nullptr;
  ++p;
  while (IsNameChar(*p))
    ++p;
  return p;
}

bool StartsNoCase(const CHAR16* p, const CHAR16* word) {
  return StrniCmp(p, word, StrLen(word)) == 0;
}

const CHAR16* ScanQuoted(const CHAR16* p, Span* value) {
  CHAR16 quote = *p;
  if (quote != u'\'' && quote != u'"')
    return nullptr;
  const CHAR16* start = ++p;
  while (*p != 0 && *p != quote)
    ++p;
  if (*p == 0)
    return nullptr;
  *value = {start, p};
  return p + 1;
}

// "name", "=", a quoted value, with optional white space around the "=".
const CHAR16* ScanKeyword(const CHAR16* p, const CHAR16* keyword, Span* value) {
  if (!StartsNoCase(p, keyword))
    return nullptr;
  p = SkipWs(p + StrLen(keyword));
  if (*p != u'=')
    return nullptr;
  return ScanQuoted(SkipWs(p + 1), value);
}

struct Declaration {
  Span version, encoding, standalone;
  bool hasEncoding = false, hasStandalone = false;
};

const CHAR16* ScanDeclaration(const CHAR16* p, Declaration* d) {
  if (!StartsNoCase(p, u"<?xml"))
    return nullptr;
  p = ScanKeyword(SkipWs(p + 5), u"version", &d->version);
  if (p == nullptr)
    return nullptr;
  // The version is "1." and one or more digits.
  const CHAR16* v = d->version.begin;
  if (d->version.Length() < 3 || v[0] != u'1' || v[1] != u'.')
    return nullptr;
  for (const CHAR16* c = v + 2; c < d->version.end; ++c)
    if (*c < u'0' || *c > u'9')
      return nullptr;
  const CHAR16* q = SkipWs(p);
  if (StartsNoCase(q, u"encoding")) {
    q = ScanKeyword(q, u"encoding", &d->encoding);
    if (q == nullptr)
      return nullptr;
    d->hasEncoding = true;
    q = SkipWs(q);
  }
  if (StartsNoCase(q, u"standalone")) {
    q = ScanKeyword(q, u"standalone", &d->standalone);
    if (q == nullptr)
      return nullptr;
    UINTN n = d->standalone.Length();
    if (!((n == 3 && StrnCmp(d->standalone.begin, u"yes", 3) == 0) ||
          (n == 2 && StrnCmp(d->standalone.begin, u"no", 2) == 0)))
      return nullptr;
    d->hasStandalone = true;
    q = SkipWs(q);
  }
  if (!StartsNoCase(q, u"?>"))
    return nullptr;
  return q + 2;
}

const CHAR16* ScanComment(const CHAR16* p, Span* text) {
  if (StrnCmp(p, u"<!--", 4) != 0)
    return nullptr;
  const CHAR16* start = p + 4;
  if (*start == u'-')
    return nullptr;
  const CHAR16* close = StrFind(start, u"-->");
  if (close == nullptr || (close > start && close[-1] == u'-'))
    return nullptr;
  *text = {start, close};
  return close + 3;
}

const CHAR16* ScanAttribute(const CHAR16* p, Span* name, Span* value) {
  const CHAR16* end = ScanName(p);
  if (end == nullptr)
    return nullptr;
  *name = {p, end};
  p = SkipWs(end);
  if (*p != u'=')
    return nullptr;
  return ScanQuoted(SkipWs(p + 1), value);
}

// A start tag; *open tells "<a>" from "<a/>". Attributes are visited when a visitor is given.
template <class Visit> const CHAR16* ScanStartTag(const CHAR16* p, Span* name, bool* open, Visit&& visit) {
  if (*p != u'<')
    return nullptr;
  const CHAR16* end = ScanName(p + 1);
  if (end == nullptr)
    return nullptr;
  *name = {p + 1, end};
  p = end;
  for (;;) {
    Span attrName, attrValue;
    const CHAR16* next = ScanAttribute(SkipWs(p), &attrName, &attrValue);
    if (next == nullptr)
      break;
    if (!visit(attrName, attrValue))
      return nullptr;
    p = next;
  }
  p = SkipWs(p);
  if (*p == u'>') {
    *open = true;
    return p + 1;
  }
  if (p[0] == u'/' && p[1] == u'>') {
    *open = false;
    return p + 2;
  }
  return nullptr;
}

const CHAR16* ScanEndTag(const CHAR16* p, Span* name) {
  if (p[0] != u'<' || p[1] != u'/')
    return nullptr;
  const CHAR16* end = ScanName(p + 2);
  if (end == nullptr)
    return nullptr;
  *name = {p + 2, end};
  p = SkipWs(end);
  return *p == u'>' ? p + 1 : nullptr;
}

// Text runs to the first "</"; trailing white space is not part of it. Text is the sole content of
// its element: a "<" in it may not start markup (a name, "!" or "?"), so "1 < 2" is text while
// "x<b/>" is mixed content, which the reader refuses.
const CHAR16* ScanText(const CHAR16* p, Span* text) {
  if (*p == u'<' || *p == 0)
    return nullptr;
  const CHAR16* close = StrFind(p, u"</");
  if (close == nullptr)
    return nullptr;
  for (const CHAR16* c = p; c < close; ++c)
    if (c[0] == u'<' && (IsNameStart(c[1]) || c[1] == u'!' || c[1] == u'?'))
      return nullptr;
  const CHAR16* end = close;
  while (end > p && IsWs(end[-1]))
    --end;
  *text = {p, end};
  return close;
}

bool SpanEquals(const Span& s, const CHAR16* text) {
  return StrnCmp(s.begin, text, s.Length()) == 0 && text[s.Length()] == 0;
}

// Decodes the five predefined entities in one pass, in place.
void DecodeEntities(CHAR16* s) {
  struct Entity {
    const CHAR16* name;
    CHAR16 c;
  };
  static constexpr Entity kEntities[] = {
      {u"&quot;", u'"'}, {u"&apos;", u'\''}, {u"&amp;", u'&'}, {u"&lt;", u'<'}, {u"&gt;", u'>'}};
  CHAR16* w = s;
  for (const CHAR16* r = s; *r != 0;) {
    bool decoded = false;
    if (*r == u'&') {
      for (const Entity& e : kEntities) {
        UINTN n = StrLen(e.name);
        if (StrnCmp(r, e.name, n) == 0) {
          *w++ = e.c;
          r += n;
          decoded = true;
          break;
        }
      }
    }
    if (!decoded)
      *w++ = *r++;
  }
  *w = 0;
}

CHAR16* CopySpan(const Span& s, bool decode) {
  auto* copy = static_cast<CHAR16*>(AllocatePool((s.Length() + 1) * sizeof(CHAR16)));
  if (copy == nullptr)
    return nullptr;
  CopyMem(copy, s.begin, s.Length() * sizeof(CHAR16));
  copy[s.Length()] = 0;
  if (decode)
    DecodeEntities(copy);
  return copy;
}

void FreeNodeStrings(XmlNode* n) {
  FreePool(n->Name);
  if (n->Type == XML_DECLARATION) {
    FreePool(n->Encoding);
  } else if (n->Type == XML_ELEMENT && n->Attributes != nullptr) {
    for (UINTN i = 0; i < n->AttributeCount; ++i) {
      FreePool(n->Attributes[i].Name);
      FreePool(n->Attributes[i].Value);
    }
    FreePool(n->Attributes);
  }
}

// Frees a node, the siblings after it and all their descendants, without recursion.
void FreeNodes(XmlNode* n) {
  while (n != nullptr) {
    if (n->FirstChild != nullptr) {
      XmlNode* child = n->FirstChild;
      n->FirstChild = nullptr;
      n = child;
      continue;
    }
    XmlNode* next = n->NextSibling != nullptr ? n->NextSibling : n->Parent;
    FreeNodeStrings(n);
    FreePool(n);
    n = next;
  }
}

UINTN LineOf(const CHAR16* document, UINTN offset) {
  UINTN line = 1;
  for (UINTN i = 0; i < offset && document[i] != 0; ++i)
    if (document[i] == u'\n')
      ++line;
  return line;
}

bool InScope(const XmlNode* node, const XmlNode* scope) {
  for (const XmlNode* n = node; n != nullptr; n = n->Parent)
    if (n == scope)
      return true;
  return false;
}

bool Same(const CHAR16* text, const CHAR16* wanted, BOOLEAN pattern) {
  if (!pattern)
    return StrEq(text, wanted);
  BOOLEAN matched = FALSE;
  return !EFI_ERROR(MatchingStringAndRegularExpression(text, wanted, TRUE, &matched)) && matched;
}

// The attributes of the start tag at Tag into the element: counted, then copied (values cut to 511
// characters, then decoded). An attribute given twice is refused.
EFI_STATUS ReadAttributes(const CHAR16* tag, XmlNode* node) {
  Span name;
  bool open = false;
  UINTN count = 0;
  ScanStartTag(tag, &name, &open, [&](const Span&, const Span&) {
    ++count;
    return true;
  });
  if (count == 0)
    return EFI_SUCCESS;
  node->Attributes = static_cast<XmlAttribute*>(AllocateZeroPool(count * sizeof(XmlAttribute)));
  if (node->Attributes == nullptr)
    return EFI_OUT_OF_RESOURCES;
  EFI_STATUS status = EFI_SUCCESS;
  ScanStartTag(tag, &name, &open, [&](const Span& attrName, const Span& attrValue) {
    for (UINTN i = 0; i < node->AttributeCount; ++i) {
      if (SpanEquals(attrName, node->Attributes[i].Name)) {
        status = EFI_UNSUPPORTED;
        return false;
      }
    }
    XmlAttribute& a = node->Attributes[node->AttributeCount];
    a.Name = CopySpan(attrName, false);
    Span cut = attrValue;
    if (cut.Length() > kAttributeValueChars - 1)
      cut.end = cut.begin + kAttributeValueChars - 1;
    a.Value = CopySpan(cut, true);
    ++node->AttributeCount;
    if (a.Name == nullptr || a.Value == nullptr) {
      status = EFI_OUT_OF_RESOURCES;
      return false;
    }
    return true;
  });
  return status;
}

// The grammar both passes read, walked once: after white space, a declaration, a comment or a start
// tag (none of them once the current element has its text), an end tag, or text right after an open
// start tag; anything else is stray. An end tag changes nothing until its reader says it closed an
// element (a stray one that the repair blanks leaves the state as it was).
enum class XmlToken { End, Declaration, Comment, StartTag, EndTag, Text, Stray };

class XmlWalk {
public:
  struct Step {
    XmlToken Kind;
    const CHAR16* At;   // where the token starts
    const CHAR16* Next; // where the walk goes on
    Declaration Decl;   // a declaration's parts
    Span Name;          // a tag's name, a comment's or a text's characters
    bool Open;          // a start tag that is not empty
  };

  explicit XmlWalk(const CHAR16* Document) : p_(Document + (Document[0] == 0xFEFF ? 1 : 0)) {}

  Step Next() {
    Step s = {};
    p_ = SkipWs(p_);
    s.At = p_;
    if (*p_ == 0) {
      s.Kind = XmlToken::End;
      return s;
    }
    if (!textSeen_) {
      if ((s.Next = ScanDeclaration(p_, &s.Decl)) != nullptr)
        return Took(s, XmlToken::Declaration);
      if ((s.Next = ScanComment(p_, &s.Name)) != nullptr)
        return Took(s, XmlToken::Comment);
      s.Next = ScanStartTag(p_, &s.Name, &s.Open, [](const Span&, const Span&) { return true; });
      if (s.Next != nullptr)
        return Took(s, XmlToken::StartTag);
    }
    if ((s.Next = ScanEndTag(p_, &s.Name)) != nullptr) {
      s.Kind = XmlToken::EndTag;
      p_ = s.Next;
      return s;
    }
    if (afterOpenStartTag_ && (s.Next = ScanText(p_, &s.Name)) != nullptr) {
      textSeen_ = true;
      return Took(s, XmlToken::Text);
    }
    s.Kind = XmlToken::Stray;
    return s;
  }
  // The end tag just walked closed an element.
  void Closed() {
    afterOpenStartTag_ = false;
    textSeen_ = false;
  }

private:
  Step Took(Step& s, XmlToken kind) {
    s.Kind = kind;
    afterOpenStartTag_ = kind == XmlToken::StartTag && s.Open;
    p_ = s.Next;
    return s;
  }

  const CHAR16* p_;
  bool afterOpenStartTag_ = false;
  bool textSeen_ = false;
};

} // namespace

EFI_STATUS FileData2XmlDocString(const UINT8* Data, UINTN Size, CHAR16** String) {
  if (String == nullptr || (Data == nullptr && Size != 0))
    return EFI_INVALID_PARAMETER;
  *String = DecodeText(Data, Size, TextEncoding::Detect, TextEncoding::Bytes, nullptr);
  return *String != nullptr ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

EFI_STATUS ValidateXmlDocString(const CHAR16* Document, BOOLEAN Repair, CHAR16** Validated) {
  if (Validated != nullptr)
    *Validated = nullptr;
  if (Document == nullptr)
    return EFI_INVALID_PARAMETER;
  wc::PoolPtr<CHAR16> copy(StrDuplicate(Document));
  if (!copy)
    return EFI_OUT_OF_RESOURCES;
  CHAR16* base = copy.Get();
  UINTN length = StrLen(base);
  // Every open start tag takes at least three characters.
  auto stack = wc::PoolPtr<UINTN>::Allocate((length / 3 + 2) * sizeof(UINTN));
  if (!stack)
    return EFI_OUT_OF_RESOURCES;
  UINTN depth = 0;
  auto fail = [&](const CHAR16* message, const CHAR16* at) {
    DebugLogPrint(message, LineOf(Document, UINTN(at - base)));
    return EFI_UNSUPPORTED;
  };
  auto blank = [](CHAR16* from, const CHAR16* to) {
    for (; from < to; ++from)
      *from = u' ';
  };
  // Does the open start tag at `offset` carry this name (followed by ">" or white space)?
  auto startTagIs = [&](UINTN offset, const Span& name) {
    const CHAR16* tag = base + offset + 1;
    return StrnCmp(tag, name.begin, name.Length()) == 0 &&
           (tag[name.Length()] == u'>' || IsWs(tag[name.Length()]));
  };

  XmlWalk walk(base);
  for (;;) {
    XmlWalk::Step step = walk.Next();
    const CHAR16* p = step.At;
    if (step.Kind == XmlToken::End) {
      if (depth == 0)
        break;
      if (!Repair)
        return fail(u"ValidateXmlDocString: Incomplete element.  Line %d\r\n", p);
      if (depth >= 2)
        blank(base + stack[1], base + length);
      const CHAR16* name = SkipWs(base + stack[0] + 1);
      const CHAR16* nameEnd = ScanName(name);
      if (nameEnd == nullptr || (*nameEnd != u' ' && *nameEnd != u'>'))
        return EFI_INVALID_PARAMETER;
      UINTN nameLength = UINTN(nameEnd - name);
      UINTN bytes = (length + nameLength + 5) * sizeof(CHAR16);
      auto* repaired = static_cast<CHAR16*>(AllocatePool(bytes));
      if (repaired == nullptr)
        return EFI_OUT_OF_RESOURCES;
      CopyMem(repaired, base, length * sizeof(CHAR16));
      CHAR16* w = repaired + length;
      *w++ = u' ';
      *w++ = u'<';
      *w++ = u'/';
      CopyMem(w, name, nameLength * sizeof(CHAR16));
      w += nameLength;
      *w++ = u'>';
      *w = 0;
      copy.Reset(repaired);
      break;
    }
    switch (step.Kind) {
    case XmlToken::StartTag:
      if (step.Open)
        stack[depth++] = UINTN(p - base);
      continue;
    case XmlToken::Declaration:
    case XmlToken::Comment:
    case XmlToken::Text:
      continue;
    case XmlToken::Stray:
      return fail(u"ValidateXmlDocString: extraneous XML substring/item.  Line %d\r\n", p);
    case XmlToken::EndTag:
    case XmlToken::End:
      break;
    }
    UINTN found = depth;
    for (UINTN i = depth; i-- > 0;) {
      if (startTagIs(stack[i], step.Name)) {
        found = i;
        break;
      }
    }
    if (found == depth) {
      if (!Repair)
        return fail(u"ValidateXmlDocString: Paired Element-Start-Tag not found.  Line %d\r\n", p);
      blank(const_cast<CHAR16*>(p), step.Next);
      continue;
    }
    if (found + 1 != depth) {
      if (!Repair)
        return fail(u"ValidateXmlDocString: Incomplete element found.  Line %d\r\n", p);
      blank(base + stack[found + 1], p);
      depth = found + 1;
    }
    --depth;
    walk.Closed();
  }
  if (Validated != nullptr)
    *Validated = copy.Release();
  return EFI_SUCCESS;
}

EFI_STATUS XmlLoadString(const CHAR16* Document, XmlNode** Result, BOOLEAN Repair) {
  if (Result == nullptr)
    return EFI_INVALID_PARAMETER;
  *Result = nullptr;
  wc::PoolPtr<CHAR16> validated;
  EFI_STATUS status = ValidateXmlDocString(Document, Repair, validated.Receive());
  if (EFI_ERROR(status))
    return status;

  XmlNode* first = nullptr;
  XmlNode* current = nullptr;
  bool currentIsOpen = false;
  auto fail = [&](EFI_STATUS s) {
    FreeNodes(first);
    return s;
  };
  auto link = [&](XmlNode* node) {
    if (current == nullptr) {
      first = node;
    } else if (currentIsOpen) {
      node->Parent = current;
      current->FirstChild = current->LastChild = node;
    } else {
      node->Parent = current->Parent;
      node->PrevSibling = current;
      node->NextSibling = current->NextSibling;
      if (current->NextSibling != nullptr)
        current->NextSibling->PrevSibling = node;
      else if (current->Parent != nullptr)
        current->Parent->LastChild = node;
      current->NextSibling = node;
    }
    current = node;
  };
  auto newNode = [](UINT32 type) {
    auto* node = static_cast<XmlNode*>(AllocateZeroPool(sizeof(XmlNode)));
    if (node != nullptr)
      node->Type = type;
    return node;
  };

  XmlWalk walk(validated.Get());
  for (;;) {
    XmlWalk::Step step = walk.Next();
    switch (step.Kind) {
    case XmlToken::End:
      break;
    case XmlToken::Declaration: {
      XmlNode* node = newNode(XML_DECLARATION);
      if (node == nullptr)
        return fail(EFI_OUT_OF_RESOURCES);
      link(node);
      currentIsOpen = false;
      const Declaration& declaration = step.Decl;
      node->Name = CopySpan(declaration.version, false);
      if (declaration.hasEncoding)
        node->Encoding = CopySpan(declaration.encoding, false);
      if (declaration.hasStandalone)
        CopyMem(node->Standalone, declaration.standalone.begin,
                declaration.standalone.Length() * sizeof(CHAR16));
      if (node->Name == nullptr || (declaration.hasEncoding && node->Encoding == nullptr))
        return fail(EFI_OUT_OF_RESOURCES);
      continue;
    }
    case XmlToken::Comment:
    case XmlToken::Text: {
      XmlNode* node = newNode(step.Kind == XmlToken::Comment ? XML_COMMENT : XML_TEXT);
      if (node == nullptr)
        return fail(EFI_OUT_OF_RESOURCES);
      link(node);
      currentIsOpen = false;
      node->Name = CopySpan(step.Name, true);
      if (node->Name == nullptr)
        return fail(EFI_OUT_OF_RESOURCES);
      continue;
    }
    case XmlToken::StartTag: {
      XmlNode* node = newNode(XML_ELEMENT);
      if (node == nullptr)
        return fail(EFI_OUT_OF_RESOURCES);
      link(node);
      currentIsOpen = step.Open;
      node->Name = CopySpan(step.Name, false);
      if (node->Name == nullptr)
        return fail(EFI_OUT_OF_RESOURCES);
      status = ReadAttributes(step.At, node);
      if (EFI_ERROR(status))
        return fail(status);
      continue;
    }
    case XmlToken::EndTag: {
      if (current == nullptr)
        return fail(EFI_UNSUPPORTED);
      XmlNode* closing = currentIsOpen ? current : current->Parent;
      if (closing == nullptr || closing->Type != XML_ELEMENT || !SpanEquals(step.Name, closing->Name))
        return fail(EFI_UNSUPPORTED);
      current = closing;
      currentIsOpen = false;
      walk.Closed();
      continue;
    }
    case XmlToken::Stray:
      return fail(EFI_UNSUPPORTED);
    }
    break;
  }
  if (first == nullptr || currentIsOpen || current->Parent != nullptr)
    return fail(EFI_UNSUPPORTED);
  *Result = first;
  return EFI_SUCCESS;
}

EFI_STATUS XmlLoadFile(const CHAR16* Path, XmlNode** Document, BOOLEAN Repair) {
  if (Path == nullptr || Document == nullptr)
    return EFI_INVALID_PARAMETER;
  *Document = nullptr;
  void* data = nullptr;
  UINTN size = 0;
  EFI_STATUS status = FileIoReadFile(Path, &data, &size);
  if (EFI_ERROR(status)) {
    if (status != EFI_NOT_FOUND)
      DebugLogPrint(u"XmlLoadFile: FileIoReadFile failure '%s' - %r\r\n", Path, status);
    return status;
  }
  wc::PoolPtr<UINT8> bytes(static_cast<UINT8*>(data));
  wc::PoolPtr<CHAR16> text;
  status = FileData2XmlDocString(bytes.Get(), size, text.Receive());
  bytes.Reset();
  if (EFI_ERROR(status)) {
    DebugLogPrint(u"XmlLoadFile: FileData2XmlDocString failure - %r\r\n", status);
    return status;
  }
  status = XmlLoadString(text.Get(), Document, Repair);
  if (EFI_ERROR(status))
    DebugLogPrint(u"XmlLoadFile: XmlLoadString failure - %r\r\n", status);
  return status;
}

void XmlFreeDocument(XmlNode* Node) {
  if (Node == nullptr)
    return;
  while (Node->Parent != nullptr)
    Node = Node->Parent;
  while (Node->PrevSibling != nullptr)
    Node = Node->PrevSibling;
  FreeNodes(Node);
}

XmlNode* XmlNextNode(XmlNode* Node, UINTN Direction, XmlNode* Scope) {
  if (Node == nullptr)
    return nullptr;
  if (Direction == XML_SIBLINGS)
    return Node->NextSibling;
  if (Scope != nullptr && !InScope(Node, Scope))
    return nullptr;
  if (Direction == XML_PRE_ORDER) {
    if (Node->FirstChild != nullptr)
      return Node->FirstChild;
    for (XmlNode* n = Node; n != nullptr && n != Scope; n = n->Parent)
      if (n->NextSibling != nullptr)
        return n->NextSibling;
    return nullptr;
  }
  if (Direction == XML_POST_ORDER) {
    if (Node == Scope)
      return nullptr;
    if (Node->NextSibling != nullptr) {
      XmlNode* n = Node->NextSibling;
      while (n->FirstChild != nullptr)
        n = n->FirstChild;
      return n;
    }
    return Node->Parent;
  }
  return nullptr;
}

XmlNode* XmlFindElement(XmlNode* Start, INTN Count, UINTN Direction, XmlNode* Scope, const CHAR16* Name,
                        BOOLEAN NameIsPattern, const CHAR16* AttributeName, BOOLEAN AttributeNameIsPattern,
                        const CHAR16* AttributeValue, BOOLEAN AttributeValueIsPattern) {
  if (Start == nullptr || Direction > XML_POST_ORDER)
    return nullptr;
  auto matches = [&](const XmlNode* n) {
    if (n->Type != XML_ELEMENT || (Name != nullptr && !Same(n->Name, Name, NameIsPattern)))
      return false;
    if (AttributeName == nullptr && AttributeValue == nullptr)
      return true;
    for (UINTN i = 0; i < n->AttributeCount; ++i)
      if ((AttributeName == nullptr || Same(n->Attributes[i].Name, AttributeName, AttributeNameIsPattern)) &&
          (AttributeValue == nullptr ||
           Same(n->Attributes[i].Value, AttributeValue, AttributeValueIsPattern)))
        return true;
    return false;
  };
  XmlNode* last = nullptr;
  INTN seen = 0;
  for (XmlNode* n = Count == 0 ? Start : XmlNextNode(Start, Direction, Scope); n != nullptr;
       n = XmlNextNode(n, Direction, Scope)) {
    if (!matches(n))
      continue;
    if (Count == 0 || (Count > 0 && ++seen == Count))
      return n;
    last = n;
  }
  return Count < 0 ? last : nullptr;
}

const CHAR16* XmlGetAttributeValue(const XmlNode* Node, const CHAR16* Name, BOOLEAN CaseSensitive) {
  if (Node == nullptr || Name == nullptr || Node->Type != XML_ELEMENT)
    return nullptr;
  for (UINTN i = 0; i < Node->AttributeCount; ++i)
    if (CaseSensitive ? StrEq(Node->Attributes[i].Name, Name) : StriEq(Node->Attributes[i].Name, Name))
      return Node->Attributes[i].Value;
  return nullptr;
}
