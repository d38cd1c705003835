// A test's options declared once. Each declaration is the option's row (what the catalog, the usage
// text and validation see) and how a run takes the value into the test's own options record: the
// field it lands in and, where the test has one, the check and trace of what was read. The rows and
// the reader both come from the one list, in the manner of iPXE's option descriptors.
//
//   struct MyOptions { UINT64 Retries; const CHAR16* Name; };
//   constexpr auto kOptions = DeclareOptions<MyOptions>(
//       OptionField<MyOptions>({.Name = u"-retries", .Type = OPTION_TYPE_INTEGER, ...},
//                              [](MyOptions& o, const OptionRead& v) { return Store(o.Retries, v); }),
//       ...);
//   TestInfo: .Options = kOptions.Rows;   a run: kOptions.Reader().Read(record)
#pragma once
#include "options/Catalog.h"
#include "options/OptionStore.h"
#include "report/Output.h"

// What the getters handed back for one option: its value (a number, a boolean, or a text's handle
// that OptionText turns into the text) and whether the option string gave it.
struct OptionRead {
  UINT64 Value;
  BOOLEAN Given;
};

// Takes a read value into a record; an error status refuses the run (the take logs why).
template <class Record> using OptionTake = EFI_STATUS (*)(Record& Into, const OptionRead& Read);

template <class Record> struct OptionDecl {
  OptionInfo Row;
  OptionTake<Record> Take;
};
template <class Record>
constexpr OptionDecl<Record> OptionField(const OptionInfo& Row, OptionTake<Record> Take) {
  return {Row, Take};
}

// The plain takes: a field of the value's own type.
inline EFI_STATUS Store(UINT64& Field, const OptionRead& Read) {
  Field = Read.Value;
  return EFI_SUCCESS;
}
inline EFI_STATUS Store(UINT16& Field, const OptionRead& Read) {
  Field = UINT16(Read.Value);
  return EFI_SUCCESS;
}
inline EFI_STATUS Store(BOOLEAN& Field, const OptionRead& Read) {
  Field = BOOLEAN(Read.Value != 0);
  return EFI_SUCCESS;
}
inline EFI_STATUS Store(const CHAR16*& Field, const OptionRead& Read) {
  Field = OptionText(Read.Value);
  return EFI_SUCCESS;
}

// A plain take that also traces the value with Format (one %d or %s).
template <class T> EFI_STATUS StoreTraced(T& Field, const OptionRead& Read, const CHAR16* Format) {
  Store(Field, Read);
  TracePrint(Format, Field);
  return EFI_SUCCESS;
}

// How a run reads its declared options, whatever their number.
template <class Record> struct OptionReader {
  const OptionInfo* Rows;
  const OptionTake<Record>* Takes;
  const UINT8* Order; // the reading order, as row positions
  UINTN Count;

  // Reads every option into Into. A getter failure is logged "Failed to get value of option %s - %r"
  // unless Quiet, and returned; so is the first take that refuses, with *Refused set.
  EFI_STATUS Read(Record& Into, bool* Refused = nullptr, bool Quiet = false) const {
    if (Refused != nullptr)
      *Refused = false;
    for (UINTN k = 0; k < Count; ++k) {
      const OptionInfo& row = Rows[Order[k]];
      OptionRead read = {0, FALSE};
      EFI_STATUS status;
      if (row.Type == OPTION_TYPE_BOOLEAN) {
        BOOLEAN flag = FALSE;
        status = GetOptionBoolean(row.Name, &flag, &read.Given);
        read.Value = flag;
      } else {
        status = GetOptionValue(row.Name, &read.Value, &read.Given);
      }
      if (EFI_ERROR(status)) {
        if (!Quiet)
          LogPrint(u"Failed to get value of option %s - %r\r\n", row.Name, status);
        return status;
      }
      status = Takes[Order[k]](Into, read);
      if (EFI_ERROR(status)) {
        if (Refused != nullptr)
          *Refused = true;
        return status;
      }
    }
    return EFI_SUCCESS;
  }
};

template <class Record, UINTN N> struct DeclaredOptions {
  OptionInfo Rows[N + 1]; // ends with the empty row
  OptionTake<Record> Takes[N];
  UINT8 Order[N];

  constexpr OptionReader<Record> Reader() const { return {Rows, Takes, Order, N}; }
  // The same options read in another order than their rows stand in (positions of the rows).
  constexpr DeclaredOptions ReadInOrder(const UINT8 (&ReadOrder)[N]) const {
    DeclaredOptions copy = *this;
    for (UINTN i = 0; i < N; ++i)
      copy.Order[i] = ReadOrder[i];
    return copy;
  }
};

template <class Record, class... Decl>
constexpr DeclaredOptions<Record, sizeof...(Decl)> DeclareOptions(const Decl&... Decls) {
  static_assert(sizeof...(Decl) > 0 && sizeof...(Decl) < 256);
  DeclaredOptions<Record, sizeof...(Decl)> table = {};
  UINTN i = 0;
  ((table.Rows[i] = Decls.Row, table.Takes[i] = Decls.Take, table.Order[i] = UINT8(i), ++i), ...);
  return table;
}
