#include "options/Usage.h"
#include "base/String.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "support/FileIo.h"
#include "uefi/protocol/SimpleFileSystem.h"

// Names: a null-ended list of global option names.
static void PrintGeneralUsage(const ModuleInfo* Module, const CHAR16* const* Names);
// Writes to the open file, or to the console when File is null.
static void WriteCatalog(const ModuleInfo* Module, EFI_FILE_PROTOCOL* File);

namespace {

constexpr UINTN kSyntaxBytes = 1024;
constexpr UINTN kTestSyntaxBytes = 2048;
constexpr UINTN kOptionSyntaxBytes = 128;
constexpr UINTN kHelpBytes = 2048;
constexpr UINTN kHeadBytes = 256;
constexpr UINTN kRangeBytes = 128;
constexpr UINTN kDefaultBytes = 128;
constexpr UINTN kListBytes = 512;

// Appends formatted text to a buffer that already holds a string.
template <class... A>
void AppendFormat(CHAR16* buffer, UINTN bufferSize, const CHAR16* format, const A&... args) {
  UINTN used = StrnLen(buffer, bufferSize / sizeof(CHAR16));
  if ((used + 1) * sizeof(CHAR16) < bufferSize)
    SPrint(buffer + used, bufferSize - used * sizeof(CHAR16), format, args...);
}

// One piece of the catalog: to the file when one is open, otherwise to the console in white.
template <class... A> void CatalogPiece(EFI_FILE_PROTOCOL* file, const CHAR16* format, const A&... args) {
  if (file != nullptr)
    FileIoPrint(file, format, args...);
  else
    ConsolePrintAttr(EFI_WHITE, format, args...);
}

} // namespace

CHAR16* FormatOptionSyntax(const OptionInfo* Option, UINTN BufferSize, CHAR16* Buffer) {
  if (Option == nullptr || Option->Name == nullptr) {
    SPrint(Buffer, BufferSize, u"");
    return Buffer;
  }
  const CHAR16* typeName = TypeName(kUsageTypeNames, Option->Type);
  if (Option->Type != OPTION_TYPE_NONE)
    SPrint(Buffer, BufferSize, Option->Required ? u" %s=%s" : u" [%s=%s]", Option->Name, typeName);
  else
    SPrint(Buffer, BufferSize, Option->Required ? u" %s" : u" [%s]", Option->Name);
  return Buffer;
}

CHAR16* FormatTestSyntax(const TestInfo* Test, UINTN BufferSize, CHAR16* Buffer) {
  SPrint(Buffer, BufferSize, u"");
  if (Test == nullptr)
    return Buffer;
  SPrint(Buffer, BufferSize, u"-test=%s", Test->Name);
  for (const OptionInfo* o = Test->Options; o != nullptr && o->Name != nullptr; ++o) {
    CHAR16 piece[kOptionSyntaxBytes / sizeof(CHAR16)];
    FormatOptionSyntax(o, sizeof(piece), piece);
    StrAppend(Buffer, BufferSize, piece);
  }
  return Buffer;
}

CHAR16* FormatOptionHelp(const OptionInfo* Option, UINTN BufferSize, CHAR16* Buffer) {
  SPrint(Buffer, BufferSize, u"");
  if (Option == nullptr || Option->Name == nullptr)
    return Buffer;
  CHAR16 head[kHeadBytes / sizeof(CHAR16)];
  CHAR16 range[kRangeBytes / sizeof(CHAR16)] = {};
  CHAR16 list[kListBytes / sizeof(CHAR16)] = {};
  CHAR16 dflt[kDefaultBytes / sizeof(CHAR16)] = {};

  if (Option->Type != OPTION_TYPE_NONE)
    SPrint(head, sizeof(head), u"%s=%s: %s", Option->Name, TypeName(kUsageTypeNames, Option->Type),
           Option->Description);
  else
    SPrint(head, sizeof(head), u"%s: %s", Option->Name, Option->Description);

  if (Option->Low != nullptr && Option->High != nullptr)
    SPrint(range, sizeof(range), u" Value range=%s..%s.", Option->Low, Option->High);
  else if (Option->Low != nullptr)
    SPrint(range, sizeof(range), u" Value range=%s or higher.", Option->Low);
  else if (Option->High != nullptr)
    SPrint(range, sizeof(range), u" Value range=%s or lower.", Option->High);

  if (Option->List != nullptr) {
    SPrint(list, sizeof(list), u" Possible values=");
    for (const CHAR16* const* p = Option->List; *p != nullptr; ++p)
      AppendFormat(list, sizeof(list), p[1] != nullptr ? u"%s|" : u"%s.", *p);
  }

  if (Option->Default != nullptr) {
    switch (Option->Type) {
    case OPTION_TYPE_INTEGER:
    case OPTION_TYPE_INTEGER64:
      SPrint(dflt, sizeof(dflt), u" Default=%s.", Option->Default);
      break;
    case OPTION_TYPE_BOOLEAN: {
      BOOLEAN value = FALSE;
      ParseBoolean(Option->Default, &value);
      SPrint(dflt, sizeof(dflt), u" Default=%s.", value ? u"true" : u"false");
      break;
    }
    default:
      SPrint(dflt, sizeof(dflt), u" Default=\"%s\".", Option->Default);
      break;
    }
  }
  SPrint(Buffer, BufferSize, u"%s%s%s%s", head, range, list, dflt);
  return Buffer;
}

