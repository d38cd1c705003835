#include "text/Regex.h"
#include "base/Cxx.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "base/Number.h"

namespace {

constexpr CHAR16 kBlankTable[] = {0x20, 0x09};
constexpr CHAR16 kSpaceTable[] = {0x20, 0x09, 0x0D, 0x0A, 0x0B, 0x0C};
constexpr CHAR16 kPunctTable[] = {0x5B, 0x5D, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29,
                                  0x2A, 0x2B, 0x2C, 0x2E, 0x2F, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E, 0x3F,
                                  0x40, 0x5C, 0x5E, 0x5F, 0x60, 0x7B, 0x7C, 0x7D, 0x7E, 0x2D};
constexpr UINTN kFail = ~UINTN(0);

struct RangePair {
  UINT16 low;
  UINT16 high;
};
constexpr RangePair kWord[] = {{u'A', u'Z'}, {u'a', u'z'}, {u'0', u'9'}, {u'_', u'_'}};
constexpr RangePair kDigit[] = {{u'0', u'9'}};
constexpr RangePair kAlpha[] = {{u'A', u'Z'}, {u'a', u'z'}};
constexpr RangePair kUpper[] = {{u'A', u'Z'}};
constexpr RangePair kLower[] = {{u'a', u'z'}};
constexpr RangePair kAlnum[] = {{u'A', u'Z'}, {u'a', u'z'}, {u'0', u'9'}};
constexpr RangePair kXdigit[] = {{u'A', u'F'}, {u'a', u'f'}, {u'0', u'9'}};
constexpr RangePair kGraph[] = {{0x21, 0x7E}};
constexpr RangePair kPrint[] = {{0x20, 0x7E}};
constexpr RangePair kCntrl[] = {{0x00, 0x1F}, {0x7F, 0x7F}};
constexpr RangePair kAny[] = {{0x0001, 0xFFFF}};

struct Span {
  const RangePair* pairs;
  UINTN pairCount;
  const CHAR16* table; // characters each forming a range of its own
  UINTN tableCount;
};

struct ClassName {
  const CHAR16* name;
  Span span;
};

template <UINTN N> constexpr Span Pairs(const RangePair (&p)[N]) {
  return {p, N, nullptr, 0};
}
template <UINTN N> constexpr Span Table(const CHAR16 (&t)[N]) {
  return {nullptr, 0, t, N};
}

constexpr ClassName kClassNames[] = {
    {u"[:blank:]", Table(kBlankTable)}, {u"[:space:]", Table(kSpaceTable)}, {u"[:alpha:]", Pairs(kAlpha)},
    {u"[:upper:]", Pairs(kUpper)},      {u"[:lower:]", Pairs(kLower)},      {u"[:alnum:]", Pairs(kAlnum)},
    {u"[:digit:]", Pairs(kDigit)},      {u"[:xdigit:]", Pairs(kXdigit)},    {u"[:graph:]", Pairs(kGraph)},
    {u"[:print:]", Pairs(kPrint)},      {u"[:punct:]", Table(kPunctTable)}, {u"[:cntrl:]", Pairs(kCntrl)},
};

bool IsBraceSpace(CHAR16 c) {
  return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f' || c == u'\v';
}

EFI_STATUS AddRange(ORDERED_LIST* ranges, UINT16 low, UINT16 high) {
  auto* range = static_cast<REGEX_RANGE*>(AllocatePool(sizeof(REGEX_RANGE)));
  if (range == nullptr)
    return EFI_OUT_OF_RESOURCES;
  range->Low = low;
  range->High = high;
  EFI_STATUS status = OrderedListAppend(ranges, range, nullptr);
  if (EFI_ERROR(status))
    FreePool(range);
  return status;
}

EFI_STATUS AddSpan(ORDERED_LIST* ranges, const Span& span) {
  for (UINTN i = 0; i < span.pairCount; ++i) {
    EFI_STATUS status = AddRange(ranges, span.pairs[i].low, span.pairs[i].high);
    if (EFI_ERROR(status))
      return status;
  }
  for (UINTN i = 0; i < span.tableCount; ++i) {
    EFI_STATUS status = AddRange(ranges, span.table[i], span.table[i]);
    if (EFI_ERROR(status))
      return status;
  }
  return EFI_SUCCESS;
}

void FreeAtom(void* element, ORDERED_LIST_NODE*) {
  auto* atom = static_cast<REGEX_ATOM*>(element);
  if (atom == nullptr)
    return;
  if (atom->Ranges != nullptr)
    OrderedListDestroy(atom->Ranges);
  FreePool(atom);
}

// Reads a positive number of a brace quantifier; the position moves past what was read.
EFI_STATUS ReadCount(const CHAR16*& p, UINT64* value) {
  const CHAR16* end = nullptr;
  UINT64 v = StrToInteger(p, &end, FALSE);
  if (end == nullptr || end == p || v == 0)
    return EFI_INVALID_PARAMETER;
  p = end;
  *value = v;
  return EFI_SUCCESS;
}

EFI_STATUS ParseBrace(const CHAR16*& p, REGEX_ATOM* atom) {
  ++p; // "{"
  while (IsBraceSpace(*p))
    ++p;
  UINT64 low = 0;
  UINT64 high = 0;
  EFI_STATUS status = ReadCount(p, &low);
  if (EFI_ERROR(status))
    return status;
  while (IsBraceSpace(*p))
    ++p;
  if (*p == u'}') {
    high = low;
  } else if (*p == u',') {
    ++p;
    while (IsBraceSpace(*p))
      ++p;
    if (*p == u'}') {
      high = kRegexUnbounded;
    } else {
      status = ReadCount(p, &high);
      if (EFI_ERROR(status))
        return status;
      while (IsBraceSpace(*p))
        ++p;
      if (*p != u'}')
        return EFI_INVALID_PARAMETER;
    }
  } else {
    return EFI_INVALID_PARAMETER;
  }
  ++p; // "}"
  atom->MinCount = wc::Min(low, high);
  atom->MaxCount = wc::Max(low, high);
  return EFI_SUCCESS;
}

// One character of a bracket expression, escapes included.
EFI_STATUS ReadBracketChar(const CHAR16*& p, UINT16* c) {
  if (*p == 0)
    return EFI_INVALID_PARAMETER;
  if (*p != u'\\') {
    *c = *p++;
    return EFI_SUCCESS;
  }
  CHAR16 e = p[1];
  switch (e) {
  case 0:
    return EFI_INVALID_PARAMETER;
  case u'x': {
    // At most four characters after "\x", never beyond the terminator.
    CHAR16 digits[5] = {};
    for (UINTN i = 0; i < 4 && p[2 + i] != 0; ++i)
      digits[i] = p[2 + i];
    const CHAR16* end = nullptr;
    UINT64 value = StrToInteger(digits, &end, TRUE);
    if (end == nullptr || end == digits || value == 0 || value > 0xFFFF)
      return EFI_INVALID_PARAMETER;
    *c = UINT16(value);
    p += 2 + UINTN(end - digits);
    return EFI_SUCCESS;
  }
  case u'0':
    *c = 0;
    break;
  case u'f':
    *c = 12;
    break;
  case u'n':
    *c = 10;
    break;
  case u'r':
    *c = 13;
    break;
  case u't':
    *c = 9;
    break;
  case u'v':
    *c = 11;
    break;
  default:
    *c = e;
    break;
  }
  p += 2;
  return EFI_SUCCESS;
}

EFI_STATUS ParseBracket(const CHAR16*& p, REGEX_ATOM* atom) {
  ++p; // "["
  if (*p == u'^') {
    atom->Negated = TRUE;
    ++p;
  }
  for (;;) {
    if (*p == 0)
      return EFI_INVALID_PARAMETER;
    if (*p == u']') {
      ++p;
      return EFI_SUCCESS;
    }
    bool named = false;
    for (const ClassName& cls : kClassNames) {
      UINTN length = StrLen(cls.name);
      if (StrnCmp(p, cls.name, length) == 0) {
        EFI_STATUS status = AddSpan(atom->Ranges, cls.span);
        if (EFI_ERROR(status))
          return status;
        p += length;
        named = true;
        break;
      }
    }
    if (named)
      continue;
    UINT16 low = 0;
    EFI_STATUS status = ReadBracketChar(p, &low);
    if (EFI_ERROR(status))
      return status;
    UINT16 high = low;
    if (*p == u'-') {
      ++p;
      status = ReadBracketChar(p, &high);
      if (EFI_ERROR(status))
        return status;
    }
    status = AddRange(atom->Ranges, wc::Min(low, high), wc::Max(low, high));
    if (EFI_ERROR(status))
      return status;
  }
}

EFI_STATUS ParseAtom(const CHAR16*& p, REGEX_ATOM* atom) {
  if (*p == u'^') {
    if (p[1] == 0)
      return EFI_INVALID_PARAMETER;
    atom->AnchorStart = TRUE;
    ++p;
  }
  EFI_STATUS status = OrderedListCreate(&atom->Ranges, nullptr, nullptr);
  if (EFI_ERROR(status))
    return status;

  CHAR16 literal = *p;
  if (*p == u'\\') {
    CHAR16 e = p[1];
    if (e == 0)
      return EFI_INVALID_PARAMETER;
    p += 2;
    switch (e) {
    case u'w':
    case u'W':
      atom->Negated = e == u'W';
      status = AddSpan(atom->Ranges, Pairs(kWord));
      break;
    case u'd':
    case u'D':
      atom->Negated = e == u'D';
      status = AddSpan(atom->Ranges, Pairs(kDigit));
      break;
    case u's':
    case u'S':
      atom->Negated = e == u'S';
      status = AddSpan(atom->Ranges, Table(kSpaceTable));
      break;
    case u'.':
      status = AddSpan(atom->Ranges, Pairs(kAny));
      break;
    default:
      status = AddRange(atom->Ranges, e, e);
      break;
    }
  } else if (*p == u'[') {
    status = ParseBracket(p, atom);
  } else if (*p == u'.') {
    ++p;
    status = AddSpan(atom->Ranges, Pairs(kAny));
  } else if (*p == 0) {
    return EFI_INVALID_PARAMETER; // an anchor with nothing after it
  } else {
    ++p;
    status = AddRange(atom->Ranges, literal, literal);
  }
  if (EFI_ERROR(status))
    return status;

  atom->MinCount = 1;
  atom->MaxCount = 1;
  if (*p == u'*') {
    atom->MinCount = 0;
    atom->MaxCount = kRegexUnbounded;
    ++p;
  } else if (*p == u'+') {
    atom->MaxCount = kRegexUnbounded;
    ++p;
  } else if (*p == u'?') {
    atom->MinCount = 0;
    ++p;
  } else if (*p == u'{') {
    status = ParseBrace(p, atom);
    if (EFI_ERROR(status))
      return status;
  }
  if (*p == u'$') {
    atom->AnchorEnd = TRUE;
    ++p;
  }
  return EFI_SUCCESS;
}

CHAR16 Fold(CHAR16 c) {
  return CharToLower(c);
}

bool Accepts(const REGEX_ATOM* atom, CHAR16 ch, BOOLEAN caseSensitive) {
  bool held = false;
  for (ORDERED_LIST_NODE* n = atom->Ranges->First; n != nullptr && !held; n = n->Next) {
    const auto* r = static_cast<const REGEX_RANGE*>(n->Element);
    if (caseSensitive)
      held = r->Low <= ch && ch <= r->High;
    else
      held = Fold(r->Low) <= Fold(ch) && Fold(ch) <= Fold(r->High);
  }
  return held != (atom->Negated != FALSE);
}

// The compiled pattern as an array, and the work arrays of the matcher.
class Matcher {
public:
  Matcher(const CHAR16* string, BOOLEAN caseSensitive)
      : s_(string), n_(StrLen(string)), caseSensitive_(caseSensitive) {}
  Matcher(const Matcher&) = delete;
  Matcher& operator=(const Matcher&) = delete;

