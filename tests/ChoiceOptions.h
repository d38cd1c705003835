// The options of the tests that name their NIC by position or by device path (ping6test,
// downloadtest), and their choice of the NIC, worded alike.
#pragma once
#include "options/Declared.h"
#include "tests/NicSteps.h"

struct NicChoiceOptions {
  UINT64 Retries = 0;
  UINT64 Index = 1;
  bool IndexGiven = false;
  const CHAR16* DevicePath = nullptr;
  bool DevicePathGiven = false;
};

template <class O>
inline constexpr OptionDecl<O>
    kChoiceRetries = OptionField<O>({.Name = u"-retries",
                                     .Description = u"Number of retries in case of failure.",
                                     .Type = OPTION_TYPE_INTEGER,
                                     .Default = u"0",
                                     .Low = u"0",
                                     .High = u"5"},
                                    [](O& o, const OptionRead& v) { return Store(o.Retries, v); });
template <class O>
inline constexpr OptionDecl<O> kChoiceIndex = OptionField<O>(
    {.Name = u"-index",
     .Description = u"Index of network card to test, default is 1. This option is mutually exclusive from "
                    u"DevicePath option.",
     .Type = OPTION_TYPE_INTEGER,
     .Default = u"1",
     .Low = u"1",
     .High = u"128"},
    [](O& o, const OptionRead& v) {
      o.IndexGiven = v.Given;
      return Store(o.Index, v);
    });
template <class O>
inline constexpr OptionDecl<O> kChoiceDevicePath = OptionField<O>(
    {.Name = u"-devicepath",
     .Description = u"DevicePath of Network controller to be tested. This option is mutually exclusive from "
                    u"Index option.",
     .Type = OPTION_TYPE_STRING},
    [](O& o, const OptionRead& v) {
      o.DevicePathGiven = v.Given;
      return Store(o.DevicePath, v);
    });

// The chosen NIC among the managed-network handles, by -devicepath when given, otherwise by -index;
// NotThere when neither names one (logged). The error code of a choice that failed: the test's own for
// no NIC at all and for a NIC that is not there, ERROR_CODE_SOFTWARE for a failed lookup;
// ERROR_CODE_NONE when the NIC was chosen.
UINTN ChooseNicByIndexOrPath(const NicChoiceOptions& Options, UINTN NoNicCode, UINTN NotThereCode,
                             EFI_HANDLE* Nic);
