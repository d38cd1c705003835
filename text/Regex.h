// The module's regular expressions: a pattern is a sequence of atoms (a character set with a
// repetition count, optionally anchored); there is no grouping and no alternation, so "(" and
// "|" are ordinary characters and "\." is any character (a literal dot is "[.]").
//
// Matching keeps the results of plain backtracking (counts tried in order, the first success
// wins) but works atom by atom over all string positions, so its time is linear in the pattern
// and the string: a hostile pattern such as a*a*a*a*a*a*b cannot make it exponential.
#pragma once
#include "text/OrderedList.h"

struct REGEX_RANGE {
  UINT16 Low;
  UINT16 High;
};

constexpr UINT64 kRegexUnbounded = 0xFFFFFFFFFFFFFFFFull;

struct REGEX_ATOM {
  BOOLEAN AnchorStart;
  BOOLEAN AnchorEnd;
  ORDERED_LIST* Ranges; // of REGEX_RANGE
  BOOLEAN Negated;
  UINT64 MinCount;
  UINT64 MaxCount; // kRegexUnbounded: no limit
};

// Compiles into an ordered list of REGEX_ATOMs (destroy it with OrderedListDestroy).
EFI_STATUS RegularExpressionCompile(const CHAR16* Pattern, ORDERED_LIST** Compiled);
// Whole-string match.
EFI_STATUS MatchingStringAndRegularExpression(const CHAR16* String, const CHAR16* Pattern,
                                              BOOLEAN CaseSensitive, BOOLEAN* Matched);
// Leftmost search; MatchStart is null when nothing matches.
EFI_STATUS RegularExpressionSearch(const CHAR16* String, const CHAR16* Pattern, BOOLEAN CaseSensitive,
                                   BOOLEAN Greedy, const CHAR16** MatchStart, UINTN* MatchLength);
