#include "manager/Menu.h"

#include "base/Cxx.h"
#include "base/Memory.h"
#include "base/Print.h"
#include "base/String.h"
#include "manager/Advice.h"
#include "manager/Chooser.h"
#include "manager/Report.h"

namespace {

constexpr UINTN kColumns = 79;    // a line of an 80-column console, the last column left free
constexpr UINTN kLineChars = 512; // a screen line and its control text; 79 columns are shown
constexpr UINTN kNameColumn = 24; // where the tests' descriptions begin

// The menu's own texts: the message file's, in the manager's language, where it has them.
enum TextId : UINTN {
  kTitle = 200,
  kRunAll,
  kFinish,
  kRun,
  kBack,
  kHint,
  kPressKey,
  kSummary,
  kNoCalls,
  kNewValue,
  kNoTests,
};
const CHAR16* const kEnglish[] = {
    u"Wirecheck: choose a test",
    u"Run all tests",
    u"Finish",
    u"Run",
    u"Back",
    u"Choose with a digit or the arrow keys and Enter; ESC goes back.",
    u"Press a key to return to the menu.",
    u"Summary of this session",
    u"No test was run.",
    u"New value (Enter keeps it, ESC leaves it as it was)",
    u"The module's catalog could not be read: there is no test to choose.",
};

class TechnicianMenu {
public:
  TechnicianMenu(MenuHost& host, MenuCatalog& catalog, MenuSession& session)
      : host_(host), catalog_(catalog), session_(session) {}

  void Run() {
    if (catalog_.TestCount == 0)
      Line(u"FRONT %s\r\n", T(kNoTests));
    for (;;) {
      const Answer* a = nullptr;
      INT64 choice = host_.Script != nullptr ? ScriptedMain(&a) : ChooseOnMain();
      if (choice < 0 || UINTN(choice) == catalog_.TestCount + 2)
        break; // Finish
      if (UINTN(choice) == catalog_.TestCount + 1) {
        for (UINTN t = 0; t < catalog_.TestCount; ++t)
          RunTest(catalog_.Tests[t]);
        continue;
      }
      TestScreen(catalog_.Tests[choice - 1]);
    }
    Summary();
  }

private:
  const CHAR16* T(UINTN id) {
    const CHAR16* text = host_.Text != nullptr ? host_.Text(host_.Context, id) : nullptr;
    return text != nullptr ? text : kEnglish[id - kTitle];
  }

  // Shows a formatted text, every line of it within the screen's kColumns: a longer one is broken
  // at its last blank that fits and goes on in a line of its own, indented under the "FRONT" mark.
  template <class... A> void Line(const CHAR16* format, const A&... args) {
    CHAR16 text[kLineChars];
    SPrint(text, sizeof(text), format, args...);
    constexpr const CHAR16* kGoOn = u"FRONT   ";
    CHAR16 piece[kColumns + 4];
    UINTN column = 0;
    const CHAR16* rest = text;
    while (StrLen(rest) + column > kColumns) {
      const CHAR16* end = StrFindChar(rest, u'\n');
      if (end != nullptr && UINTN(end - rest) + column <= kColumns + 1) { // this line fits: show it as it is
        ShowPiece(piece, rest, UINTN(end - rest) + 1);
        rest = end + 1;
        column = 0;
        continue;
      }
      UINTN cut = kColumns - column;
      while (cut > 0 && rest[cut] != u' ')
        --cut;
      if (cut == 0)
        cut = kColumns - column; // one long word: cut where the screen ends
      ShowPiece(piece, rest, cut);
      host_.Show(host_.Context, u"\r\n", 0);
      host_.Show(host_.Context, kGoOn, 0);
      column = StrLen(kGoOn);
      rest += cut;
      while (*rest == u' ')
        ++rest;
    }
    host_.Show(host_.Context, rest, 0);
  }

  void ShowPiece(CHAR16 (&piece)[kColumns + 4], const CHAR16* from, UINTN chars) {
    UINTN n = wc::Min<UINTN>(chars, kColumns + 3);
    CopyMem(piece, from, n * sizeof(CHAR16));
    piece[n] = 0;
    host_.Show(host_.Context, piece, 0);
  }

  // An item line cut to the console's width.
  void Item(UINTN number, const CHAR16* text, bool highlighted) {
    CHAR16 line[kLineChars];
    SPrint(line, sizeof(line), u"FRONT item=%d %s", number, text);
    if (StrLen(line) > kColumns)
      StrCopy(line + kColumns - 3, sizeof(line) - (kColumns - 3) * sizeof(CHAR16), u"...");
    StrAppend(line, sizeof(line), u"\r\n");
    host_.Show(host_.Context, line, highlighted ? EFI_BLACK | 0x70 : 0); // reverse video for the highlight
  }

