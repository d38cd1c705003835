#include "report/Messages.h"
#include "base/Owners.h"
#include "base/String.h"
#include "base/Number.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "text/Xml.h"

namespace {

constexpr UINTN kPathChars = 512;
constexpr UINTN kLanguageNameChars = 16; // 15 characters and the terminator

// Three-letter code followed by the two-letter code, five characters a record.
constexpr CHAR8 kLanguageCodeTable[] =
    "engenfrafrdeudeitaitespesjpnjadandafinfidutnlnornoswesvzhozhchszharaarbulbgczecsgreelestethebiwhrvsh"
    "hunhukorkolitltlavlvpolplronrorusruslkskslvslthathturtrukruksrpsrporptpoppt";
constexpr UINTN kLanguageRecords = 35;
static_assert(sizeof(kLanguageCodeTable) == kLanguageRecords * 5 + 1);

bool StartsWith(const CHAR8* text, const CHAR8* prefix) {
  for (; *prefix != 0; ++text, ++prefix)
    if (*text != *prefix)
      return false;
  return true;
}

// Is the element a message: named Message (any case), one text child, an ID attribute?
bool IsMessage(const XmlNode* n, UINTN id) {
  if (n->Type != XML_ELEMENT || !StriEq(n->Name, u"Message") || n->FirstChild == nullptr ||
      n->FirstChild != n->LastChild || n->FirstChild->Type != XML_TEXT)
    return false;
  const CHAR16* value = XmlGetAttributeValue(n, u"ID", TRUE);
  return value != nullptr && StrToInteger(value, nullptr, FALSE) == id;
}

// One file, one language.
EFI_STATUS LookupInFile(const CHAR8* language, UINTN id, const CHAR16* file, CHAR16** text) {
  if (text == nullptr)
    return EFI_INVALID_PARAMETER;
  *text = nullptr;
  if (language == nullptr || file == nullptr)
    return EFI_INVALID_PARAMETER;
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), file);
  FileIoResolveModulePath(path, sizeof(path));
  XmlDocumentOwner doc;
  EFI_STATUS status = XmlLoadFile(path, doc.Receive(), TRUE);
  if (EFI_ERROR(status))
    return status;
  CHAR16 name[kLanguageNameChars];
  AsciiToUnicode(name, sizeof(name), language);
  status = EFI_NOT_FOUND;
  XmlNode* element =
      XmlFindElement(doc.Get(), 0, XML_PRE_ORDER, nullptr, name, FALSE, nullptr, FALSE, nullptr, FALSE);
  for (XmlNode* n = element != nullptr ? element->FirstChild : nullptr; n != nullptr; n = n->NextSibling) {
    if (IsMessage(n, id)) {
      *text = StrDuplicate(n->FirstChild->Name);
      status = *text != nullptr ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
      break;
    }
  }
  return status;
}

// One file, the language and then English.
EFI_STATUS LookupWithFallback(const CHAR8* language, UINTN id, const CHAR16* file, CHAR16** text) {
  EFI_STATUS status = LookupInFile(language, id, file, text);
  if (status == EFI_NOT_FOUND && language != nullptr) {
    CHAR16 wide[kLanguageNameChars];
    AsciiToUnicode(wide, sizeof(wide), language);
    if (!StriEq(wide, u"eng"))
      status = LookupInFile("eng", id, file, text);
  }
  return status;
}

} // namespace

EFI_STATUS GetLocalizedMessage(const CHAR8* Language, UINTN MessageId, const CHAR16* MessageFile,
                               CHAR16** Text) {
  DebugLogPrint(u"Localization(908) - MessageID %d pszMessageFile %s.\r\n", MessageId, MessageFile);
  if (MessageFile == nullptr || MessageFile[0] == 0)
    return EFI_INVALID_PARAMETER;
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), MessageFile);
  DebugLogPrint(u"Localization(918) - MessageID %d pszMessageFile %s.\r\n", MessageId, MessageFile);
  CHAR16 override_[kPathChars];
  const CHAR16* lastSlash = nullptr;
  for (const CHAR16* c = path; *c != 0; ++c)
    if (*c == u'\\')
      lastSlash = c;
  if (lastSlash != nullptr) {
    UINTN dirChars = UINTN(lastSlash - path) + 1;
    StrCopy(override_, wc::Min<UINTN>(dirChars + 1, kPathChars) * sizeof(CHAR16), path);
    StrAppend(override_, sizeof(override_), u"x_");
    StrAppend(override_, sizeof(override_), lastSlash + 1);
  } else {
    SPrint(override_, sizeof(override_), u"x_%s", path);
  }
  DebugLogPrint(u"Localization(944) - MessageID %d pszMessageFile %s.\r\n", MessageId, MessageFile);
  EFI_STATUS status = LookupWithFallback(Language, MessageId, override_, Text);
  if (status != EFI_NOT_FOUND)
    return status;
  DebugLogPrint(u"Localization(952) - MessageID %d pszMessageFile %s.\r\n", MessageId, MessageFile);
  return LookupWithFallback(Language, MessageId, path, Text);
}

CHAR16* GetMessageText(const CHAR8* Language, UINTN MessageId, const CHAR16* MessageFile) {
  CHAR16 path[kPathChars];
  StrCopy(path, sizeof(path), MessageFile);
  FileIoResolveModulePath(path, sizeof(path));
  CHAR16* text = nullptr;
  EFI_STATUS status = GetLocalizedMessage(Language, MessageId, path, &text);
  if (EFI_ERROR(status)) {
    LogPrint(u"Common - Unable to get Message %d from Message File %s. (%r)\r\n", MessageId, path, status);
    return nullptr;
  }
  return text;
}

const CHAR8* Iso639ToRfc4646(const CHAR8* Language, const CHAR8* SupportedLanguages) {
  if (Language == nullptr || SupportedLanguages == nullptr)
    return nullptr;
  const CHAR8* record = nullptr;
  for (UINTN i = 0; i < kLanguageRecords && record == nullptr; ++i) {
    const CHAR8* r = kLanguageCodeTable + 5 * i;
    bool same = true;
    for (UINTN k = 0; k < 3 && same; ++k)
      same = Language[k] == r[k];
    if (same)
      record = r;
  }
  if (record == nullptr)
    return nullptr;
  const CHAR8* wanted = nullptr;
  if (record[3] == 'z' && record[4] == 'h')
    wanted = StartsWith(Language, "zho") ? "zh-Hant" : StartsWith(Language, "chs") ? "zh-Hans" : nullptr;
  else if (record[3] == 'p' && record[4] == 't')
    wanted = StartsWith(Language, "por") ? "pt_BR" : StartsWith(Language, "pot") ? "pt_PT" : nullptr;
  if (wanted != nullptr) {
    for (const CHAR8* entry = SupportedLanguages; *entry != 0;) {
      if (StartsWith(entry, wanted))
        return entry;
      while (*entry != 0 && *entry != ';')
        ++entry;
      if (*entry == ';')
        ++entry;
    }
  }
  return SupportedLanguages;
}

const CHAR8* LookupIso639(const CHAR8* Language, const CHAR8* SupportedLanguages) {
  if (Language == nullptr || SupportedLanguages == nullptr)
    return SupportedLanguages;
  for (const CHAR8* code = SupportedLanguages; code[0] != 0 && code[1] != 0 && code[2] != 0; code += 3)
    if (code[0] == Language[0] && code[1] == Language[1] && code[2] == Language[2])
      return code;
  return SupportedLanguages;
}
