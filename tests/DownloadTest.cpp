// downloadtest: the chosen NIC fetches a file over HTTP or HTTPS through the firmware's own HTTP
// client (its DNS, its TCP, its TLS), as a machine fetches its installer: the byte count against
// Content-Length, the digest when one is given, and the receive throughput from the first byte to
// the last.
#include "base/Globals.h"
#include "base/String.h"
#include "nic/FirmwareTraits.h"
#include "nic/Ip6State.h"
#include "nic/ServiceChildren.h"
#include "options/Declared.h"
#include "ping/BringUp.h"
#include "ping/Digest.h"
#include "ping/NameLookup.h"
#include "report/Attempts.h"
#include "report/Output.h"
#include "report/TestRun.h"
#include "support/Clock.h"
#include "tests/ChoiceOptions.h"
#include "tests/DownloadJudge.h"
#include "tests/Ipv6Wait.h"
#include "tests/NicSteps.h"

EFI_STATUS DownloadTest(UINTN* Result, UINTN* ErrorCode);

namespace {

struct DownloadOptions : NicChoiceOptions {
  const CHAR16* Url = nullptr;
  const CHAR16* Sha256 = nullptr;
  UINT64 MinSpeed = 0;
  UINT64 Timeout = 30;
};

constexpr auto kOptions = DeclareOptions<DownloadOptions>(
    kChoiceRetries<DownloadOptions>, kChoiceIndex<DownloadOptions>, kChoiceDevicePath<DownloadOptions>,
    OptionField<DownloadOptions>({.Name = u"-url",
                                  .Description =
                                      u"The file to download: http://HOST[:PORT]/PATH or https://...; "
                                      u"HOST a name, an IPv4 address or an IPv6 address in brackets.",
                                  .Type = OPTION_TYPE_STRING,
                                  .Required = TRUE},
                                 [](DownloadOptions& o, const OptionRead& v) { return Store(o.Url, v); }),
    OptionField<DownloadOptions>(
        {.Name = u"-sha256",
         .Description = u"The SHA-256 digest the file must have, 64 hexadecimal digits.",
         .Type = OPTION_TYPE_STRING},
        [](DownloadOptions& o, const OptionRead& v) { return Store(o.Sha256, v); }),
    OptionField<DownloadOptions>(
        {.Name = u"-MinSpeed",
         .Description = u"The lowest receive throughput that passes, in Mbit/s; 0: any.",
         .Type = OPTION_TYPE_INTEGER,
         .Default = u"0",
         .Low = u"0",
         .High = u"99999"},
        [](DownloadOptions& o, const OptionRead& v) { return Store(o.MinSpeed, v); }),
    OptionField<DownloadOptions>(
        {.Name = u"-timeout",
         .Description = u"Seconds without a byte after which the transfer counts as "
                        u"stalled.",
         .Type = OPTION_TYPE_INTEGER,
         .Default = u"30",
         .Low = u"1",
         .High = u"600"},
        [](DownloadOptions& o, const OptionRead& v) { return Store(o.Timeout, v); }));

constexpr ErrorMeaning kErrors[] = {
    {kNoHttp, u"the firmware has no HTTP client on the NIC (no HTTP service binding)"},
    {kNoSuchNic, u"no NIC at that index or device path"},
    {kNoLink, u"no link"},
    {kNoAddress, u"the NIC got no IP address"},
    {kNameUnresolved, u"the server's name did not resolve"},
    {kNoConnection, u"no connection to the server"},
    {kTlsFailed, u"the TLS handshake failed"},
    {kHttpStatus, u"the server answered with an error status"},
    {kTransferBroken, u"the transfer stalled, or ended before Content-Length"},
    {kDigestMismatch, u"the file's SHA-256 digest differs from -sha256"},
    {kTooSlow, u"the receive throughput is below -MinSpeed"},
    {},
};

// The body goes through a buffer of this size per answer call: large enough that the calls' own cost
// does not bound the figure, small enough for any firmware's pool.
constexpr UINTN kChunkBytes = 256 * 1024;

constinit EchoCounter gEchoes = {0, 0};

class DownloadRun : public TestRun {
public:
  void Execute();

private:
  bool ReadOptions();
  bool Attempt(Attempts& Attempts);
  bool ChooseNic(EFI_HANDLE* Nic);
  bool HasHttp(EFI_HANDLE Nic);
  bool BringUpIpv4(EFI_HANDLE Nic);
  bool BringUpIpv6(EFI_HANDLE Nic, Ip6AutomaticPolicy& Automatic);
  bool Resolve(EFI_HANDLE Nic);
  bool Fetch(EFI_HANDLE Nic, Attempts& Attempts);
  bool Piece(const UINT8* Data, UINTN Size, UINT64 Total);

