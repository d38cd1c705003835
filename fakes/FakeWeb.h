// The web as the download test meets it through a FakeNic: the firmware's DNS client (names to
// addresses, or a name that does not exist, or a server that never answers) and its HTTP client with
// one server behind it, which answers with a status, headers and a body in pieces, or refuses the
// connection, fails TLS, stops sending or closes halfway. Every call counts as a use of the fake
// firmware, so that the failure sweep fails each in turn.
#pragma once
#include <string>
#include <vector>

#include "base/Sha256.h"
#include "fakes/FakeNetwork.h"
#include "uefi/protocol/Dns4.h"
#include "uefi/protocol/Hash2.h"
#include "uefi/protocol/Http.h"

// The SHA-256 of a body as -sha256 takes it.
inline std::u16string DigestText(const std::string& Body) {
  Sha256 h;
  h.Update(Body.data(), Body.size());
  UINT8 d[kSha256Bytes];
  h.Final(d);
  CHAR16 text[kSha256HexChars + 1];
  FormatSha256Hex(d, text);
  return std::u16string(text);
}

// Whether the firmware's position of an answer's status is one of 300 or more.
bool HttpStatusIsError(EFI_HTTP_STATUS_CODE Code);

struct FakeWeb {
  explicit FakeWeb(FakeNic& nic);
  ~FakeWeb();
  FakeWeb(const FakeWeb&) = delete;
  FakeWeb& operator=(const FakeWeb&) = delete;

  FakeNic& nic;

  // The DNS side.
  std::string knownName = "files.example"; // the one name that resolves, to 10.0.2.2
  bool dnsAnswers = true;                  // false: no server answers (the token stays pending)
  // The HTTP side.
  EFI_STATUS request = EFI_SUCCESS; // what Request returns: a refused connection, a failed TLS handshake
  EFI_HTTP_STATUS_CODE code = 3;    // the firmware's position of 200
  std::string body = std::string(300000, 'w');
  bool sendLength = true;       // Content-Length with the body's size
  size_t piece = 1460;          // the most one answer call gives
  size_t stallAfter = SIZE_MAX; // after this many body bytes nothing more comes
  size_t closeAfter = SIZE_MAX; // after this many body bytes the connection ends (Connection Closed)
  UINT64 pieceTime = 1000;      // virtual time one piece takes (100 ns units)

  // The firmware's hash protocol (EFI_HASH2), which computes with the module's own SHA-256.
  void OfferHash2();
  EFI_STATUS hashUpdate = EFI_SUCCESS; // what HashUpdate returns (after the sweep's own failures)

  // What the module did.
  std::vector<std::string> requestedUrls, lookedUp;
  bool overIpv6 = false; // the last configuration of a child was IPv6's
  UINTN cancels = 0;
  UINTN hashUpdates = 0;
  UINTN LiveChildren() const { return http.children.size() + dns.children.size() + hash.children.size(); }
  bool TokenPending() const { return pending != nullptr; }

  // Inner state.
  FakeBinding http{}, dns{}, hash{};
  struct HashInstance {
    EFI_HASH2_PROTOCOL p;
    Sha256 state;
    bool started;
  } hashChild{};
  struct HttpInstance {
    EFI_HTTP_PROTOCOL p;
    FakeWeb* web;
  } httpChild{};
  struct DnsInstance {
    EFI_DNS4_PROTOCOL p;
    FakeWeb* web;
  } dnsChild{};
  size_t served = 0;
  bool requested = false;
  EFI_HTTP_TOKEN* pending = nullptr;
  EFI_DNS4_COMPLETION_TOKEN* dnsPending = nullptr;

  static FakeWeb* current;
};