  // The scripted answer for the main screen: a test's position, all, finish.
  INT64 ScriptedMain(const Answer** a) {
    for (;;) {
      DrawMain(0);
      *a = TakeAnswer(host_.Script, AnswerKind::Technician);
      if (*a == nullptr) {
        Line(u"FRONT the script has no answer left: finish\r\n");
        return -1;
      }
      switch ((*a)->Step) {
      case MenuStep::Finish:
        return -1;
      case MenuStep::All:
        return INT64(catalog_.TestCount + 1);
      case MenuStep::Test:
        for (UINTN t = 0; t < catalog_.TestCount; ++t)
          if (StriEq(catalog_.Tests[t].Name, (*a)->Name)) {
            Line(u"FRONT test=%s\r\n", catalog_.Tests[t].Name);
            return INT64(t + 1);
          }
        Line(u"FRONT the catalog has no test %s\r\n", (*a)->Name);
        break;
      default:
        Line(u"FRONT a script line for a test's screen came on the list of tests: left out\r\n");
        break;
      }
    }
  }

  void DrawMain(UINTN highlight) {
    Line(u"FRONT screen=tests title=\"%s\"\r\n", T(kTitle));
    CHAR16 text[kLineChars];
    for (UINTN t = 0; t < catalog_.TestCount; ++t) {
      // The name in a column of its own (the print routine pads on the left only).
      SPrint(text, sizeof(text), u"%s ", catalog_.Tests[t].Name);
      while (StrLen(text) < kNameColumn)
        StrAppend(text, sizeof(text), u" ");
      StrAppend(text, sizeof(text), catalog_.Tests[t].Description);
      Item(t + 1, text, highlight == t + 1);
    }
    Footer(catalog_.Omitted, u"tests", u"they are not offered", catalog_.TestCount, kRunAll, kFinish,
           highlight);
  }

  // The end of a screen: what the catalog has past the screen's room, the two last items, the hint.
  void Footer(UINTN omitted, const CHAR16* what, const CHAR16* then, UINTN count, UINTN first, UINTN second,
              UINTN highlight) {
    if (omitted != 0)
      Line(u"FRONT %d more %s than this screen holds; %s\r\n", omitted, what, then);
    Item(count + 1, T(first), highlight == count + 1);
    Item(count + 2, T(second), highlight == count + 2);
    Line(u"FRONT hint=%s\r\n", T(kHint));
  }

  INT64 ChooseOnMain() {
    return Choose(catalog_.TestCount + 2, [this](UINTN highlight) { DrawMain(highlight); });
  }

  // The keyboard's choice, on a screen cleared and drawn anew when the highlight moves.
  template <class Draw> INT64 Choose(UINTN count, Draw draw) {
    host_.Drain(host_.Context); // before the screen: a key seen after it is meant for it
    INT64 chosen = ChooseItem(
        count, [this] { return host_.ReadKey(host_.Context); },
        [&](UINTN highlight) {
          host_.Clear(host_.Context);
          draw(highlight);
        },
        [&](UINTN n) { Line(u"FRONT no item %d: choose 1 to %d\r\n", n, count); });
    if (chosen > 0)
      Line(u"FRONT answer=%d\r\n", chosen);
    return chosen;
  }

  void DrawTest(const MenuTest& test, UINTN highlight) {
    Line(u"FRONT screen=test name=%s\r\n", test.Name);
    Line(u"FRONT %s\r\n", test.Description);
    CHAR16 text[kLineChars];
    for (UINTN i = 0; i < test.ArgumentCount; ++i) {
      const MenuArgument& a = test.Arguments[i];
      CHAR16 limits[160];
      DescribeMenuLimits(a, limits, sizeof(limits));
      SPrint(text, sizeof(text), u"%s=%s (%s%s%s, default %s)", a.Name, a.Value,
             a.Type[0] ? a.Type : u"switch", limits[0] ? u", " : u"", limits,
             a.Default != nullptr ? a.Default : u"none");
      Item(i + 1, text, highlight == i + 1);
    }
    Footer(test.Omitted, u"arguments", u"they keep their defaults", test.ArgumentCount, kRun, kBack,
           highlight);
  }

  void TestScreen(MenuTest& test) {
    for (;;) {
      if (host_.Script != nullptr) {
        DrawTest(test, 0);
        const Answer* a = TakeAnswer(host_.Script, AnswerKind::Technician);
        if (a == nullptr || a->Step == MenuStep::Back)
          return;
        if (a->Step == MenuStep::Run) {
          RunTest(test);
          return;
        }
        if (a->Step == MenuStep::Set) {
          MenuArgument* arg = Find(test, a->Name);
          if (arg == nullptr)
            Line(u"FRONT refused: %s has no argument %s\r\n", test.Name, a->Name);
          else
            Set(*arg, a->Text);
          continue;
        }
        Line(u"FRONT a script line for the list of tests came on a test's screen: left out\r\n");
        continue;
      }
      INT64 choice = Choose(test.ArgumentCount + 2, [&](UINTN highlight) { DrawTest(test, highlight); });
      if (choice < 0 || UINTN(choice) == test.ArgumentCount + 2)
        return;
      if (UINTN(choice) == test.ArgumentCount + 1) {
        RunTest(test);
        return;
      }
      Edit(test.Arguments[choice - 1]);
    }
  }

