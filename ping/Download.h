// One HTTP(S) GET through the firmware's HTTP client, its body read in pieces into one bounded buffer
// and handed to the caller as it arrives: no memory for the whole file. The counter stamps the first
// and the last piece, so that the caller can work out the receive throughput.
#pragma once
#include "ping/HttpExchange.h"

// What the download reads of the answer's headers.
struct ResponseHeaders {
  bool HasLength = false;      // a Content-Length that reads as a number
  UINT64 Length = 0;           // its value
  bool LengthConflict = false; // several Content-Length fields that disagree, or one that is not a number
  bool Chunked = false;        // Transfer-Encoding names chunked
  CHAR8 ContentType[64] = {};
  CHAR8 Location[160] = {}; // where a redirection points
  CHAR8 Server[64] = {};
};

// Reads the fields the download needs from the headers the firmware parsed (names without regard to
// case; a field the firmware left without a name or a value is skipped; texts are cut to their
// buffers). A body's length is trusted only when every Content-Length field gives the same number.
void ReadResponseHeaders(const EFI_HTTP_HEADER* Headers, UINTN Count, ResponseHeaders* Out);

enum class DownloadEnd : UINT8 {
  Complete,      // the whole body: Content-Length bytes, or up to the end the server marked
  NoChild,       // no HTTP child could be made or configured
  RequestFailed, // the request was not sent: name, connection or TLS (Status says which)
  NoAnswer,      // no answer within the stall time
  HttpError,     // the server answered with a status of 300 or more
  Stalled,       // no byte of the body within the stall time
  Cut,           // the body ended before Content-Length (Status: how the connection ended)
  Stopped,       // the caller's sink asked to stop (the operator answered)
  NoMemory,      // the receive buffer or an exchange could not be had
};

struct DownloadSettings {
  const CHAR16* Url = nullptr;
  bool Ipv6 = false;    // the child goes over IPv6 (an IPv6 server)
  UINT32 StallMs = 0;   // no byte for this long ends the download
  UINTN ChunkBytes = 0; // the body buffer each answer call fills
};

// The caller's side: the answer's headers once they are in, then each piece of the body as it arrives
// (Total bytes so far), with a chance to stop.
struct DownloadSink {
  void* Context = nullptr;
  void (*Answer)(void* Context, const ResponseHeaders& Headers) = nullptr;
  bool (*Piece)(void* Context, const UINT8* Data, UINTN Size, UINT64 Total) = nullptr;
};

struct DownloadResult {
  DownloadEnd End = DownloadEnd::NoChild;
  EFI_STATUS Status = EFI_NOT_STARTED; // the firmware's status behind the end
  UINTN HttpCode = 0;                  // the answer's status (0: none, or one the firmware does not name)
  ResponseHeaders Headers;
  UINT64 Received = 0;    // body bytes
  UINT64 FirstBytes = 0;  // the bytes of the first piece, which arrived before FirstTicks
  UINT64 FirstTicks = 0;  // the counter when the first piece of the body arrived (0: none)
  UINT64 LastTicks = 0;   // ... and the last
  UINT64 AnswerCalls = 0; // answer calls made for the body
  UINT64 SinkTicks = 0;   // of LastTicks - FirstTicks, the ticks in the sink: the rest is the firmware's
};

DownloadResult HttpDownload(EFI_HANDLE Service, const DownloadSettings& Settings, const DownloadSink& Sink);
