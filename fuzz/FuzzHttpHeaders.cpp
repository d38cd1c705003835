// Fuzz target: the answer's headers as the firmware's HTTP client hands them over (any count, any
// bytes, names or values missing), read for the download; the URL text the test splits; and the
// judgement of a download whose headers and byte counts come from the same bytes.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/DownloadJudge.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::vector<std::string> texts;
  size_t fields = in.ConsumeIntegralInRange<size_t>(0, 12);
  for (size_t i = 0; i < 2 * fields; ++i)
    texts.push_back(in.ConsumeRandomLengthString(64));
  std::vector<EFI_HTTP_HEADER> headers(fields);
  for (size_t i = 0; i < fields; ++i) {
    // A field the firmware left without a name or a value, now and then.
    headers[i].FieldName = texts[2 * i].empty() ? nullptr : const_cast<CHAR8*>(texts[2 * i].c_str());
    headers[i].FieldValue = const_cast<CHAR8*>(texts[2 * i + 1].c_str());
  }
  DownloadResult result;
  ReadResponseHeaders(headers.data(), headers.size(), &result.Headers);
  if (result.Headers.LengthConflict && result.Headers.HasLength)
    __builtin_trap(); // a length the fields disagree on is never trusted
  for (const CHAR8* text : {result.Headers.ContentType, result.Headers.Location, result.Headers.Server})
    for (const CHAR8* c = text; *c != 0; ++c)
      if (*c < ' ' || *c > '~')
        __builtin_trap(); // nothing that moves a terminal's cursor reaches the log

  std::string url = in.ConsumeRandomLengthString(300);
  std::u16string wide(url.begin(), url.end());
  UrlParts parts;
  bool split = SplitDownloadUrl(wide.c_str(), &parts);
  if (split && parts.Host[0] == 0)
    __builtin_trap();

  result.End = static_cast<DownloadEnd>(in.ConsumeIntegralInRange<int>(0, 8));
  result.Status = in.ConsumeIntegral<EFI_STATUS>();
  result.Received = in.ConsumeIntegral<UINT64>();
  result.FirstBytes = in.ConsumeIntegralInRange<UINT64>(0, result.Received);
  result.FirstTicks = in.ConsumeIntegral<UINT64>();
  result.LastTicks = in.ConsumeIntegral<UINT64>();
  UINT8 wanted[kSha256Bytes] = {}, got[kSha256Bytes] = {};
  in.ConsumeData(got, sizeof(got));
  DownloadVerdict v = JudgeDownload(result, parts, in.ConsumeBool() ? &wanted : nullptr, got,
                                    in.ConsumeIntegral<UINT64>(), in.ConsumeIntegral<UINT64>());
  if (v.Code != ERROR_CODE_NONE && (v.Code & 0xFFFFFF00) != 0x80160900 && v.Code != ERROR_CODE_SOFTWARE)
    __builtin_trap();
  return 0;
}
