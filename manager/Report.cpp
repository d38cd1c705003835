#include "manager/Report.h"

#include "base/Cxx.h"
#include "base/Memory.h"
#include "base/Print.h"
#include "base/String.h"
#include "frame/Module.h"
#include "report/Results.h"

namespace {

// A text that grows in pool memory; once an allocation fails it stays failed and Take gives null.
class TextBuilder {
public:
  ~TextBuilder() { FreePool(text_); }

  void Append(const CHAR16* s) {
    for (; s != nullptr && *s != 0; ++s)
      Put(*s);
  }
  template <class... A> void Format(const CHAR16* format, const A&... args) {
    CHAR16 piece[160];
    SPrint(piece, sizeof(piece), format, args...);
    Append(piece);
  }
  // JSON string content: quotes, backslashes and control characters escaped.
  void Json(const CHAR16* s) {
    for (; s != nullptr && *s != 0; ++s)
      JsonChar(*s);
  }
  // LF-separated lines as JSON strings, one per line, separated by commas.
  void JsonLines(const CHAR16* s) {
    Put(u'"');
    for (; s != nullptr && *s != 0; ++s) {
      if (*s == u'\n')
        Append(u"\", \"");
      else
        JsonChar(*s);
    }
    Put(u'"');
  }
  // XML attribute or element content: the five markup characters as entities; control characters
  // that XML does not allow become '?'.
  void Xml(const CHAR16* s) {
    struct Entity {
      CHAR16 Char;
      const CHAR16* Text;
    };
    static constexpr Entity kEntities[] = {
        {u'&', u"&amp;"}, {u'<', u"&lt;"}, {u'>', u"&gt;"}, {u'"', u"&quot;"}, {u'\'', u"&apos;"}};
    for (; s != nullptr && *s != 0; ++s) {
      const CHAR16* entity = nullptr;
      for (const Entity& e : kEntities)
        if (e.Char == *s)
          entity = e.Text;
      if (entity != nullptr)
        Append(entity);
      else
        Put(*s < 0x20 && *s != u'\n' && *s != u'\t' ? u'?' : *s);
    }
  }
  CHAR16* Take() {
    if (failed_)
      return nullptr;
    CHAR16* t = text_;
    text_ = nullptr;
    return t;
  }

private:
  void JsonChar(CHAR16 c) {
    if (c == u'"' || c == u'\\') {
      Put(u'\\');
      Put(c);
    } else if (c < 0x20) {
      Format(u"\\u%04x", UINTN(c));
    } else {
      Put(c);
    }
  }
  void Put(CHAR16 c) {
    if (failed_)
      return;
    if (length_ + 1 >= capacity_) {
      UINTN grown = capacity_ == 0 ? 1024 : capacity_ * 2;
      auto* bigger = static_cast<CHAR16*>(AllocatePool(grown * sizeof(CHAR16)));
      if (bigger == nullptr) {
        failed_ = true;
        return;
      }
      if (text_ != nullptr)
        CopyMem(bigger, text_, length_ * sizeof(CHAR16));
      FreePool(text_);
      text_ = bigger;
      capacity_ = grown;
    }
    text_[length_++] = c;
    text_[length_] = 0;
  }

  CHAR16* text_ = nullptr;
  UINTN length_ = 0;
  UINTN capacity_ = 0;
  bool failed_ = false;
};

// The value of the call's -test= option, or "module" for a call that names no test.
void AppendTestName(TextBuilder& out, const CHAR16* options, bool json) {
  for (const CHAR16* p = options; p != nullptr && *p != 0; ++p) {
    if ((p == options || p[-1] == u' ') && StrniCmp(p, u"-test=", 6) == 0) {
      CHAR16 name[64];
      UINTN n = 0;
      for (p += 6; *p != 0 && *p != u' ' && n + 1 < wc::ArrayCount(name); ++p)
        name[n++] = *p;
      name[n] = 0;
      json ? out.Json(name) : out.Xml(name);
      return;
    }
  }
  out.Append(u"module");
}

bool IsSkipped(UINTN result) {
  return result == TEST_RESULT_CANCELLED || result == TEST_RESULT_SKIPPED ||
         result == TEST_RESULT_NOT_AVAILABLE || result == TEST_RESULT_NOT_INSTALLED;
}

// How a dashboard counts a call: passed, skipped (the test did not run), an error (no result at
// all: the status says why) or a failure.
enum class CaseKind { Passed, Skipped, Error, Failure };

CaseKind KindOf(UINTN result) {
  if (result == TEST_RESULT_PASSED)
    return CaseKind::Passed;
  if (IsSkipped(result))
    return CaseKind::Skipped;
  return result == TEST_RESULT_IN_PROGRESS ? CaseKind::Error : CaseKind::Failure;
}

void AppendSeconds(TextBuilder& out, UINT64 milliseconds) {
  out.Format(u"%ld.%ld", milliseconds / 1000, (milliseconds % 1000) / 100);
}

} // namespace

const CHAR16* ResultName(UINTN result) {
  static constexpr const CHAR16* kNames[] = {u"InProgress",   u"Passed",  u"Cancelled",
                                             u"Failed",       u"Skipped", u"NotAvailable",
                                             u"NotInstalled", u"Warning", u"SoftwareError"};
  return result < wc::ArrayCount(kNames) ? kNames[result] : u"Unknown";
}

const CHAR16* ReportMeaning(UINTN Error) {
  const CHAR16* meaning = ErrorMeaningOf(Error);
  return meaning != nullptr ? meaning : u"unknown error code";
}

