#include "manager/Script.h"
#include "base/Memory.h"
#include "base/String.h"

CHAR16* DecodeText(const UINT8* Data, UINTN Size) {
  if (Data == nullptr)
    Size = 0;
  if (Size >= 2 && Data[0] == 0xFF && Data[1] == 0xFE) {
    UINTN chars = (Size - 2) / 2;
    auto* text = static_cast<CHAR16*>(AllocatePool((chars + 1) * sizeof(CHAR16)));
    if (text == nullptr)
      return nullptr;
    for (UINTN i = 0; i < chars; ++i)
      text[i] = CHAR16(Data[2 + 2 * i] | (Data[3 + 2 * i] << 8));
    text[chars] = 0;
    return text;
  }
  UINTN i = (Size >= 3 && Data[0] == 0xEF && Data[1] == 0xBB && Data[2] == 0xBF) ? 3 : 0;
  auto* text = static_cast<CHAR16*>(AllocatePool((Size - i + 1) * sizeof(CHAR16)));
  if (text == nullptr)
    return nullptr;
  UINTN n = 0;
  while (i < Size) {
    UINT8 b = Data[i];
    UINT32 cp;
    UINTN extra;
    if (b < 0x80) {
      cp = b;
      extra = 0;
    } else if ((b & 0xE0) == 0xC0) {
      cp = b & 0x1F;
      extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      cp = b & 0x0F;
      extra = 2;
    } else {
      cp = u'?'; // outside UCS-2, or not UTF-8 at all
      extra = (b & 0xF8) == 0xF0 ? 3 : 0;
    }
    ++i;
    for (UINTN k = 0; k < extra; ++k, ++i) {
      if (i >= Size || (Data[i] & 0xC0) != 0x80) {
        cp = u'?';
        break;
      }
      cp = (cp << 6) | (Data[i] & 0x3F);
    }
    text[n++] = cp <= 0xFFFF && extra < 3 ? CHAR16(cp) : u'?';
  }
  text[n] = 0;
  return text;
}

CHAR16* NextLine(CHAR16** Cursor) {
  if (Cursor == nullptr || *Cursor == nullptr || **Cursor == 0)
    return nullptr;
  CHAR16* line = *Cursor;
  CHAR16* p = line;
  while (*p != 0 && *p != u'\n')
    ++p;
  CHAR16* next = *p == u'\n' ? p + 1 : p;
  *p = 0;
  if (p > line && p[-1] == u'\r')
    p[-1] = 0;
  *Cursor = next;
  return line;
}

namespace {
CHAR16* SkipBlanks(CHAR16* p) {
  while (*p == u' ' || *p == u'\t')
    ++p;
  return p;
}

// Splits "word rest" in place; returns the rest (blanks skipped).
CHAR16* SplitWord(CHAR16* p) {
  while (*p != 0 && *p != u' ' && *p != u'\t')
    ++p;
  if (*p != 0)
    *p++ = 0;
  return SkipBlanks(p);
}

bool ParseSigned(const CHAR16* text, INT64* value) {
  bool negative = *text == u'-';
  if (negative)
    ++text;
  if (*text == 0)
    return false;
  INT64 v = 0;
  for (; *text != 0; ++text) {
    if (*text < u'0' || *text > u'9' || v > 100000000)
      return false;
    v = v * 10 + (*text - u'0');
  }
  *value = negative ? -v : v;
  return true;
}
} // namespace

BOOLEAN ParseAnswerScript(CHAR16* Text, AnswerScript* Script, UINTN* BadLine) {
  Script->Count = 0;
  Script->Used[0] = Script->Used[1] = Script->Used[2] = 0;
  CHAR16* cursor = Text;
  UINTN number = 0;
  while (CHAR16* line = NextLine(&cursor)) {
    ++number;
    line = SkipBlanks(line);
    if (*line == 0 || *line == u'#')
      continue;
    CHAR16* arg = SplitWord(line);
    // Trailing blanks do not belong to the argument.
    for (UINTN n = StrLen(arg); n > 0 && (arg[n - 1] == u' ' || arg[n - 1] == u'\t'); --n)
      arg[n - 1] = 0;
    Answer a{};
    bool ok = true;
    if (StriEq(line, u"prompt")) {
      a.Kind = AnswerKind::Prompt;
      ok = StriEq(arg, u"ok") || StriEq(arg, u"abort");
      a.Value = StriEq(arg, u"abort") ? 1 : 0;
    } else if (StriEq(line, u"progress")) {
      a.Kind = AnswerKind::Progress;
      ok = StriEq(arg, u"none") || StriEq(arg, u"cancel") || StriEq(arg, u"fail");
      a.Value = StriEq(arg, u"cancel") ? 2 : StriEq(arg, u"fail") ? 3 : 0;
    } else if (StriEq(line, u"menu")) {
      a.Kind = AnswerKind::Menu;
      ok = ParseSigned(arg, &a.Value);
    } else {
      ok = false;
    }
    if (!ok || Script->Count >= kMaxAnswers) {
      if (BadLine != nullptr)
        *BadLine = number;
      return FALSE;
    }
    Script->Items[Script->Count++] = a;
  }
  return TRUE;
}

const Answer* TakeAnswer(AnswerScript* Script, AnswerKind Kind) {
  if (Script == nullptr)
    return nullptr;
  UINTN& used = Script->Used[UINTN(Kind)];
  UINTN seen = 0;
  for (UINTN i = 0; i < Script->Count; ++i) {
    if (Script->Items[i].Kind != Kind)
      continue;
    if (seen++ == used) {
      ++used;
      return &Script->Items[i];
    }
  }
  return nullptr;
}
