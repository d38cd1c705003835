#include "base/Print.h"
#include "base/Cxx.h"

// The text name of a status ("Success", "Not Found", ...), or null when the value has none.
static const CHAR16* StatusName(EFI_STATUS Status);

using wc::Min;

namespace {

constexpr UINTN kMaxWidth = 29;

struct StatusEntry {
  EFI_STATUS status;
  const CHAR16* name;
};

constexpr StatusEntry kStatusNames[] = {
    {EFI_SUCCESS, u"Success"},
    {EFI_LOAD_ERROR, u"Load Error"},
    {EFI_INVALID_PARAMETER, u"Invalid Parameter"},
    {EFI_UNSUPPORTED, u"Unsupported"},
    {EFI_BAD_BUFFER_SIZE, u"Bad Buffer Size"},
    {EFI_BUFFER_TOO_SMALL, u"Buffer Too Small"},
    {EFI_NOT_READY, u"Not Ready"},
    {EFI_DEVICE_ERROR, u"Device Error"},
    {EFI_WRITE_PROTECTED, u"Write Protected"},
    {EFI_OUT_OF_RESOURCES, u"Out of Resources"},
    {EFI_VOLUME_CORRUPTED, u"Volume Corrupt"},
    {EFI_VOLUME_FULL, u"Volume Full"},
    {EFI_NO_MEDIA, u"No Media"},
    {EFI_MEDIA_CHANGED, u"Media changed"},
    {EFI_NOT_FOUND, u"Not Found"},
    {EFI_ACCESS_DENIED, u"Access Denied"},
    {EFI_NO_RESPONSE, u"No Response"},
    {EFI_NO_MAPPING, u"No mapping"},
    {EFI_TIMEOUT, u"Time out"},
    {EFI_NOT_STARTED, u"Not started"},
    {EFI_ALREADY_STARTED, u"Already started"},
    {EFI_ABORTED, u"Aborted"},
    {EFI_ICMP_ERROR, u"ICMP Error"},
    {EFI_TFTP_ERROR, u"TFTP Error"},
    {EFI_PROTOCOL_ERROR, u"Protocol Error"},
    {EFI_INCOMPATIBLE_VERSION, u"Incompatible Version"},
    {EFI_SECURITY_VIOLATION, u"Security Violation"},
    {EFI_CRC_ERROR, u"CRC Error"},
    {EFI_END_OF_MEDIA, u"End of Media"},
    {EFI_END_OF_FILE, u"End of File"},
    {EFI_INVALID_LANGUAGE, u"Invalid Language"},
    {EFI_WARN_UNKNOWN_GLYPH, u"Warning Unknown Glyph"},
    {EFI_WARN_DELETE_FAILURE, u"Warning Delete Failure"},
    {EFI_WARN_WRITE_FAILURE, u"Warning Write Failure"},
    {EFI_WARN_BUFFER_TOO_SMALL, u"Warning Buffer Too Small"},
};

// Output cursor that never writes past the last character before the terminator.
class Sink {
public:
  Sink(CHAR16* buffer, UINTN bufferSize)
      : buffer_(buffer), capacity_(buffer == nullptr ? 0 : bufferSize / sizeof(CHAR16)) {}
  bool Full() const { return capacity_ == 0 || used_ + 1 >= capacity_; }
  void Put(CHAR16 c) {
    if (!Full())
      buffer_[used_++] = c;
  }
  void PutRepeated(CHAR16 c, UINTN count) {
    for (UINTN i = 0; i < count && !Full(); ++i)
      Put(c);
  }
  UINTN Finish() {
    if (capacity_ != 0)
      buffer_[used_] = 0;
    return used_;
  }

private:
  CHAR16* buffer_;
  UINTN capacity_;
  UINTN used_ = 0;
};

struct Spec {
  bool zeroPad = false;
  bool noPad = false;
  bool comma = false;
  UINTN width = 0;
};

// Writes digits (already in most-significant-first order) with sign and padding.
void PutNumberText(Sink& out, const Spec& spec, const CHAR16* digits, UINTN count, bool negative) {
  UINTN length = count + (negative ? 1 : 0);
  UINTN pad = (!spec.noPad && spec.width > length) ? spec.width - length : 0;
  // A negative number is padded with blanks even when zero padding was asked for.
  bool zeros = spec.zeroPad && !negative;
  if (!zeros)
    out.PutRepeated(u' ', pad);
  if (negative)
    out.Put(u'-');
  if (zeros)
    out.PutRepeated(u'0', pad);
  for (UINTN i = 0; i < count; ++i)
    out.Put(digits[i]);
}

void PutUnsigned(Sink& out, const Spec& spec, UINT64 value, unsigned base, bool negative) {
  CHAR16 reversed[64];
  UINTN n = 0;
  unsigned group = 0;
  do {
    if (spec.comma && base == 10 && group == 3) {
      reversed[n++] = u',';
      group = 0;
    }
    unsigned digit = unsigned(value % base);
    reversed[n++] = CHAR16(digit < 10 ? u'0' + digit : u'A' + digit - 10);
    value /= base;
    ++group;
  } while (value != 0);
  CHAR16 digits[64];
  for (UINTN i = 0; i < n; ++i)
    digits[i] = reversed[n - 1 - i];
  PutNumberText(out, spec, digits, n, negative);
}

void PutText16(Sink& out, const Spec& spec, const CHAR16* text) {
  if (text == nullptr)
    text = u"<null string>";
  UINTN length = 0;
  for (const CHAR16* p = text; *p != 0; ++p, ++length)
    out.Put(*p);
  if (!spec.noPad && spec.width > length)
    out.PutRepeated(u' ', spec.width - length);
}

void PutText8(Sink& out, const Spec& spec, const CHAR8* text) {
  if (text == nullptr) {
    PutText16(out, spec, nullptr);
    return;
  }
  UINTN length = 0;
  for (const CHAR8* p = text; *p != 0; ++p, ++length)
    out.Put(CHAR16(UINT8(*p)));
  if (!spec.noPad && spec.width > length)
    out.PutRepeated(u' ', spec.width - length);
}

void PutHexFixed(Sink& out, UINT64 value, unsigned digits, bool upper) {
  for (int shift = int(digits) * 4 - 4; shift >= 0; shift -= 4) {
    unsigned d = unsigned(value >> shift) & 0xF;
    out.Put(CHAR16(d < 10 ? u'0' + d : (upper ? u'A' : u'a') + d - 10));
  }
}

void PutGuid(Sink& out, const EFI_GUID* guid) {
  if (guid == nullptr)
    return;
  PutHexFixed(out, guid->Data1, 8, false);
  out.Put(u'-');
  PutHexFixed(out, guid->Data2, 4, false);
  out.Put(u'-');
  PutHexFixed(out, guid->Data3, 4, false);
  out.Put(u'-');
  for (int i = 0; i < 8; ++i) {
    if (i == 2)
      out.Put(u'-');
    PutHexFixed(out, guid->Data4[i], 2, false);
  }
}

UINT64 NumberOf(const PrintArg& arg) {
  switch (arg.kind) {
  case PrintArg::Kind::Number:
  case PrintArg::Kind::Signed:
    return arg.number;
  case PrintArg::Kind::Pointer:
  case PrintArg::Kind::Text16:
  case PrintArg::Kind::Text8:
    return UINT64(reinterpret_cast<UINTN>(arg.pointer));
  default:
    return 0;
  }
}

} // namespace