  static MenuArgument* Find(MenuTest& test, const CHAR16* name) {
    for (UINTN i = 0; i < test.ArgumentCount; ++i)
      if (StriEq(test.Arguments[i].Name, name))
        return &test.Arguments[i];
    return nullptr;
  }

  // A new value, checked against the catalog; a refused one says why and the old one stays.
  void Set(MenuArgument& arg, const CHAR16* value) {
    CHAR16 why[kLineChars];
    if (!CheckMenuValue(arg, value, why, sizeof(why))) {
      Line(u"FRONT refused: %s; %s stays %s\r\n", why, arg.Name, arg.Value);
      return;
    }
    StrCopy(arg.Value, sizeof(arg.Value), value);
    arg.Edited = true;
    Line(u"FRONT set %s=%s\r\n", arg.Name, arg.Value);
  }

  // The keyboard's new value: printable characters, Backspace; Enter takes it, ESC leaves the old one.
  void Edit(MenuArgument& arg) {
    CHAR16 limits[160];
    DescribeMenuLimits(arg, limits, sizeof(limits));
    Line(u"FRONT %s: %s%s%s\r\nFRONT %s=", T(kNewValue), arg.Name, limits[0] ? u" " : u"", limits, arg.Name);
    CHAR16 value[kMenuValueChars] = {};
    UINTN n = 0;
    for (;;) {
      EFI_INPUT_KEY key = host_.ReadKey(host_.Context);
      if (key.ScanCode == SCAN_ESC) {
        Line(u"\r\nFRONT %s stays %s\r\n", arg.Name, arg.Value);
        return;
      }
      if (key.UnicodeChar == u'\r')
        break;
      if (key.UnicodeChar == u'\b' && n > 0) {
        value[--n] = 0;
        Line(u"\b \b");
      } else if (key.UnicodeChar >= u' ' && key.UnicodeChar < 0x7F && n + 1 < kMenuValueChars) {
        value[n++] = key.UnicodeChar;
        value[n] = 0;
        CHAR16 echo[2] = {key.UnicodeChar, 0};
        host_.Show(host_.Context, echo, 0);
      }
    }
    Line(u"\r\n");
    if (n == 0)
      return; // Enter alone keeps the value
    Set(arg, value);
  }

  void RunTest(MenuTest& test) {
    if (session_.CallCount == kMenuMaxCalls) {
      Line(u"FRONT this session has made %d calls, the most it records: finish it to run more\r\n",
           kMenuMaxCalls);
      return;
    }
    // A test that needs a value nobody gave (downloadtest's -url) is not called: the module would
    // only refuse it.
    for (UINTN i = 0; i < test.ArgumentCount; ++i)
      if (test.Arguments[i].Required && test.Arguments[i].Value[0] == 0) {
        Line(u"FRONT not run: %s needs %s; set it on the test's screen\r\n", test.Name,
             test.Arguments[i].Name);
        return;
      }
    MenuCall& call = session_.Calls[session_.CallCount];
    if (!BuildMenuOptions(test, call.Options, sizeof(call.Options))) {
      Line(u"FRONT refused: the option string of %s is longer than %d characters\r\n", test.Name,
           sizeof(call.Options) / sizeof(CHAR16) - 1);
      return;
    }
    ++session_.CallCount;
    host_.Run(host_.Context, call.Options, &call);
    ResultScreen(test, call);
  }

  void ResultScreen(const MenuTest& test, const MenuCall& call) {
    Line(u"FRONT result test=%s result=%s error=0x%x status=%r meaning=\"%s\" options='%s'\r\n", test.Name,
         ResultName(call.Result), call.Error, call.Status, ReportMeaning(call.Error), call.Options);
    CHAR16 advice[kLineChars];
    AdviceText(call.Error, advice, sizeof(advice));
    if (advice[0] != 0)
      Line(u"FRONT check=%s\r\n", advice);
    if (host_.Script == nullptr) {
      host_.Drain(host_.Context);
      Line(u"FRONT hint=%s\r\n", T(kPressKey));
      host_.ReadKey(host_.Context);
    }
  }

  void Summary() {
    if (host_.Script == nullptr)
      host_.Clear(host_.Context);
    Line(u"FRONT summary calls=%d title=\"%s\"\r\n", session_.CallCount, T(kSummary));
    if (session_.CallCount == 0)
      Line(u"FRONT %s\r\n", T(kNoCalls));
    for (UINTN i = 0; i < session_.CallCount; ++i) {
      const MenuCall& c = session_.Calls[i];
      Line(u"FRONT call=%d result=%s error=0x%x meaning=\"%s\" options='%s'\r\n", i + 1, ResultName(c.Result),
           c.Error, ReportMeaning(c.Error), c.Options);
    }
  }

  MenuHost& host_;
  MenuCatalog& catalog_;
  MenuSession& session_;
};

} // namespace

void RunTechnicianMenu(MenuHost& Host, MenuCatalog& Catalog, MenuSession& Session) {
  TechnicianMenu(Host, Catalog, Session).Run();
}