void ReportLogTail::Add(const CHAR16* Text) {
  while (Text != nullptr && *Text != 0) {
    CHAR16* line = Lines[Count % kReportLogLines];
    UINTN n = 0;
    for (; *Text != 0 && *Text != u'\n'; ++Text)
      if (*Text != u'\r' && n + 1 < kReportLineChars)
        line[n++] = *Text;
    line[n] = 0;
    if (*Text == u'\n')
      ++Text;
    if (n != 0)
      ++Count;
  }
}

CHAR16* JoinLogTail(const ReportLogTail& Tail) {
  TextBuilder out;
  UINTN kept = Tail.Count < kReportLogLines ? Tail.Count : kReportLogLines;
  for (UINTN i = Tail.Count - kept; i < Tail.Count; ++i) {
    out.Append(Tail.Lines[i % kReportLogLines]);
    if (i + 1 < Tail.Count)
      out.Append(u"\n");
  }
  return kept == 0 ? nullptr : out.Take();
}

CHAR16* BuildJunitReport(const ReportCase* Cases, UINTN Count, const ReportMachine* Machine) {
  UINTN failures = 0, errors = 0, skipped = 0;
  UINT64 milliseconds = 0;
  for (UINTN i = 0; i < Count; ++i) {
    CaseKind kind = KindOf(Cases[i].Result);
    failures += kind == CaseKind::Failure;
    errors += kind == CaseKind::Error;
    skipped += kind == CaseKind::Skipped;
    milliseconds += Cases[i].Milliseconds;
  }
  TextBuilder out;
  out.Append(u"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<testsuites>\n");
  out.Format(
      u"<testsuite name=\"wirecheck\" tests=\"%d\" failures=\"%d\" errors=\"%d\" skipped=\"%d\" time=\"",
      Count, failures, errors, skipped);
  AppendSeconds(out, milliseconds);
  out.Append(u"\">\n");
  if (Machine != nullptr) {
    const CHAR16* names[] = {u"machine.uuid", u"machine.serial", u"machine.mac"};
    const CHAR16* values[] = {Machine->Uuid, Machine->Serial, Machine->Mac};
    out.Append(u"<properties>\n");
    for (UINTN i = 0; i < 3; ++i) {
      out.Format(u"<property name=\"%s\" value=\"", names[i]);
      out.Xml(values[i]);
      out.Append(u"\" />\n");
    }
    out.Append(u"</properties>\n");
  }
  for (UINTN i = 0; i < Count; ++i) {
    const ReportCase& c = Cases[i];
    out.Append(u"<testcase classname=\"wirecheck.");
    AppendTestName(out, c.Options, false);
    out.Append(u"\" name=\"");
    out.Xml(c.Options);
    out.Append(u"\" time=\"");
    AppendSeconds(out, c.Milliseconds);
    CaseKind kind = KindOf(c.Result);
    if (kind == CaseKind::Passed) {
      out.Append(u"\" />\n");
      continue;
    }
    const CHAR16* element = kind == CaseKind::Failure ? u"failure"
                            : kind == CaseKind::Error ? u"error"
                                                      : u"skipped";
    out.Format(u"\">\n<%s message=\"%s error=0x%x (", element, ResultName(c.Result), c.Error);
    out.Xml(ReportMeaning(c.Error));
    out.Format(u") status=%r\" type=\"%s\">", c.Status, ResultName(c.Result));
    out.Xml(c.Log);
    out.Format(u"</%s>\n</testcase>\n", element);
  }
  out.Append(u"</testsuite>\n</testsuites>\n");
  return out.Take();
}

CHAR16* BuildJsonReport(const ReportCase* Cases, UINTN Count, const ReportMachine* Machine) {
  TextBuilder out;
  UINTN passed = 0;
  out.Append(u"{\"suite\": \"wirecheck\", ");
  if (Machine != nullptr) {
    out.Append(u"\"machine\": {\"uuid\": \"");
    out.Json(Machine->Uuid);
    out.Append(u"\", \"serial\": \"");
    out.Json(Machine->Serial);
    out.Append(u"\", \"mac\": \"");
    out.Json(Machine->Mac);
    out.Append(u"\"}, ");
  }
  out.Append(u"\"cases\": [");
  for (UINTN i = 0; i < Count; ++i) {
    const ReportCase& c = Cases[i];
    passed += c.Result == TEST_RESULT_PASSED;
    out.Append(i == 0 ? u"\n {\"options\": \"" : u",\n {\"options\": \"");
    out.Json(c.Options);
    out.Append(u"\", \"test\": \"");
    AppendTestName(out, c.Options, true);
    out.Format(u"\", \"result\": \"%s\", \"error\": \"0x%x\", \"status\": \"%r\", \"meaning\": \"",
               ResultName(c.Result), c.Error, c.Status);
    out.Json(ReportMeaning(c.Error));
    out.Append(u"\", \"seconds\": ");
    AppendSeconds(out, c.Milliseconds);
    if (c.Result != TEST_RESULT_PASSED) {
      out.Append(u", \"log\": [");
      if (c.Log != nullptr && c.Log[0] != 0)
        out.JsonLines(c.Log);
      out.Append(u"]");
    }
    out.Append(u"}");
  }
  out.Format(u"\n], \"passed\": %d, \"not_passed\": %d}\n", passed, Count - passed);
  return out.Take();
}