  // Compiles the pattern and allocates the work arrays.
  EFI_STATUS Prepare(const CHAR16* pattern) {
    EFI_STATUS status = RegularExpressionCompile(pattern, list_.Receive());
    if (EFI_ERROR(status))
      return status;
    atomCount_ = list_->Count;
    atoms_ = wc::PoolPtr<REGEX_ATOM*>::Allocate(wc::Max<UINTN>(atomCount_, 1) * sizeof(REGEX_ATOM*));
    UINTN bytes = (n_ + 2) * sizeof(UINTN);
    run_ = wc::PoolPtr<UINTN>::Allocate(bytes);
    cur_ = wc::PoolPtr<UINTN>::Allocate(bytes);
    next_ = wc::PoolPtr<UINTN>::Allocate(bytes);
    aux_ = wc::PoolPtr<UINTN>::Allocate(bytes);
    if (!atoms_ || !run_ || !cur_ || !next_ || !aux_)
      return EFI_OUT_OF_RESOURCES;
    UINTN i = 0;
    for (ORDERED_LIST_NODE* node = list_->First; node != nullptr; node = node->Next)
      atoms_[i++] = static_cast<REGEX_ATOM*>(node->Element);
    return EFI_SUCCESS;
  }

  UINTN AtomCount() const { return atomCount_; }
  const REGEX_ATOM* Atom(UINTN i) const { return atoms_[i]; }

