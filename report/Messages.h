// Numbered operator messages from the XML message file beside the module (Wirecheck.msg.xml),
// one element per three-letter language, with an override file ("x_" in front of the name) and
// an English fallback; and the conversion of language codes for drivers' controller names.
#pragma once
#include "uefi/Base.h"

constexpr const CHAR16* kMessageFileName = u"Wirecheck.msg.xml";

EFI_STATUS GetLocalizedMessage(const CHAR8* Language, UINTN MessageId, const CHAR16* MessageFile,
                               CHAR16** Text);
// The text (the caller frees it) or null, with a log line saying why.
CHAR16* GetMessageText(const CHAR8* Language, UINTN MessageId, const CHAR16* MessageFile);
const CHAR8* Iso639ToRfc4646(const CHAR8* Language, const CHAR8* SupportedLanguages);
const CHAR8* LookupIso639(const CHAR8* Language, const CHAR8* SupportedLanguages);
