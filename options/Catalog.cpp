#include "options/Catalog.h"

namespace {
constexpr OptionInfo kEnd = {};
} // namespace

const OptionInfo kGlobalOptions[] = {
    {u"-help", u"Print general or test usage.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-debug", u"Print debug traces.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-version", u"Print diagnostic's version.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr, nullptr,
     FALSE},
    {u"-catalog", u"Print diagnostic's XML information.", OPTION_TYPE_NONE, nullptr, nullptr, nullptr,
     nullptr, FALSE},
    kEnd,
};

const CHAR16* const kCatalogTypeNames[kOptionTypeCount] = {u"", u"string", u"integer", u"integer64",
                                                           u"boolean"};
const CHAR16* const kUsageTypeNames[kOptionTypeCount] = {u"", u"STR", u"INT", u"UINT64", u"BOOL"};