  // Does the whole string match? (Counts tried in any order give the same answer.)
  bool WholeMatch() {
    for (UINTN p = 0; p <= n_; ++p)
      next_[p] = p == n_ ? 1 : 0;
    for (UINTN i = atomCount_; i-- > 0;) {
      Runs(atoms_[i]);
      // aux[q] = how many positions below q the rest matches from.
      aux_[0] = 0;
      for (UINTN q = 0; q <= n_; ++q)
        aux_[q + 1] = aux_[q] + next_[q];
      for (UINTN p = 0; p <= n_; ++p) {
        UINTN high;
        cur_[p] =
            Range(atoms_[i], p, &high) && aux_[p + high + 1] - aux_[p + atoms_[i]->MinCount] > 0 ? 1 : 0;
      }
      Swap();
    }
    return next_[0] != 0;
  }

  // The prefix length that backtracking would find from every position (kFail for none),
  // trying counts from most to fewest when greedy, fewest to most otherwise.
  const UINTN* PrefixLengths(BOOLEAN greedy) {
    for (UINTN p = 0; p <= n_; ++p)
      next_[p] = 0;
    for (UINTN i = atomCount_; i-- > 0;) {
      Runs(atoms_[i]);
      if (greedy) {
        UINTN last = kFail; // the last position at or below q where the rest matches
        for (UINTN q = 0; q <= n_; ++q)
          aux_[q] = last = next_[q] != kFail ? q : last;
      } else {
        UINTN first = kFail; // the first position at or above q where the rest matches
        for (UINTN q = n_ + 1; q-- > 0;)
          aux_[q] = first = next_[q] != kFail ? q : first;
      }
      for (UINTN p = 0; p <= n_; ++p) {
        UINTN high;
        cur_[p] = kFail;
        if (!Range(atoms_[i], p, &high))
          continue;
        UINTN low = UINTN(atoms_[i]->MinCount);
        UINTN q = greedy ? aux_[p + high] : aux_[p + low];
        if (q != kFail && q >= p + low && q <= p + high)
          cur_[p] = (q - p) + next_[q];
      }
      Swap();
    }
    return next_.Get();
  }

