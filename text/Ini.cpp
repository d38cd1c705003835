#include "text/Ini.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "base/String.h"
#include "base/TextDecode.h"
#include "support/FileIo.h"
#include "text/Regex.h"

namespace {

constexpr UINT32 kOwnsSection = 1, kOwnsKey = 2, kOwnsValue = 4, kOwnsComment = 8;
constexpr UINT64 kMarked = ~UINT64(0);
constexpr UINTN kMatchErrorLine = 1403;
constexpr UINTN kConsoleLineBytes = 4096;

bool IsBlank(CHAR16 c) {
  return c == u' ' || c == u'\t';
}
bool IsLineEnd(CHAR16 c) {
  return c == u'\r' || c == u'\n' || c == 0;
}

void FreeLine(INI_LINE* line) {
  if (line->OwnedParts & kOwnsSection)
    FreePool(line->Section);
  if (line->OwnedParts & kOwnsKey)
    FreePool(line->Key);
  if (line->OwnedParts & kOwnsValue)
    FreePool(line->Value);
  if (line->OwnedParts & kOwnsComment)
    FreePool(line->Comment);
  FreePool(line);
}

// Moves past one line end: CR LF, LF CR, a lone LF, or a lone CR (which would otherwise stall).
CHAR16* SkipLineEnd(CHAR16* p) {
  if ((p[0] == u'\r' && p[1] == u'\n') || (p[0] == u'\n' && p[1] == u'\r'))
    return p + 2;
  if (p[0] == u'\r' || p[0] == u'\n')
    return p + 1;
  return p;
}

// Splits the text into lines in place.
EFI_STATUS Parse(INI_DOCUMENT* doc) {
  CHAR16* p = doc->Text;
  INI_LINE* previous = nullptr;
  INI_LINE* lastSection = nullptr;
  while (*p != 0) {
    auto* line = static_cast<INI_LINE*>(AllocateZeroPool(sizeof(INI_LINE)));
    if (line == nullptr)
      return EFI_OUT_OF_RESOURCES;
    line->PreviousLine = previous;
    if (previous != nullptr)
      previous->NextLine = line;
    else
      doc->FirstLine = line;
    previous = line;

    CHAR16* start = p;
    while (IsBlank(*p))
      ++p;
    if (*p == u'[') {
      CHAR16* name = ++p;
      while (*p != u']' && !IsLineEnd(*p))
        ++p;
      if (*p != u']')
        return EFI_UNSUPPORTED;
      *p++ = 0;
      line->Section = name;
      while (IsBlank(*p))
        ++p;
      if (*p != u';' && !IsLineEnd(*p))
        return EFI_UNSUPPORTED;
      if (lastSection != nullptr)
        lastSection->NextSection = line;
      lastSection = line;
    } else {
      line->OwnerSection = lastSection;
      if (*p != u';' && !IsLineEnd(*p)) {
        line->Key = start;
        p = start;
        while (*p != u'=' && *p != u';' && !IsLineEnd(*p))
          ++p;
        if (*p == u'=') {
          *p++ = 0;
          line->Value = p;
          while (*p != u';' && !IsLineEnd(*p))
            ++p;
        }
      }
    }
    // A comment runs to the line end; the part before it ends where it starts.
    CHAR16 at = *p;
    *p = 0;
    if (at == u';') {
      line->Comment = ++p;
      while (!IsLineEnd(*p))
        ++p;
      at = *p;
      *p = 0;
    }
    if (at == 0)
      break;
    *p = at; // put the line end back for the line-end rule, then cut there
    CHAR16* next = SkipLineEnd(p);
    *p = 0;
    p = next;
  }
  return EFI_SUCCESS;
}

// A prepared copy of a part or a pattern: trimmed and stripped of quotes as the flags say.
CHAR16* Prepared(const CHAR16* text, UINT32 flags, bool isValue) {
  const CHAR16* begin = text;
  const CHAR16* end = text + StrLen(text);
  bool strip = isValue && (flags & INI_STRIP_QUOTES) != 0;
  if ((flags & INI_TRIM) != 0 || strip) {
    while (begin < end && IsBlank(*begin))
      ++begin;
    while (end > begin && IsBlank(end[-1]))
      --end;
  }
  if (strip) {
    if (begin < end && *begin == u'"')
      ++begin;
    if (end > begin && end[-1] == u'"')
      --end;
  }
  UINTN length = UINTN(end - begin);
  auto* copy = static_cast<CHAR16*>(AllocatePool((length + 1) * sizeof(CHAR16)));
  if (copy != nullptr) {
    CopyMem(copy, begin, length * sizeof(CHAR16));
    copy[length] = 0;
  }
  return copy;
}

bool PartMatches(const CHAR16* part, const CHAR16* pattern, UINT32 flags, bool isValue) {
  if (part == nullptr || pattern == nullptr || part[0] == 0 || pattern[0] == 0)
    return false;
  wc::PoolPtr<CHAR16> text(Prepared(part, flags, isValue));
  wc::PoolPtr<CHAR16> regex(Prepared(pattern, flags, isValue));
  if (!text || !regex)
    return false;
  BOOLEAN matched = FALSE;
  EFI_STATUS status = MatchingStringAndRegularExpression(
      text.Get(), regex.Get(), (flags & INI_CASE_INSENSITIVE) != 0 ? FALSE : TRUE, &matched);
  if (EFI_ERROR(status)) {
    if (gST != nullptr && gST->ConOut != nullptr) {
      CHAR16 line[kConsoleLineBytes / sizeof(CHAR16)];
      SPrint(line, sizeof(line), u"AT_LINE_%d: MatchingStringAndRegularExpression() failed. (%r)\r\n",
             kMatchErrorLine, status);
      gST->ConOut->OutputString(gST->ConOut, line);
    }
    return false;
  }
  return matched != FALSE;
}

bool LineMatches(const INI_LINE* line, const CHAR16* section, const CHAR16* key, const CHAR16* value,
                 UINT32 flags) {
  if (line->Section != nullptr) {
    if (section != nullptr)
      return PartMatches(line->Section, section, flags, false);
    return key == nullptr && value == nullptr;
  }
  if (section != nullptr &&
      (line->OwnerSection == nullptr || !PartMatches(line->OwnerSection->Section, section, flags, false)))
    return false;
  if (key != nullptr && !PartMatches(line->Key, key, flags, false))
    return false;
  if (value != nullptr && !PartMatches(line->Value, value, flags, true))
    return false;
  return true;
}

// The printed form of a line, as a new pool string.
CHAR16* PrintLine(const INI_LINE* line, UINT32 flags) {
  wc::PoolPtr<CHAR16> section(line->Section ? Prepared(line->Section, flags, false) : nullptr);
  wc::PoolPtr<CHAR16> key(line->Key ? Prepared(line->Key, flags, false) : nullptr);
  wc::PoolPtr<CHAR16> value(line->Value ? Prepared(line->Value, flags, true) : nullptr);
  wc::PoolPtr<CHAR16> comment(line->Comment ? Prepared(line->Comment, flags, false) : nullptr);
  if ((line->Section && !section) || (line->Key && !key) || (line->Value && !value) ||
      (line->Comment && !comment))
    return nullptr;
  UINTN bytes =
      (StrLen(section.Get()) + StrLen(key.Get()) + StrLen(value.Get()) + StrLen(comment.Get()) + 8) *
      sizeof(CHAR16);
  auto* out = static_cast<CHAR16*>(AllocatePool(bytes));
  if (out == nullptr)
    return nullptr;
  if (flags & INI_SECTIONS_ONLY) {
    SPrint(out, bytes, u"%s", section.Get());
  } else if (flags & INI_VALUES_ONLY) {
    SPrint(out, bytes, u"%s", value.Get());
  } else {
    UINTN used = 0;
    if (section)
      used = SPrint(out, bytes, u"[%s]", section.Get());
    else if (key && value)
      used = SPrint(out, bytes, u"%s=%s", key.Get(), value.Get());
    else if (key)
      used = SPrint(out, bytes, u"%s", key.Get());
    else
      out[0] = 0;
    if (comment && (flags & INI_NO_COMMENT) == 0)
      SPrint(out + used, bytes - used * sizeof(CHAR16), section ? u" ;%s" : u";%s", comment.Get());
  }
  return out;
}

bool Excluded(UINT32 flags) {
  auto both = [&](UINT32 a, UINT32 b) { return (flags & a) != 0 && (flags & b) != 0; };
  return both(INI_SECTIONS_ONLY, INI_NO_SECTIONS) || both(INI_WITH_SECTION, INI_NO_SECTIONS) ||
         both(INI_SECTIONS_ONLY, INI_VALUES_ONLY) || both(INI_WITH_SECTION, INI_VALUES_ONLY);
}

} // namespace

