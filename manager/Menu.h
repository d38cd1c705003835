// The manager's menu for a technician at a machine: the module's tests from its catalog, an argument
// screen per test whose values are checked against the catalog before a call, a result screen with
// what to check after each call, and a summary of the session at the end. Driven by the keyboard
// (digits or arrows and Enter, ESC back) or by a script's "front" lines.
#pragma once
#include "manager/Catalog.h"
#include "manager/Script.h"

constexpr UINTN kMenuMaxCalls = 64;

// What a call the menu made gave back.
struct MenuCall {
  CHAR16 Options[256];
  UINTN Result;
  UINTN Error;
  EFI_STATUS Status;
};

// What the menu needs of the manager.
struct MenuHost {
  void* Context;
  // Shows a line (or a part of one) on the screen and in the manager's logs.
  void (*Show)(void* Context, const CHAR16* Text, UINTN Attribute);
  // Clears the screen before a menu is drawn for the keyboard.
  void (*Clear)(void* Context);
  // The next key, waiting for one.
  EFI_INPUT_KEY (*ReadKey)(void* Context);
  // Lets go of keys typed before a screen appeared (a key held down): each screen waits for its own.
  void (*Drain)(void* Context);
  // Runs one call with the option string and records it like every other call.
  void (*Run)(void* Context, CHAR16* Options, MenuCall* Call);
  // The text of a message of the message file in the manager's language, or null.
  const CHAR16* (*Text)(void* Context, UINTN Id);
  AnswerScript* Script; // scripted: "front" lines answer the menu; null: the keyboard does
};

struct MenuSession {
  MenuCall Calls[kMenuMaxCalls];
  UINTN CallCount;
};

// Runs the menu until Finish (or the script's last "front" line), then shows the summary of the
// session's calls. Catalog may hold no tests: the menu then offers Finish only.
void RunTechnicianMenu(MenuHost& Host, MenuCatalog& Catalog, MenuSession& Session);