  UINTN Length() const { return n_; }

private:
  // run[p]: how many characters from p the atom accepts in a row, up to its most.
  void Runs(const REGEX_ATOM* atom) {
    run_[n_] = 0;
    for (UINTN p = n_; p-- > 0;)
      run_[p] = Accepts(atom, s_[p], caseSensitive_) ? run_[p + 1] + 1 : 0;
    for (UINTN p = 0; p <= n_; ++p)
      if (run_[p] > atom->MaxCount)
        run_[p] = UINTN(atom->MaxCount);
  }
  // The counts the atom may take at p: MinCount to *high; false when it cannot take any.
  bool Range(const REGEX_ATOM* atom, UINTN p, UINTN* high) const {
    *high = run_[p];
    return atom->MinCount <= *high;
  }
  void Swap() {
    UINTN* t = cur_.Release();
    cur_.Reset(next_.Release());
    next_.Reset(t);
  }

  OrderedListOwner list_;
  const CHAR16* s_;
  UINTN n_;
  BOOLEAN caseSensitive_;
  UINTN atomCount_ = 0;
  wc::PoolPtr<REGEX_ATOM*> atoms_;
  wc::PoolPtr<UINTN> run_, cur_, next_, aux_;
};

} // namespace

EFI_STATUS RegularExpressionCompile(const CHAR16* Pattern, ORDERED_LIST** Compiled) {
  if (Pattern == nullptr || Compiled == nullptr)
    return EFI_INVALID_PARAMETER;
  *Compiled = nullptr;
  OrderedListOwner list;
  EFI_STATUS status = OrderedListCreate(list.Receive(), nullptr, FreeAtom);
  if (EFI_ERROR(status))
    return status;
  for (const CHAR16* p = Pattern; *p != 0;) {
    if (list->Last != nullptr && static_cast<REGEX_ATOM*>(list->Last->Element)->AnchorEnd)
      return EFI_INVALID_PARAMETER; // nothing may follow "$"
    auto* atom = static_cast<REGEX_ATOM*>(AllocateZeroPool(sizeof(REGEX_ATOM)));
    if (atom == nullptr)
      return EFI_OUT_OF_RESOURCES;
    status = ParseAtom(p, atom);
    if (!EFI_ERROR(status) && atom->AnchorStart && list->Count > 0)
      status = EFI_INVALID_PARAMETER; // "^" only in front of the first atom
    if (!EFI_ERROR(status))
      status = OrderedListAppend(list.Get(), atom, nullptr);
    if (EFI_ERROR(status)) {
      FreeAtom(atom, nullptr);
      return status;
    }
  }
  *Compiled = list.Release();
  return EFI_SUCCESS;
}