EFI_STATUS IniLoad(const UINT8* Data, UINTN Size, UINTN Encoding, INI_DOCUMENT** Document) {
  if (Document == nullptr || Encoding > INI_ENCODING_UCS2 || (Data == nullptr && Size != 0))
    return EFI_INVALID_PARAMETER;
  *Document = nullptr;
  bool mark = Size >= 2 && Data[0] == 0xFF && Data[1] == 0xFE;
  if (Encoding == INI_ENCODING_DETECT)
    Encoding = mark ? INI_ENCODING_UCS2 : INI_ENCODING_8BIT;

  IniDocumentOwner doc(static_cast<INI_DOCUMENT*>(AllocateZeroPool(sizeof(INI_DOCUMENT))));
  if (!doc)
    return EFI_OUT_OF_RESOURCES;
  doc->Encoding = Encoding;
  // With room for the CR LF that an unterminated last line receives.
  UINTN chars = 0;
  doc->Text = DecodeText(Data, Size, Encoding == INI_ENCODING_UCS2 ? TextEncoding::Ucs2 : TextEncoding::Bytes,
                         TextEncoding::Bytes, &chars, 2);
  if (doc->Text == nullptr)
    return EFI_OUT_OF_RESOURCES;
  // The text ends at its first NUL, and always ends in CR LF.
  UINTN length = StrnLen(doc->Text, chars);
  if (length < 2 || doc->Text[length - 2] != u'\r' || doc->Text[length - 1] != u'\n') {
    doc->Text[length++] = u'\r';
    doc->Text[length++] = u'\n';
  }
  doc->Text[length] = 0;
  doc->TextSize = length * sizeof(CHAR16);
  EFI_STATUS status = Parse(doc.Get());
  if (EFI_ERROR(status))
    return status;
  *Document = doc.Release();
  return EFI_SUCCESS;
}

