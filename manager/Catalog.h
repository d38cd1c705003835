// The module's catalog as the manager's menu reads it: the tests with their descriptions and, for
// each, its arguments with type, range, list and default. A value the technician types is checked
// against the catalog before a call is made, as the module would check it.
#pragma once
#include "text/Xml.h"

constexpr UINTN kMenuMaxTests = 16;
constexpr UINTN kMenuMaxArguments = 16;
constexpr UINTN kMenuValueChars = 128;

struct MenuArgument {
  // Texts of the catalog document (null where the catalog has none).
  const CHAR16* Name;
  const CHAR16* Default;
  const CHAR16* Type; // "integer", "integer64", "boolean", "string" or "" (a switch without value)
  const CHAR16* Description;
  const CHAR16* Low;
  const CHAR16* High;
  const CHAR16* List; // entries separated by ","
  bool Required;
  CHAR16 Value[kMenuValueChars]; // the value the next call uses; the default until edited
  bool Edited;
};

struct MenuTest {
  const CHAR16* Name;
  const CHAR16* Description;
  MenuArgument Arguments[kMenuMaxArguments];
  UINTN ArgumentCount;
  UINTN Omitted; // arguments past kMenuMaxArguments: the menu says so, and they keep their defaults
};

struct MenuCatalog {
  XmlNode* Document; // owns every text above
  MenuTest Tests[kMenuMaxTests];
  UINTN TestCount;
  UINTN Omitted; // tests past kMenuMaxTests
};

// Reads a catalog document (decoded text). EFI_NOT_FOUND when it holds no DIAGNOSTIC element or no
// test; tests and arguments past the limits above are left out and counted.
EFI_STATUS ReadMenuCatalog(const CHAR16* Text, MenuCatalog* Catalog);
void FreeMenuCatalog(MenuCatalog* Catalog);

// Whether Value suits the argument's type, range and list; when not, Why says so in a line such as
// "-retries takes 0..5; 9 is outside". Quote marks are refused: the option string could not carry them.
bool CheckMenuValue(const MenuArgument& Argument, const CHAR16* Value, CHAR16* Why, UINTN WhySize);

// The option string of a call: "-test=<name>" and every edited argument as "<name>=<value>" (a
// switch without value by its name, when its value is true; a value with a blank in double quotes).
// False when it does not fit.
bool BuildMenuOptions(const MenuTest& Test, CHAR16* Out, UINTN OutSize);

// The range and list of an argument as the menu shows them ("0..5", "1 or higher", "a|b|c"; empty
// when it has neither).
void DescribeMenuLimits(const MenuArgument& Argument, CHAR16* Out, UINTN OutSize);