EFI_STATUS MatchingStringAndRegularExpression(const CHAR16* String, const CHAR16* Pattern,
                                              BOOLEAN CaseSensitive, BOOLEAN* Matched) {
  if (String == nullptr || Pattern == nullptr || Pattern[0] == 0 || Matched == nullptr)
    return EFI_INVALID_PARAMETER;
  *Matched = FALSE;
  Matcher matcher(String, CaseSensitive);
  EFI_STATUS status = matcher.Prepare(Pattern);
  if (EFI_ERROR(status))
    return status;
  *Matched = matcher.WholeMatch() ? TRUE : FALSE;
  return EFI_SUCCESS;
}

EFI_STATUS RegularExpressionSearch(const CHAR16* String, const CHAR16* Pattern, BOOLEAN CaseSensitive,
                                   BOOLEAN Greedy, const CHAR16** MatchStart, UINTN* MatchLength) {
  if (String == nullptr || Pattern == nullptr || Pattern[0] == 0 || MatchStart == nullptr)
    return EFI_INVALID_PARAMETER;
  *MatchStart = nullptr;
  if (MatchLength != nullptr)
    *MatchLength = 0;
  auto found = [&](UINTN position, UINTN length) {
    *MatchStart = String + position;
    if (MatchLength != nullptr)
      *MatchLength = length;
    return EFI_SUCCESS;
  };
  if (StrEq(Pattern, u"^"))
    return found(0, 0);
  if (StrEq(Pattern, u"$"))
    return found(StrLen(String), 0);

  Matcher matcher(String, CaseSensitive);
  EFI_STATUS status = matcher.Prepare(Pattern);
  if (EFI_ERROR(status))
    return status;
  UINTN n = matcher.Length();
  UINTN atoms = matcher.AtomCount();
  bool anchoredStart = atoms > 0 && matcher.Atom(0)->AnchorStart;
  bool anchoredEnd = atoms > 0 && matcher.Atom(atoms - 1)->AnchorEnd;
  const UINTN* lengths = matcher.PrefixLengths(Greedy);

  UINTN lastPosition = n == 0 ? 0 : (anchoredStart ? 0 : n - 1);
  for (UINTN p = 0; p <= lastPosition; ++p) {
    if (lengths[p] == kFail)
      continue;
    if (!anchoredEnd || p + lengths[p] == n)
      return found(p, lengths[p]);
    // A zero-length match at the last character, refused by "$": the match is at the end.
    if (p == lastPosition && n > 0 && p == n - 1 && lengths[p] == 0)
      return found(n, 0);
  }
  return EFI_SUCCESS;
}
