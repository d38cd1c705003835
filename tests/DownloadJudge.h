// downloadtest's judgement, apart from the firmware: the URL it was given, the error codes, and
// what a finished download (or its failure) comes to, with the figures the log shows.
#pragma once
#include "base/Sha256.h"
#include "ping/Download.h"
#include "options/Catalog.h"
#include "report/Results.h"

constexpr UINTN kDownloadGroup = TestErrorGroup(8);
constexpr UINTN kNoHttp = kDownloadGroup + 0x01;
constexpr UINTN kNoSuchNic = kDownloadGroup + 0x02;
constexpr UINTN kNoLink = kDownloadGroup + 0x03;
constexpr UINTN kNoAddress = kDownloadGroup + 0x04;
constexpr UINTN kNameUnresolved = kDownloadGroup + 0x05;
constexpr UINTN kNoConnection = kDownloadGroup + 0x06;
constexpr UINTN kTlsFailed = kDownloadGroup + 0x07;
constexpr UINTN kHttpStatus = kDownloadGroup + 0x08;
constexpr UINTN kTransferBroken = kDownloadGroup + 0x09;
constexpr UINTN kDigestMismatch = kDownloadGroup + 0x0A;
constexpr UINTN kTooSlow = kDownloadGroup + 0x0B;

constexpr UINTN kHostChars = 256;

// The parts of -url the test needs before the firmware sees it.
struct UrlParts {
  bool Https;
  bool Ipv6;               // the host is an IPv6 address in brackets
  bool IsName;             // the host is a name to resolve (not an address)
  CHAR16 Host[kHostChars]; // without brackets or port
  UINT16 Port;             // 0: the scheme's own
};

// http:// or https://, a host (a name of letters, digits, '-' and '.', a dotted IPv4 address, or an
// IPv6 address in brackets), an optional port, then nothing or a path from '/'. False for anything
// else: the firmware would refuse it with a status that says less.
bool SplitDownloadUrl(const CHAR16* Url, UrlParts* Parts);

struct DownloadVerdict {
  UINTN Code = ERROR_CODE_NONE; // ERROR_CODE_NONE: passed
  bool Timed = false;           // the transfer lasted long enough to time
  UINT64 Milliseconds = 0;      // first to last byte
  UINT64 KibPerSecond = 0;
  UINT64 Mbps = 0;             // Mbit/s of 2^20 bits, as the speed test counts
  UINT64 SinkMilliseconds = 0; // of Milliseconds, the module's own work on the pieces
  bool DigestChecked = false;
};

// What the download comes to: the failure the firmware's answer shows (a failed request is a TLS
// failure for an https URL when the firmware says so, a connection failure otherwise), then the
// body's length, the digest (Wanted null: none asked) and the throughput against MinSpeed (0: none).
// Frequency: the counter's ticks per second (0: not timed).
DownloadVerdict JudgeDownload(const DownloadResult& Result, const UrlParts& Url,
                              const UINT8 (*Wanted)[kSha256Bytes], const UINT8 (&Got)[kSha256Bytes],
                              UINT64 MinSpeed, UINT64 Frequency);

// The log lines of a finished download: the answer, the bytes, the figure and what failed.
void SayDownload(const DownloadResult& Result, const DownloadVerdict& Verdict, const UrlParts& Url,
                 const UINT8 (*Wanted)[kSha256Bytes], const UINT8 (&Got)[kSha256Bytes], UINT64 MinSpeed,
                 UINT64 TimeoutSeconds);