static void PrintGeneralUsage(const ModuleInfo* Module, const CHAR16* const* Names) {
  CHAR16 syntax[kSyntaxBytes / sizeof(CHAR16)];
  CHAR16 help[kSyntaxBytes / sizeof(CHAR16)] = {};
  SPrint(syntax, sizeof(syntax), u"Usage: %s <test>", Module->Name);
  for (const CHAR16* const* name = Names; name != nullptr && *name != nullptr; ++name) {
    AppendFormat(syntax, sizeof(syntax), u" | %s", *name);
    if (const OptionInfo* option = FindOptionInfo(kGlobalOptions, *name))
      AppendFormat(help, sizeof(help), u"  %s: %s\r\n", option->Name, option->Description);
  }
  AppendFormat(syntax, sizeof(syntax), u"\r\n");
  // Both texts are printed as format strings, as they were built.
  ConsolePrintAttr(EFI_WHITE, syntax);
  ConsolePrintAttr(EFI_WHITE, help);
  if (Module->Tests != nullptr) {
    ConsolePrintAttr(EFI_WHITE, u"  Available tests are:\r\n");
    for (const TestInfo* const* t = Module->Tests; *t != nullptr; ++t) {
      CHAR16 line[kTestSyntaxBytes / sizeof(CHAR16)];
      ConsolePrintAttr(EFI_WHITE, u"  %s\r\n", FormatTestSyntax(*t, sizeof(line), line));
    }
  }
}

BOOLEAN PrintTestUsage(const ModuleInfo* Module, const CHAR16* TestName) {
  if (Module == nullptr || TestName == nullptr || TestName[0] == 0)
    return FALSE;
  const TestInfo* test = FindTestInfo(Module->Tests, TestName);
  if (test == nullptr)
    return FALSE;
  ConsolePrintAttr(EFI_WHITE, u"%s's %s test:\r\n  %s\r\n", Module->Name, test->Name, test->Description);
  CHAR16 line[kHelpBytes / sizeof(CHAR16)];
  ConsolePrintAttr(EFI_WHITE, u"Usage: %s %s\r\n", Module->Name, FormatTestSyntax(test, sizeof(line), line));
  for (const OptionInfo* o = test->Options; o != nullptr && o->Name != nullptr; ++o)
    ConsolePrintAttr(EFI_WHITE, u"  %s\r\n", FormatOptionHelp(o, sizeof(line), line));
  return TRUE;
}

void PrintUsage(const ModuleInfo* Module, const CHAR16* TestName) {
  ConsolePrint(u"%s %d.%02d\r\n", Module->Name, kModuleMajor, kModuleMinor);
  ConsolePrint(u"\r\n");
  static constexpr const CHAR16* kGeneral[] = {u"-version", u"-catalog", u"-h", nullptr};
  if (TestName != nullptr && TestName[0] != 0) {
    if (PrintTestUsage(Module, TestName))
      return;
    ConsolePrint(u"'%s' is not a valid %s test.\r\n", TestName, Module->Name);
  }
  PrintGeneralUsage(Module, kGeneral);
}

void PrintVersion(const ModuleInfo* Module) {
  ConsolePrintAttr(EFI_WHITE, u"%s Version %s\r\n", Module->Name, Module->Version);
}

static void WriteCatalog(const ModuleInfo* Module, EFI_FILE_PROTOCOL* File) {
  CatalogPiece(File, u"<DIAGNOSTIC Name=\"%s\" FileName=\"%s\" Version=\"%s\">\r\n", Module->Name,
               Module->FileName, Module->Version);
  for (const TestInfo* const* t = Module->Tests; t != nullptr && *t != nullptr; ++t) {
    CatalogPiece(File, u" <TEST Name=\"%s\" Description=\"%s\">\r\n", (*t)->Name, (*t)->Description);
    for (const OptionInfo* o = (*t)->Options; o != nullptr && o->Name != nullptr; ++o) {
      CatalogPiece(File,
                   u"  <ARGUMENT Name=\"%s\" Value=\"%s\" Type=\"%s\" Description=\"%s\" Required=\"%s\"",
                   o->Name, o->Default != nullptr ? o->Default : u"", TypeName(kCatalogTypeNames, o->Type),
                   o->Description, o->Required ? u"true" : u"false");
      if (o->Low != nullptr)
        CatalogPiece(File, u" Low=\"%s\"", o->Low);
      if (o->High != nullptr)
        CatalogPiece(File, u" High=\"%s\"", o->High);
      if (o->List != nullptr) {
        CatalogPiece(File, u" List=\"");
        for (const CHAR16* const* p = o->List; *p != nullptr; ++p)
          CatalogPiece(File, p[1] != nullptr ? u"%s," : u"%s", *p);
        CatalogPiece(File, u"\"");
      }
      CatalogPiece(File, u" />\r\n");
    }
    CatalogPiece(File, u" </TEST>\r\n");
  }
  CatalogPiece(File, File != nullptr ? u"</DIAGNOSTIC>" : u"</DIAGNOSTIC>\r\n");
}

BOOLEAN PrintCatalog(const ModuleInfo* Module, const CHAR16* Path) {
  EFI_FILE_PROTOCOL* file = nullptr;
  if (Path != nullptr && Path[0] != 0) {
    // A file that is not there yet is simply created; one that is there but cannot be removed
    // (an error, or the warning that the file stayed) is left alone, since writing to it would
    // leave a corrupt catalog.
    EFI_STATUS status = FileIoDeleteFile(Path);
    if (status != EFI_SUCCESS && status != EFI_NOT_FOUND)
      return FALSE;
    if (EFI_ERROR(
            FileIoOpenFile(Path, EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0, &file)))
      file = nullptr;
  }
  TracePrint(u"printing catalog to %s\r\n", file != nullptr ? Path : u"console");
  WriteCatalog(Module, file);
  if (file != nullptr)
    file->Close(file);
  return file == nullptr ? TRUE : FALSE;
}