  DownloadOptions o_;
  UrlParts url_ = {};
  UINT8 digest_[kSha256Bytes] = {};
  bool checkDigest_ = false;
  FirmwareTraits firmware_ = kAssumedFirmware;
  UINTN failCode_ = kTransferBroken;
  DownloadDigest hash_; // only with -sha256
  Attempts* attempts_ = nullptr;
  UINT64 expected_ = 0;
  UINTN given_ = 0;   // progress points given to the transfer
  UINTN quarter_ = 0; // the last quarter of the file logged
};

bool DownloadRun::ReadOptions() {
  if (EFI_ERROR(kOptions.Reader().Read(o_)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  if (o_.IndexGiven && o_.DevicePathGiven)
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  if (o_.Url == nullptr || o_.Url[0] == 0) {
    ErrorPrint(u"downloadtest needs -url=http://HOST/PATH or https://HOST/PATH\r\n");
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  }
  if (!SplitDownloadUrl(o_.Url, &url_)) {
    ErrorPrint(u"Not an http:// or https:// URL with a host: %s\r\n", o_.Url);
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  }
  checkDigest_ = o_.Sha256 != nullptr && o_.Sha256[0] != 0;
  if (checkDigest_ && !ParseSha256Hex(o_.Sha256, digest_)) {
    ErrorPrint(u"-sha256 takes 64 hexadecimal digits: %s\r\n", o_.Sha256);
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  }
  return true;
}

bool DownloadRun::ChooseNic(EFI_HANDLE* Nic) {
  UINTN code = ChooseNicByIndexOrPath(o_, ERROR_CODE_NO_NIC, kNoSuchNic, Nic);
  return code == ERROR_CODE_NONE || End(Outcome::Failed(code));
}

bool DownloadRun::HasHttp(EFI_HANDLE Nic) {
  void* binding = nullptr;
  if (!EFI_ERROR(gBS->HandleProtocol(Nic, &EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &binding)))
    return true;
  LogPrint(u"The NIC has no HTTP service binding (EFI_HTTP_SERVICE_BINDING_PROTOCOL): the firmware is built "
           u"without HTTP, or its HTTP driver did not start on this NIC.\r\n");
  return End(Outcome::Failed(kNoHttp));
}

bool DownloadRun::BringUpIpv4(EFI_HANDLE Nic) {
  const BringUpPolicy policy = {
      .Rewrite = ConfigRewrite::PolicyToDhcp,
      .Echo = {&gEchoes, false, AddressWait::OneTimer, &firmware_},
      .Dhcp = {},
      .HoldChild = false,
      .AddressOnly = true,
  };
  const BringUpHooks hooks = {nullptr, nullptr, nullptr};
  Ipv4BringUp up(policy, hooks);
  BringUpResult result = up.Run({.Ip4 = Nic, .Dhcp4 = Nic, .Config2 = Nic});
  if (result.Reason == BringUpReason::Up)
    return true;
  if (result.Reason == BringUpReason::RewriteFailed) {
    LogPrint(u"The NICs' IPv4 policy could not be set to DHCP (%r)\r\n", result.Status);
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  }
  LogPrint(u"The NIC got no IPv4 address (%r)\r\n", result.Status);
  failCode_ = kNoAddress;
  return false;
}

// A server given by its IPv6 address: the NIC's addresses as its router asks for them (SLAAC or
// DHCPv6), waited for as the IPv6 ping test waits; what is missing is the NIC's lack of an address.
bool DownloadRun::BringUpIpv6(EFI_HANDLE Nic, Ip6AutomaticPolicy& Automatic) {
  if (!NicHasIpv6(Nic)) {
    failCode_ = kNoAddress;
    return false;
  }
  EFI_MAC_ADDRESS mac = {}, permanent = {};
  if (EFI_ERROR(ReadMacAddresses(gImageHandle, Nic, &mac, &permanent)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  bool switched = false;
  if (!EFI_ERROR(Automatic.Apply(Nic, &switched)) && switched)
    LogPrint(u"The NIC's IPv6 policy is manual without an address: the test sets it to automatic for the "
             u"download, and back to manual at its end.\r\n");
  Ipv6WaitPoints points = {attempts_, attempts_->Share() / 8}; // up to an eighth of the attempt's share
  Ipv6WaitProgress progress = points.Progress();
  Ipv6Picture picture;
  NeighborClaim claim = {};
  // A server off the link is reached from an address the router gave, never from the link-local one.
  Ipv6Readiness readiness = WaitForIpv6(Nic, mac, false, progress, &picture, &claim);
  if (readiness == Ipv6Readiness::Waiting)
    return false; // the operator answered
  SayIpv6Picture(picture);
  if (readiness == Ipv6Readiness::Ready)
    return true;
  SayIpv6Readiness(readiness, claim);
  failCode_ = kNoAddress;
  return false;
}

bool DownloadRun::Resolve(EFI_HANDLE Nic) {
  LookupResult r = LookUpHostName(Nic, url_.Host, UINT32(o_.Timeout * 1000));
  const UINT8* s = r.Server.Addr;
  switch (r.End) {
  case LookupEnd::Found:
    LogPrint(u"%s is %d.%d.%d.%d (DNS server %d.%d.%d.%d, %d us)\r\n", url_.Host, r.Address.Addr[0],
             r.Address.Addr[1], r.Address.Addr[2], r.Address.Addr[3], s[0], s[1], s[2], s[3], r.Microseconds);
    return true;
  case LookupEnd::NoDns:
    LogPrint(u"The NIC has no DNS service (EFI_DNS4_SERVICE_BINDING_PROTOCOL): the firmware cannot resolve "
             u"%s.\r\n",
             url_.Host);
    break;
  case LookupEnd::NoServer:
    LogPrint(u"The NIC's IPv4 configuration holds no DNS server (none came with its DHCP lease): %s cannot "
             u"be resolved.\r\n",
             url_.Host);
    break;
  case LookupEnd::NotFound:
    LogPrint(u"The DNS server %d.%d.%d.%d answered that %s does not exist.\r\n", s[0], s[1], s[2], s[3],
             url_.Host);
    break;
  case LookupEnd::NoAnswer:
    // EDK2's DNS client drops a name error that carries nothing after the question (no SOA record, as
    // some servers send it for their local names) and asks again: such a name reads as unanswered.
    LogPrint(u"No answer from the DNS server %d.%d.%d.%d (%d server(s) known) for %s in %d ms; a name error "
             u"without an SOA record also ends so, as the firmware's DNS client drops it.\r\n",
             s[0], s[1], s[2], s[3], r.Servers, url_.Host, r.Microseconds / 1000);
    break;
  case LookupEnd::Failed:
    LogPrint(u"The lookup of %s failed (%r).\r\n", url_.Host, r.Status);
    if (r.Status == EFI_OUT_OF_RESOURCES)
      return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
    break;
  }
  failCode_ = kNameUnresolved;
  return false;
}

bool DownloadRun::Piece(const UINT8* Data, UINTN Size, UINT64 Total) {
  if (checkDigest_)
    hash_.Update(Data, Size); // a failure shows at the end
  if (expected_ == 0)
    return true;
  // Half of the attempt's share follows the bytes; a log line at each quarter of the file.
  UINT64 done = Total < expected_ ? Total : expected_;
  UINTN due = UINTN(done * (attempts_->Share() / 2) / expected_);
  UINTN quarter = UINTN(done * 4 / expected_);
  if (quarter > quarter_) {
    quarter_ = quarter;
    LogPrint(u"Received %ld of %ld bytes (%d%%)\r\n", done, expected_, quarter * 25);
  }
  if (due <= given_)
    return true;
  UINTN step = due - given_;
  given_ = due;
  return attempts_->Advance(step);
}

bool DownloadRun::Fetch(EFI_HANDLE Nic, Attempts& Attempts) {
  if (checkDigest_) {
    hash_.Begin();
    LogPrint(hash_.ByFirmware()
                 ? u"SHA-256 by the firmware's hash protocol (EFI_HASH2_PROTOCOL)\r\n"
                 : u"SHA-256 by the module's own code (the firmware has no hash protocol for it)\r\n");
  }
  expected_ = 0;
  given_ = 0;
  quarter_ = 0;
  LogPrint(u"Downloading %s\r\n", o_.Url);
  DownloadSettings settings;
  settings.Url = o_.Url;
  settings.Ipv6 = url_.Ipv6;
  settings.StallMs = UINT32(o_.Timeout * 1000);
  settings.ChunkBytes = kChunkBytes;
  DownloadSink sink;
  sink.Context = this;
  sink.Piece = [](void* Context, const UINT8* Data, UINTN Size, UINT64 Total) {
    return static_cast<DownloadRun*>(Context)->Piece(Data, Size, Total);
  };
  // The length is known once the headers are in; the first piece comes with them.
  sink.Answer = [](void* Context, const ResponseHeaders& Headers) {
    static_cast<DownloadRun*>(Context)->expected_ = Headers.HasLength ? Headers.Length : 0;
  };
  DownloadResult r = HttpDownload(Nic, settings, sink);
  if (r.End == DownloadEnd::Stopped)
    return false;
  UINT8 got[kSha256Bytes] = {};
  bool hashed = !checkDigest_ || hash_.Final(got);
  if (!hashed)
    LogPrint(u"The firmware's hash protocol failed (%r): the digest cannot be checked.\r\n", hash_.Status());
  const UINT8(*wanted)[kSha256Bytes] = checkDigest_ && hashed ? &digest_ : nullptr;
  DownloadVerdict v = JudgeDownload(r, url_, wanted, got, o_.MinSpeed, TimeStampCounterFrequency());
  SayDownload(r, v, url_, wanted, got, o_.MinSpeed, o_.Timeout);
  // A transfer that failed says so; one that arrived whole with its digest lost is the module's failure.
  if (v.Code == ERROR_CODE_SOFTWARE || (v.Code == ERROR_CODE_NONE && !hashed))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  if (v.Code == ERROR_CODE_NONE)
    Attempts.Pass();
  else
    failCode_ = v.Code;
  return true;
}

bool DownloadRun::Attempt(Attempts& Attempts) {
  if (!Attempts.Begin())
    return false;
  EFI_HANDLE nic = nullptr;
  if (!ChooseNic(&nic) || !HasHttp(nic))
    return false;
  if (!WaitForCableAtPrompt(nic)) {
    LogPrint(u"Media cable not detected!\r\n");
    failCode_ = kNoLink;
    return true;
  }
  if (!Attempts.Advance(Attempts.Share() / 8))
    return false;
  // Held to the end of the attempt: the NIC goes back to the IPv6 policy it had.
  Ip6AutomaticPolicy automatic;
  attempts_ = &Attempts;
  if (!(url_.Ipv6 ? BringUpIpv6(nic, automatic) : BringUpIpv4(nic)))
    return failCode_ == kNoAddress;
  if (!Attempts.Advance(Attempts.Share() / 8))
    return false;
  if (url_.IsName && !Resolve(nic))
    return failCode_ == kNameUnresolved;
  return Fetch(nic, Attempts);
}

void DownloadRun::Execute() {
  Show(Attempts::kOpening);
  if (!ReadOptions())
    return;
  firmware_ = ReadFirmwareTraits();
  Attempts attempts(*this, o_.Retries);
  for (; attempts.More(); attempts.Next()) {
    failCode_ = kTransferBroken;
    if (!Attempt(attempts))
      return;
  }
  attempts.Close(u"Download test passed.\r\n", u"Download test failed.\r\n", failCode_);
}

} // namespace

extern const TestInfo kDownloadTest = {
    .Name = u"downloadtest",
    .Description = u"This test downloads a file through the firmware's HTTP client and measures the receive "
                   u"throughput.",
    .Options = kOptions.Rows,
    .Procedure = DownloadTest,
    .RunTime = 60,
    .ErrorGroup = kDownloadGroup,
    .Errors = kErrors,
};

EFI_STATUS DownloadTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<DownloadRun>(Result, ErrorCode);
}