EFI_STATUS IniOpen(const CHAR16* Path, UINTN Encoding, INI_DOCUMENT** Document) {
  if (Path == nullptr || Encoding > INI_ENCODING_UCS2 || Document == nullptr)
    return EFI_INVALID_PARAMETER;
  CHAR16 path[kIniPathChars];
  SPrint(path, sizeof(path), u"%s", Path);
  FileIoResolvePath(path, sizeof(path));
  void* data = nullptr;
  UINTN size = 0;
  EFI_STATUS status = FileIoReadFile(path, &data, &size);
  if (EFI_ERROR(status))
    return status;
  wc::PoolPtr<UINT8> bytes(static_cast<UINT8*>(data));
  status = IniLoad(bytes.Get(), size, Encoding, Document);
  if (!EFI_ERROR(status))
    StrCopy((*Document)->FilePath, sizeof((*Document)->FilePath), path);
  return status;
}

EFI_STATUS IniQuery(INI_DOCUMENT* Document, const CHAR16* SectionPattern, const CHAR16* KeyPattern,
                    const CHAR16* ValuePattern, UINT32 Flags, UINTN* Count, CHAR16*** Strings) {
  if (Document == nullptr || Document->FirstLine == nullptr || Count == nullptr || Strings == nullptr ||
      Excluded(Flags))
    return EFI_INVALID_PARAMETER;
  *Count = 0;
  *Strings = nullptr;
  UINTN marked = 0;
  for (INI_LINE* line = Document->FirstLine; line != nullptr; line = line->NextLine) {
    line->QueryMark = 0;
    if (!LineMatches(line, SectionPattern, KeyPattern, ValuePattern, Flags))
      continue;
    line->QueryMark = kMarked;
    ++marked;
    if ((Flags & INI_WITH_SECTION) != 0 && line->OwnerSection != nullptr &&
        line->OwnerSection->QueryMark == 0) {
      line->OwnerSection->QueryMark = kMarked;
      ++marked;
    }
  }
  if (marked == 0)
    return EFI_SUCCESS;
  auto* strings = static_cast<CHAR16**>(AllocateZeroPool(marked * sizeof(CHAR16*)));
  if (strings == nullptr)
    return EFI_OUT_OF_RESOURCES;
  UINTN stored = 0;
  for (INI_LINE* line = Document->FirstLine; line != nullptr && stored < marked; line = line->NextLine) {
    if (line->QueryMark == 0 || ((Flags & INI_SECTIONS_ONLY) && line->Section == nullptr) ||
        ((Flags & INI_NO_SECTIONS) && line->Section != nullptr) ||
        ((Flags & INI_VALUES_ONLY) && line->Value == nullptr))
      continue;
    CHAR16* printed = PrintLine(line, Flags);
    if (printed == nullptr) {
      IniFreeStrings(stored, strings);
      return EFI_OUT_OF_RESOURCES;
    }
    if ((Flags & INI_SKIP_EMPTY) && printed[0] == 0) {
      FreePool(printed);
      continue;
    }
    strings[stored++] = printed;
  }
  if (stored == 0) {
    FreePool(strings);
    return EFI_SUCCESS;
  }
  *Count = stored;
  *Strings = strings;
  return EFI_SUCCESS;
}

void IniFreeStrings(UINTN Count, CHAR16** Strings) {
  if (Strings == nullptr)
    return;
  for (UINTN i = 0; i < Count; ++i)
    FreePool(Strings[i]);
  FreePool(Strings);
}

void IniClose(INI_DOCUMENT* Document) {
  if (Document == nullptr)
    return;
  for (INI_LINE* line = Document->FirstLine; line != nullptr;) {
    INI_LINE* next = line->NextLine;
    FreeLine(line);
    line = next;
  }
  FreePool(Document->Text);
  FreePool(Document);
}
