// Text files the manager reads: the list of option strings to run and the scripted answers to
// prompts, progress reports and menus.
#pragma once
#include "base/TextDecode.h"

// Walks the lines of a decoded text in place: returns the next line (without its CR LF) and moves
// Cursor past it, or null at the end.
CHAR16* NextLine(CHAR16** Cursor);

// Scripted answers, consumed in order per kind. Lines read "prompt ok|abort", "progress
// none|cancel|fail", "menu <n>|cancel" (the n-th item, from 1, or the cancel entry), and for the
// manager's own menu "front test <name>", "front set <option> <value>", "front run", "front back",
// "front all" and "front finish"; blank lines and lines starting with "#" are skipped.
enum class AnswerKind : UINT8 { Prompt, Progress, Menu, Technician };

enum class MenuStep : UINT8 { Test, Set, Run, Back, All, Finish };

struct Answer {
  AnswerKind Kind;
  INT64 Value; // prompt: 0 ok, 1 abort; progress: interrupt value; menu: item position, -1 cancel
  // front: the step, and its words in the script's text (the test's name; the option and its value)
  MenuStep Step;
  const CHAR16* Name;
  const CHAR16* Text;
};

constexpr UINTN kMaxAnswers = 256;

struct AnswerScript {
  Answer Items[kMaxAnswers];
  UINTN Count;
  UINTN Used[4]; // per kind: how many were consumed
};

// Parses a script text in place (the answers point into it); FALSE (with the bad line number) on a line it
// does not understand.
BOOLEAN ParseAnswerScript(CHAR16* Text, AnswerScript* Script, UINTN* BadLine);
// The next unused answer of a kind, or null when the script has none left.
const Answer* TakeAnswer(AnswerScript* Script, AnswerKind Kind);
