#include "frame/CommandLine.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "options/OptionStore.h"
#include "options/Usage.h"
#include "report/Output.h"
#include "report/Results.h"
#include "support/FileIo.h"

namespace {
UINTN gWordCount = 0;
CHAR16** gWords = nullptr;

constexpr UINTN kCatalogPathChars = 256;

void FreeWordArray(CHAR16** words, UINTN count) {
  if (words == nullptr)
    return;
  for (UINTN i = 0; i < count; ++i)
    FreePool(words[i]);
  FreePool(words);
}

// Splits the text in place: terminators between words, quotes removed where they open a part.
// Returns the text's new length.
UINTN MarkWords(CHAR16* text, UINTN length) {
  CHAR16 quote = 0;
  UINTN i = 0;
  while (i < length) {
    CHAR16 c = text[i];
    if (quote != 0) {
      if (c == quote) {
        text[i] = 0;
        quote = 0;
      }
      ++i;
      continue;
    }
    if (c == u' ') {
      text[i] = 0;
    } else if (c == u'"' && i > 0 && text[i - 1] == u'=') {
      // A quoted value directly after "=": drop the quote, the value continues the word.
      CopyMem(text + i, text + i + 1, (length - i) * sizeof(CHAR16));
      --length;
      quote = u'"';
      continue; // examine the character that moved into this place
    } else if (c == u'\'' || c == u'"') {
      text[i] = 0;
      quote = c;
    }
    ++i;
  }
  return length;
}
} // namespace

EFI_STATUS ProcessLoadOptions(const CHAR16* Text, UINTN* Count, CHAR16*** Words) {
  if (Text == nullptr || Count == nullptr || Words == nullptr)
    return EFI_INVALID_PARAMETER;
  *Count = 0;
  *Words = nullptr;
  wc::PoolPtr<CHAR16> copy(StrDuplicate(Text));
  if (!copy)
    return EFI_OUT_OF_RESOURCES;
  UINTN length = MarkWords(copy.Get(), StrLen(Text));

  UINTN count = 0;
  for (UINTN i = 0; i < length; ++i)
    if (copy[i] != 0 && (i == 0 || copy[i - 1] == 0))
      ++count;
  if (count == 0)
    return EFI_SUCCESS;

  auto* words = static_cast<CHAR16**>(AllocateZeroPool(count * sizeof(CHAR16*)));
  if (words == nullptr)
    return EFI_OUT_OF_RESOURCES;
  UINTN n = 0;
  for (UINTN i = 0; i < length; ++i) {
    if (copy[i] != 0 && (i == 0 || copy[i - 1] == 0)) {
      // The run ends at a terminator or at the end of the text, which is terminated too.
      words[n] = StrDuplicate(copy.Get() + i);
      if (words[n] == nullptr) {
        FreeWordArray(words, n);
        return EFI_OUT_OF_RESOURCES;
      }
      ++n;
    }
  }
  *Count = count;
  *Words = words;
  return EFI_SUCCESS;
}

void FreeOptionWords() {
  FreeWordArray(gWords, gWordCount);
  gWords = nullptr;
  gWordCount = 0;
}

void ParseCLIOptions(const CHAR16* Options, const ModuleInfo* Module, TestOptionHandlerFn Handler,
                     UINTN* Result, UINTN* ErrorCode) {
  auto finish = [&](UINTN result, UINTN error) {
    *Result = result;
    *ErrorCode = error;
  };
  wc::PoolPtr<CHAR16> copy(StrDuplicate(Options));
  if (!copy) {
    LogPrint(u"Failed creating copy of LoadOptions - EFI_OUT_OF_RESOURCES\r\n");
    return finish(TEST_RESULT_SOFTWARE_ERROR, ERROR_CODE_SOFTWARE);
  }
  FreeOptionWords();
  EFI_STATUS status = ProcessLoadOptions(copy.Get(), &gWordCount, &gWords);
  copy.Reset();
  if (EFI_ERROR(status)) {
    LogPrint(u"ParseCLIOptions(): ProcessLoadOptions() failed - %r\r\n", status);
    return finish(TEST_RESULT_SOFTWARE_ERROR, ERROR_CODE_SOFTWARE);
  }

  CHAR16* testName = nullptr;
  bool testOptionAccepted = false;
  for (UINTN w = 0; w < gWordCount; ++w) {
    CHAR16* word = gWords[w];
    CHAR16* name = word;
    while (*name == u'=')
      ++name;
    CHAR16* value = nullptr;
    if (*name == 0) {
      // A word made only of "=": nothing can accept it.
      ErrorPrint(u"Unsupported command line option: %s \r\n", word);
      return finish(TEST_RESULT_FAILED, ERROR_CODE_INVALID_OPTIONS);
    }
    if (CHAR16* eq = const_cast<CHAR16*>(StrFindChar(name, u'='))) {
      *eq = 0;
      if (eq[1] != 0)
        value = eq + 1;
    }
    if (name[0] != u'-')
      return finish(TEST_RESULT_FAILED, ERROR_CODE_INVALID_OPTIONS);
    ++name;
    StrLwrAscii(name);

    if (StrEq(name, u"debug") || StrEq(name, u"dbg")) {
      SetDebugLevel(value);
      continue;
    }
    if (StrEq(name, u"-help") || StrEq(name, u"help") || StrEq(name, u"h") || StrEq(name, u"?") ||
        StrEq(name, u"usage")) {
      PrintUsage(Module, value != nullptr ? value : testName);
      SetConsoleOutput(FALSE);
      return finish(TEST_RESULT_PASSED, ERROR_CODE_NONE);
    }
    if (StrEq(name, u"version") || StrEq(name, u"ver") || StrEq(name, u"v")) {
      PrintVersion(Module);
      SetConsoleOutput(FALSE);
      return finish(TEST_RESULT_PASSED, ERROR_CODE_NONE);
    }
    if (StrEq(name, u"catalog") || StrEq(name, u"cat")) {
      // Without a value the catalog goes to the console.
      CHAR16 path[kCatalogPathChars] = {};
      if (value != nullptr) {
        SPrint(path, sizeof(path), u"%s", value);
        FileIoResolvePath(path, sizeof(path));
      }
      if (PrintCatalog(Module, path))
        SetConsoleOutput(FALSE);
      return finish(TEST_RESULT_PASSED, ERROR_CODE_NONE);
    }
    UINTN verdict = Handler(name, value, &testName);
    if (verdict == 0) {
      testOptionAccepted = true;
      continue;
    }
    if (verdict == 1)
      ErrorPrint(u"Unsupported command line option: %s \r\n", name);
    else
      ErrorPrint(u"Unsupported value (%s) for command line option (%s) \r\n", value, name);
    return finish(TEST_RESULT_FAILED, ERROR_CODE_INVALID_OPTIONS);
  }

  if (!testOptionAccepted) {
    PrintUsage(Module, nullptr);
    return finish(TEST_RESULT_PASSED, ERROR_CODE_NONE);
  }
  if (!ValidateTestOptions(Module, testName))
    return finish(TEST_RESULT_FAILED, ERROR_CODE_INVALID_OPTIONS);
  DumpTestOptions();
}
