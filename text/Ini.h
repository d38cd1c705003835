// INI files: a whole file loaded as a list of lines, and queries whose section, key and value
// criteria are regular expressions. The reader never writes files.
#pragma once
#include "base/Owners.h"
#include "uefi/Base.h"

constexpr UINTN kIniPathChars = 512;

struct INI_LINE {
  CHAR16* Section; // each part is null when the line has none
  CHAR16* Key;
  CHAR16* Value;
  CHAR16* Comment;
  UINT32 OwnedParts; // parts that are pool strings of their own (0 for parsed lines)
  UINT64 QueryMark;
  INI_LINE* PreviousLine;
  INI_LINE* NextLine;
  INI_LINE* NextSection;  // on a section line
  INI_LINE* OwnerSection; // on any other line: the last section line above it
};

struct INI_DOCUMENT {
  CHAR16 FilePath[kIniPathChars];
  UINTN Encoding; // 1: 8-bit file, 2: UCS-2 little-endian file
  CHAR16* Text;
  UINTN TextSize; // bytes, without the terminator
  INI_LINE* FirstLine;
};

constexpr UINTN INI_ENCODING_DETECT = 0;
constexpr UINTN INI_ENCODING_8BIT = 1;
constexpr UINTN INI_ENCODING_UCS2 = 2;

constexpr UINT32 INI_CASE_INSENSITIVE = 0x1;
constexpr UINT32 INI_TRIM = 0x2;
constexpr UINT32 INI_STRIP_QUOTES = 0x4;
constexpr UINT32 INI_WITH_SECTION = 0x8;
constexpr UINT32 INI_SECTIONS_ONLY = 0x10;
constexpr UINT32 INI_NO_SECTIONS = 0x20;
constexpr UINT32 INI_VALUES_ONLY = 0x40;
constexpr UINT32 INI_NO_COMMENT = 0x80;
constexpr UINT32 INI_SKIP_EMPTY = 0x100;

EFI_STATUS IniOpen(const CHAR16* Path, UINTN Encoding, INI_DOCUMENT** Document);
// The same from bytes already in memory (the file's contents).
EFI_STATUS IniLoad(const UINT8* Data, UINTN Size, UINTN Encoding, INI_DOCUMENT** Document);
EFI_STATUS IniQuery(INI_DOCUMENT* Document, const CHAR16* SectionPattern, const CHAR16* KeyPattern,
                    const CHAR16* ValuePattern, UINT32 Flags, UINTN* Count, CHAR16*** Strings);
void IniFreeStrings(UINTN Count, CHAR16** Strings);
void IniClose(INI_DOCUMENT* Document);

// A document closed whichever way its owner's scope ends.
using IniDocumentOwner = wc::Owned<INI_DOCUMENT, IniClose>;

// The strings of one query, freed whichever way their owner's scope ends.
struct IniStringsOwner {
  UINTN Count = 0;
  CHAR16** Strings = nullptr;
  IniStringsOwner() = default;
  IniStringsOwner(const IniStringsOwner&) = delete;
  IniStringsOwner& operator=(const IniStringsOwner&) = delete;
  ~IniStringsOwner() { IniFreeStrings(Count, Strings); }
};

// The lines of one section of an open document, as IniQuery gives them with these flags.
inline EFI_STATUS IniSectionLines(INI_DOCUMENT* Document, const CHAR16* Section, UINT32 Flags,
                                  IniStringsOwner& Lines) {
  return IniQuery(Document, Section, u".*", nullptr, Flags, &Lines.Count, &Lines.Strings);
}
