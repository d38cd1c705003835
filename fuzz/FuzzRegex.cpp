// Fuzz target: any pattern and text. Besides the sanitizers' checks, the matcher's answers are
// compared with a literal backtracking matcher (on short texts, where backtracking is cheap):
// whole-string match, and leftmost search both greedy and lazy.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/String.h"
#include "text/Regex.h"
#include "fakes/FakeFirmware.h"

namespace {

constexpr UINTN kFail = ~UINTN(0);

struct Reference {
  std::vector<const REGEX_ATOM*> atoms;
  std::u16string s;
  bool caseSensitive;

  bool Accepts(const REGEX_ATOM* a, char16_t ch) const {
    bool held = false;
    for (auto* n = a->Ranges->First; n != nullptr; n = n->Next) {
      auto* r = static_cast<const REGEX_RANGE*>(n->Element);
      held |= caseSensitive
                  ? (r->Low <= ch && ch <= r->High)
                  : (CharToLower(r->Low) <= CharToLower(ch) && CharToLower(ch) <= CharToLower(r->High));
    }
    return held != (a->Negated != 0);
  }
  UINTN Run(size_t i, size_t p) const {
    UINTN n = 0;
    while (p + n < s.size() && n < atoms[i]->MaxCount && Accepts(atoms[i], s[p + n]))
      ++n;
    return n;
  }
  bool Whole(size_t i, size_t p) const {
    if (p < s.size()) {
      if (i == atoms.size())
        return false;
      UINTN n = Run(i, p);
      if (n < atoms[i]->MinCount)
        return false;
      for (UINTN k = atoms[i]->MinCount; k <= n; ++k)
        if (Whole(i + 1, p + k))
          return true;
      return false;
    }
    for (size_t j = i; j < atoms.size(); ++j)
      if (atoms[j]->MinCount != 0)
        return false;
    return true;
  }
  UINTN Prefix(size_t i, size_t p, bool greedy) const {
    if (i == atoms.size())
      return 0;
    if (p == s.size()) {
      for (size_t j = i; j < atoms.size(); ++j)
        if (atoms[j]->MinCount != 0)
          return kFail;
      return 0;
    }
    UINTN n = Run(i, p);
    UINTN lo = UINTN(atoms[i]->MinCount);
    if (n < lo)
      return kFail;
    for (UINTN step = 0; step <= n - lo; ++step) {
      UINTN k = greedy ? n - step : lo + step;
      UINTN rest = Prefix(i + 1, p + k, greedy);
      if (rest != kFail)
        return k + rest;
    }
    return kFail;
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2)
    return 0;
  FakeFirmware fw;
  // First byte: flags and split point; then the pattern and the text as UCS-2 (mostly ASCII).
  bool caseSensitive = data[0] & 1;
  size_t split = 1 + (data[1] % (size - 1));
  std::u16string pattern, text;
  for (size_t i = 2; i < size; ++i)
    (i < split + 1 ? pattern : text) += char16_t(data[i] == 0xFF ? 0x00C9 : data[i]);
  pattern = pattern.substr(0, pattern.find(u'\0'));
  text = text.substr(0, text.find(u'\0'));
  if (pattern.empty())
    return 0;

  BOOLEAN matched = FALSE;
  EFI_STATUS status =
      MatchingStringAndRegularExpression(text.c_str(), pattern.c_str(), caseSensitive, &matched);
  const CHAR16* start = nullptr;
  UINTN length = 0;
  EFI_STATUS greedyStatus =
      RegularExpressionSearch(text.c_str(), pattern.c_str(), caseSensitive, TRUE, &start, &length);
  const CHAR16* lazyStart = nullptr;
  UINTN lazyLength = 0;
  RegularExpressionSearch(text.c_str(), pattern.c_str(), caseSensitive, FALSE, &lazyStart, &lazyLength);

  ORDERED_LIST* compiled = nullptr;
  if (!EFI_ERROR(RegularExpressionCompile(pattern.c_str(), &compiled))) {
    if (EFI_ERROR(status) || EFI_ERROR(greedyStatus))
      std::abort(); // compiles, so both calls must have worked
    if (text.size() <= 12 && compiled->Count <= 8) {
      Reference ref{{}, text, caseSensitive};
      for (auto* n = compiled->First; n != nullptr; n = n->Next)
        ref.atoms.push_back(static_cast<const REGEX_ATOM*>(n->Element));
      if (ref.Whole(0, 0) != (matched != 0))
        std::abort();
      if (pattern != u"^" && pattern != u"$") {
        bool anchoredStart = !ref.atoms.empty() && ref.atoms.front()->AnchorStart;
        bool anchoredEnd = !ref.atoms.empty() && ref.atoms.back()->AnchorEnd;
        for (bool greedy : {true, false}) {
          const CHAR16* want = nullptr;
          UINTN wantLength = 0;
          size_t last = text.empty() ? 0 : (anchoredStart ? 0 : text.size() - 1);
          for (size_t p = 0; p <= last && want == nullptr; ++p) {
            UINTN len = ref.Prefix(0, p, greedy);
            if (len == kFail)
              continue;
            if (!anchoredEnd || p + len == text.size()) {
              want = text.c_str() + p;
              wantLength = len;
            } else if (p == last && !text.empty() && p == text.size() - 1 && len == 0) {
              want = text.c_str() + text.size();
            }
          }
          const CHAR16* got = greedy ? start : lazyStart;
          UINTN gotLength = greedy ? length : lazyLength;
          if ((want == nullptr) != (got == nullptr))
            std::abort();
          if (want != nullptr && (want - text.c_str() != got - text.c_str() || wantLength != gotLength))
            std::abort();
        }
      }
    }
    OrderedListDestroy(compiled);
  }
  if (!fw.pool.empty())
    std::abort();
  return 0;
}
