#include "manager/Script.h"
#include "base/Memory.h"
#include "base/String.h"

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
  Script->Used[0] = Script->Used[1] = Script->Used[2] = Script->Used[3] = 0;
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
      if (StriEq(arg, u"cancel"))
        a.Value = -1;
      else
        ok = ParseSigned(arg, &a.Value) && a.Value >= 1;
    } else if (StriEq(line, u"front")) {
      a.Kind = AnswerKind::Technician;
      CHAR16* rest = SplitWord(arg);
      static constexpr struct {
        const CHAR16* word;
        MenuStep step;
        UINTN words; // after the step's own word
      } kSteps[] = {{u"test", MenuStep::Test, 1}, {u"set", MenuStep::Set, 2},
                    {u"run", MenuStep::Run, 0},   {u"back", MenuStep::Back, 0},
                    {u"all", MenuStep::All, 0},   {u"finish", MenuStep::Finish, 0}};
      ok = false;
      for (const auto& step : kSteps) {
        if (!StriEq(arg, step.word))
          continue;
        a.Step = step.step;
        if (step.words == 0) {
          ok = *rest == 0;
        } else {
          a.Name = rest;
          CHAR16* value = SplitWord(rest);
          a.Text = value; // "set": the value is the rest of the line, blanks and all
          ok = *a.Name != 0 && (step.words == 1 ? *value == 0 : true);
        }
      }
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