static const CHAR16* StatusName(EFI_STATUS Status) {
  for (const auto& entry : kStatusNames)
    if (entry.status == Status)
      return entry.name;
  return nullptr;
}

UINTN FormatV(CHAR16* Buffer, UINTN BufferSize, const CHAR16* Format, const PrintArg* Args, UINTN ArgCount) {
  Sink out(Buffer, BufferSize);
  if (Format == nullptr)
    return out.Finish();
  UINTN next = 0;
  auto take = [&]() -> PrintArg { return next < ArgCount ? Args[next++] : PrintArg(); };

  for (const CHAR16* p = Format; *p != 0 && !out.Full(); ++p) {
    if (*p != u'%') {
      out.Put(*p);
      continue;
    }
    ++p;
    Spec spec;
    for (;; ++p) {
      if (*p == u'0' && spec.width == 0)
        spec.zeroPad = true;
      else if (*p == u'-')
        spec.noPad = true;
      else if (*p == u',')
        spec.comma = true;
      else if (*p == u'l')
        ;
      else if (*p >= u'0' && *p <= u'9')
        spec.width = Min(spec.width * 10 + UINTN(*p - u'0'), kMaxWidth);
      else
        break;
    }
    if (*p == 0)
      break;
    switch (*p) {
    case u's':
    case u'S': {
      PrintArg a = take();
      if (a.kind == PrintArg::Kind::Text16)
        PutText16(out, spec, a.text16);
      else if (a.kind == PrintArg::Kind::Text8)
        PutText8(out, spec, a.text8);
      else
        PutText16(out, spec, nullptr);
      break;
    }
    case u'a': {
      PrintArg a = take();
      if (a.kind == PrintArg::Kind::Text8)
        PutText8(out, spec, a.text8);
      else if (a.kind == PrintArg::Kind::Text16)
        PutText16(out, spec, a.text16);
      else
        PutText16(out, spec, nullptr);
      break;
    }
    case u'c':
      out.Put(CHAR16(NumberOf(take())));
      break;
    case u'd': {
      UINT64 v = NumberOf(take());
      bool negative = INT64(v) < 0;
      PutUnsigned(out, spec, negative ? UINT64(0) - v : v, 10, negative);
      break;
    }
    case u'x':
      PutUnsigned(out, spec, NumberOf(take()), 16, false);
      break;
    case u'X': {
      Spec fixed = spec;
      if (fixed.width == 0) {
        fixed.width = 16;
        fixed.zeroPad = true;
      }
      PutUnsigned(out, fixed, NumberOf(take()), 16, false);
      break;
    }
    case u'r': {
      EFI_STATUS status = NumberOf(take());
      if (const CHAR16* name = StatusName(status)) {
        PutText16(out, spec, name);
      } else {
        Spec fixed;
        fixed.width = 16;
        fixed.zeroPad = true;
        PutUnsigned(out, fixed, status, 16, false);
      }
      break;
    }
    case u'g': {
      PrintArg a = take();
      PutGuid(out, a.kind == PrintArg::Kind::Pointer ? static_cast<const EFI_GUID*>(a.pointer) : nullptr);
      break;
    }
    default:
      out.Put(*p); // "%%" and any unknown conversion print the character itself
      break;
    }
  }
  return out.Finish();
}
