#include "ping/IcmpEcho.h"
#include "base/Cxx.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "nic/Dumps.h"
#include "nic/NicConfig.h"
#include "nic/ServiceChildren.h"
#include "ping/DroppedReplies.h"
#include "report/Output.h"
#include "support/Clock.h"
#include "support/DebugLog.h"

namespace {

constexpr UINT64 kOneSecond = 10000000;    // timer units of 100 ns
constexpr UINT64 kMappingWait = 600000000; // 60 s in one timer
constexpr UINTN kMappingTicks = 60;        // or 60 one-second ticks
constexpr UINTN kPollingPause = 10000;     // µs between looks while the address is awaited
constexpr UINTN kMaxTimedRequests = 64;    // requests whose send time is kept for round trips

UINT16 Fold(UINT32 sum) {
  sum = (sum & 0xFFFF) + (sum >> 16);
  sum = (sum & 0xFFFF) + (sum >> 16);
  return UINT16(sum);
}

UINT16 ReadLe16(const UINT8* p) {
  return UINT16(p[0] | (p[1] << 8));
}
void WriteLe16(UINT8* p, UINT16 v) {
  p[0] = UINT8(v);
  p[1] = UINT8(v >> 8);
}

bool IsConfigured(EFI_IP4_PROTOCOL* ip4, EFI_STATUS* status = nullptr) {
  EFI_IP4_MODE_DATA mode = {};
  EFI_STATUS s = ip4->GetModeData(ip4, &mode, nullptr, nullptr);
  if (status != nullptr)
    *status = s;
  return !EFI_ERROR(s) && mode.IsConfigured;
}

} // namespace

UINT16 OnesComplementSum(const UINT8* Data, UINTN Length) {
  UINT32 sum = 0;
  for (UINTN i = 0; i + 1 < Length; i += 2)
    sum += ReadLe16(Data + i);
  if (Length & 1)
    sum += Data[Length - 1];
  return Fold(sum);
}

UINT16 BuildEchoRequest(UINT8* Request, UINT16 Identifier) {
  ZeroMem(Request, kEchoRequestBytes); // the payload is zero-filled
  Request[0] = kIcmpEchoRequest;
  Request[1] = 0;
  WriteLe16(Request + 4, Identifier);
  UINT16 sum = OnesComplementSum(Request, kEchoRequestBytes); // checksum field and sequence still 0
  WriteLe16(Request + 2, UINT16(~sum));
  return sum;
}

void SetEchoSequence(UINT8* Request, UINT16 BaseSum, UINT16 Sequence) {
  WriteLe16(Request + 6, Sequence);
  WriteLe16(Request + 2, UINT16(~Fold(UINT32(BaseSum) + Sequence)));
}

BOOLEAN CheckEchoReply(const EFI_IP4_RECEIVE_DATA* RxData, const EFI_IPv4_ADDRESS& Destination,
                       const EchoPolicy& Policy) {
  if (RxData == nullptr) {
    LogPrint(u"Invalid parameter passed!\r\n");
    return FALSE;
  }
  if (RxData->Header == nullptr || RxData->Header->Protocol != 1 || RxData->DataLength < 16 ||
      RxData->FragmentCount == 0 || RxData->FragmentTable[0].FragmentBuffer == nullptr ||
      RxData->FragmentTable[0].FragmentLength < 8) {
    LogPrint(u"Sanity checks.\r\n");
    return FALSE;
  }
  const UINT8* source = RxData->Header->SourceAddress.Addr;
  if (CompareMem(source, Destination.Addr, 4) != 0) {
    LogPrint(u"The source address of this ICMP packet is different from the DestinationIp.\r\n");
    return FALSE;
  }
  const auto* icmp = static_cast<const UINT8*>(RxData->FragmentTable[0].FragmentBuffer);
  if (icmp[0] != kIcmpEchoReply || icmp[1] != 0) {
    LogPrint(u"It's not an ICMP echo reply packet.\r\n");
    return FALSE;
  }
  if (ReadLe16(icmp + 4) != Policy.Counter->Identifier) {
    LogPrint(u"The Identifier differs.\r\n");
    return FALSE;
  }
  constexpr const CHAR16* kCounted = u"Receive the packet from IP addr:%d.%d.%d.%d\r\n";
  if (Policy.PrintReplies)
    ConsolePrint(kCounted, source[0], source[1], source[2], source[3]);
  else
    LogPrint(kCounted, source[0], source[1], source[2], source[3]);
  Policy.Counter->Replies++;
  return TRUE;
}

namespace {

// One ping run on an IPv4 child: the child, its receive and transmit tokens with their events, the
// timers and the echo request. The steps follow the run (open, configure, wait for the address, arm,
// exchange); whichever step ends it, the destructor first stops the child from using the tokens and
// gives back the packet it holds, then the members go in the reverse of their order here, the
// child last.
class PingSession {
public:
  PingSession(const EchoPolicy& Policy, const EFI_IPv4_ADDRESS& Destination)
      : policy_(Policy), destination_(Destination) {}
  PingSession(const PingSession&) = delete;
  PingSession& operator=(const PingSession&) = delete;
  ~PingSession() {
    if (ip4_ == nullptr)
      return;
    ip4_->Configure(ip4_, nullptr);
    if (rxToken_.Status == EFI_SUCCESS && rxToken_.Packet.RxData != nullptr)
      gBS->SignalEvent(rxToken_.Packet.RxData->RecycleSignal);
    if (secondTimer_)
      gBS->SetTimer(secondTimer_.Get(), TimerCancel, 0);
  }

  EFI_STATUS Open(EFI_HANDLE ServiceHandle) {
    EFI_STATUS status = child_.Open(ServiceHandle, gImageHandle);
    if (EFI_ERROR(status)) {
      LogPrint(u"OpenIp4Protocol() error.\r\n");
      return status;
    }
    ip4_ = child_.Get();
    service_ = ServiceHandle;
    return status;
  }
  // ICMP with the NIC's default address; EFI_NO_MAPPING while the driver has no address yet.
  EFI_STATUS Configure();
  EFI_STATUS AwaitAddress(const PingProgress* Progress);
  // The receive token, the second timer and the echo request.
  EFI_STATUS Arm();
  // Count requests one a second until as many replies came or one is two seconds late.
  EFI_STATUS Exchange(UINT32 Count);

private:
  // A first look of one second; TRUE when the address came within it.
  bool LookForAddress();
  EFI_STATUS WaitOneTimer();
  EFI_STATUS WaitCountedTicks(const PingProgress* Progress);
  // After a link change the firmware's IPv4 driver, when its DHCP finishes, puts the address on a
  // new default interface; a child configured with the default address before that stays on the old
  // one and never gets the address. Once a second during the wait: when the NIC has an address and
  // the child none, the child is configured again, once, and that is logged. TRUE when that gave
  // the child its address.
  bool RejoinIfLeftBehind();
  // One received packet: checked, timed, given back, and the receive token armed again.
  EFI_STATUS TakeReceived();
  static void EFIAPI CountTick(EFI_EVENT, void* Context) {
    auto* session = static_cast<PingSession*>(Context);
    session->ticks_ = session->ticks_ + 1;
  }

  const EchoPolicy& policy_;
  EFI_HANDLE service_ = nullptr;
  EFI_IPv4_ADDRESS destination_;
  Ip4Child child_;
  EFI_IP4_PROTOCOL* ip4_ = nullptr;
  wc::EventOwner mappingTimer_;
  wc::EventOwner rejoinTimer_; // one second between looks at the NIC's own address
  bool rejoined_ = false;
  wc::EventOwner rxEvent_;
  wc::EventOwner txEvent_;
  wc::EventOwner secondTimer_;
  wc::PoolPtr<UINT8> request_;
  EFI_IP4_COMPLETION_TOKEN rxToken_ = {};
  EFI_IP4_COMPLETION_TOKEN txToken_ = {};
  EFI_IP4_TRANSMIT_DATA txData_ = {};
  volatile UINTN ticks_ = 0; // seconds of a counted address wait, counted by its timer
  UINT16 baseSum_ = 0;       // the checksum of request n is derived from this sum and n
  UINT16 sequence_ = 0;
  UINT64 sendTimes_[kMaxTimedRequests] = {};
  DroppedReplyWatch drops_;
};

// ICMP with the NIC's default address.
EFI_IP4_CONFIG_DATA ChildConfig() {
  EFI_IP4_CONFIG_DATA config = {};
  config.DefaultProtocol = 1; // ICMP
  config.AcceptIcmpErrors = TRUE;
  config.UseDefaultAddress = TRUE;
  config.TimeToLive = 128;
  return config;
}

EFI_STATUS PingSession::Configure() {
  EFI_IP4_CONFIG_DATA config = ChildConfig();
  EFI_STATUS status = ip4_->Configure(ip4_, &config);
  if (EFI_ERROR(status) && status != EFI_NO_MAPPING)
    LogPrint(u"EFI IP4 Protocol Configure error.(%r)\r\n", status);
  else if (status != EFI_NO_MAPPING)
    LogPrint(u"Successfully configure the EFI IP4 Protocol instance.(%r)\r\n", status);
  return status;
}

bool PingSession::LookForAddress() {
  bool configured = false;
  if (EFI_ERROR(mappingTimer_.Create(EVT_TIMER, TPL_CALLBACK)) ||
      EFI_ERROR(gBS->SetTimer(mappingTimer_.Get(), TimerRelative, kOneSecond))) {
    LogPrint(u"Failed to create event.\r\n");
  } else {
    while (EFI_ERROR(gBS->CheckEvent(mappingTimer_.Get()))) {
      ip4_->Poll(ip4_);
      if (IsConfigured(ip4_)) {
        configured = true;
        break;
      }
      TracePrint(u"Polling...\r\n");
      gBS->Stall(kPollingPause);
    }
  }
  mappingTimer_.Close();
  if (!policy_.Firmware->CurrentPlatform) {
    EFI_IP4_MODE_DATA mode = {};
    ip4_->GetModeData(ip4_, &mode, nullptr, nullptr);
    DumpIp4ModeData(&mode);
  }
  return configured;
}

// Up to 60 seconds in one timer, polling.
EFI_STATUS PingSession::WaitOneTimer() {
  EFI_STATUS status = mappingTimer_.Create(EVT_TIMER, TPL_CALLBACK);
  if (!EFI_ERROR(status))
    status = gBS->SetTimer(mappingTimer_.Get(), TimerRelative, kMappingWait);
  if (EFI_ERROR(status))
    return status;
  while (EFI_ERROR(gBS->CheckEvent(mappingTimer_.Get()))) {
    ip4_->Poll(ip4_);
    if (IsConfigured(ip4_) || RejoinIfLeftBehind())
      break;
  }
  return EFI_SUCCESS;
}

// 60 one-second ticks (one on an older platform), each reported.
EFI_STATUS PingSession::WaitCountedTicks(const PingProgress* Progress) {
  ticks_ = 0;
  EFI_STATUS status = mappingTimer_.Create(EVT_TIMER | EVT_NOTIFY_SIGNAL, TPL_CALLBACK, CountTick, this);
  if (!EFI_ERROR(status))
    status = gBS->SetTimer(mappingTimer_.Get(), TimerPeriodic, kOneSecond);
  if (EFI_ERROR(status))
    return status;
  const BOOLEAN current = policy_.Firmware->CurrentPlatform;
  UINTN limit = current ? kMappingTicks : 1;
  while (ticks_ < limit) {
    ip4_->Poll(ip4_);
    if (IsConfigured(ip4_) || RejoinIfLeftBehind())
      break;
    if (current && Progress != nullptr && EFI_ERROR(Progress->Report(Progress->Context, ticks_, limit)))
      return EFI_ABORTED;
  }
  gBS->SetTimer(mappingTimer_.Get(), TimerCancel, 0);
  return EFI_SUCCESS;
}

EFI_STATUS PingSession::AwaitAddress(const PingProgress* Progress) {
  if (LookForAddress()) {
    LogPrint(u"Successfully configure the EFI IP4 Protocol instance.(%r)\r\n", EFI_SUCCESS);
    return EFI_SUCCESS;
  }
  LogPrint(u"EFI IP4 Protocol Mapping error.(%r)\r\n", EFI_NO_MAPPING);
  if (EFI_ERROR(rejoinTimer_.Create(EVT_TIMER, TPL_CALLBACK)) ||
      EFI_ERROR(gBS->SetTimer(rejoinTimer_.Get(), TimerPeriodic, kOneSecond))) {
    DebugLogPrint(u"No timer to look at the NIC's own address during the wait\r\n");
    rejoinTimer_.Close();
  }
  EFI_STATUS status = policy_.Wait == AddressWait::OneTimer ? WaitOneTimer() : WaitCountedTicks(Progress);
  if (EFI_ERROR(status))
    return status;
  EFI_STATUS readStatus;
  if (!IsConfigured(ip4_, &readStatus)) {
    LogPrint(u"EFI IP4 Protocol Mapping error again.(%r)\r\n", readStatus);
    return EFI_NO_MAPPING;
  }
  return EFI_SUCCESS;
}

bool PingSession::RejoinIfLeftBehind() {
  if (rejoined_ || !policy_.Firmware->Ip4Config2 || !rejoinTimer_ ||
      EFI_ERROR(gBS->CheckEvent(rejoinTimer_.Get())))
    return false;
  EFI_IPv4_ADDRESS address = {};
  if (!NicHasStationAddress(service_, &address))
    return false;
  rejoined_ = true;
  ip4_->Configure(ip4_, nullptr);
  EFI_IP4_CONFIG_DATA config = ChildConfig();
  EFI_STATUS status = ip4_->Configure(ip4_, &config);
  const UINT8* a = address.Addr;
  LogPrint(u"The NIC has address %d.%d.%d.%d but the IPv4 child, configured before it came, has none: the "
           u"child is configured again (%r)\r\n",
           a[0], a[1], a[2], a[3], status);
  return status == EFI_SUCCESS && IsConfigured(ip4_);
}

EFI_STATUS PingSession::Arm() {
  EFI_STATUS status = rxEvent_.CreateForToken();
  if (EFI_ERROR(status))
    return status;
  rxToken_.Event = rxEvent_.Get();
  rxToken_.Packet.RxData = nullptr;
  rxToken_.Status = EFI_NOT_READY;
  status = ip4_->Receive(ip4_, &rxToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"IP4 Protocol Receive() error!(%r)\r\n", status);
    return status;
  }
  status = secondTimer_.Create(EVT_TIMER, TPL_CALLBACK);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to create event.(%r)\r\n", status);
    return status;
  }
  status = gBS->SetTimer(secondTimer_.Get(), TimerPeriodic, kOneSecond);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to set timer.(%r)\r\n", status);
    return status;
  }
  status = txEvent_.CreateForToken();
  if (EFI_ERROR(status))
    return status;

  TracePrint(u"The destination ip address:\r\n");
  DumpIpv4Address(&destination_);
  request_ = wc::PoolPtr<UINT8>::Allocate(kEchoRequestBytes);
  if (!request_) {
    LogPrint(u"Failed to allocate memory resource.\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  baseSum_ = BuildEchoRequest(request_.Get(), policy_.Counter->Identifier);
  txData_.DestinationAddress = destination_;
  txData_.TotalDataLength = kEchoRequestBytes;
  txData_.FragmentCount = 1;
  txData_.FragmentTable[0].FragmentLength = kEchoRequestBytes;
  txData_.FragmentTable[0].FragmentBuffer = request_.Get();
  txToken_.Event = txEvent_.Get();
  txToken_.Packet.TxData = &txData_;
  txToken_.Status = EFI_ABORTED;
  return EFI_SUCCESS;
}

EFI_STATUS PingSession::TakeReceived() {
  UINT64 arrived = ReadTimeStampCounter();
  ConsolePrint(u"Receive Packet......\r\n");
  EFI_IP4_RECEIVE_DATA* rx = rxToken_.Packet.RxData;
  if (CheckEchoReply(rx, destination_, policy_)) {
    const auto* icmp = static_cast<const UINT8*>(rx->FragmentTable[0].FragmentBuffer);
    UINT16 replySequence = ReadLe16(icmp + 6);
    const UINT8* d = destination_.Addr;
    if (replySequence <= sequence_ && replySequence < kMaxTimedRequests)
      LogPrint(u"Reply seq %d from %d.%d.%d.%d: time %d us\r\n", replySequence, d[0], d[1], d[2], d[3],
               (arrived - sendTimes_[replySequence]) / TimeStampCounterPerMicrosecond());
  }
  if (rx != nullptr)
    gBS->SignalEvent(rx->RecycleSignal);
  rxToken_.Packet.RxData = nullptr;
  rxToken_.Status = EFI_ABORTED;
  EFI_STATUS status = ip4_->Receive(ip4_, &rxToken_);
  if (EFI_ERROR(status))
    LogPrint(u"IP4 Protocol Receive()error!(%r)\r\n", status);
  return status;
}

EFI_STATUS PingSession::Exchange(UINT32 Count) {
  TimeStampCounterPerMicrosecond(); // calibrated before the first request leaves, not while replies arrive
  drops_.Start(service_);
  sendTimes_[0] = ReadTimeStampCounter();
  EFI_STATUS status = ip4_->Transmit(ip4_, &txToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"IP4 Protocol Transmit() error!(%r)\r\n", status);
    return status;
  }
  UINT32 sent = 1;
  UINT32 ticks = 0;
  for (;;) {
    ip4_->Poll(ip4_);
    if (!EFI_ERROR(gBS->CheckEvent(secondTimer_.Get()))) {
      ++ticks;
      if (sent < Count) {
        if (txToken_.Status != EFI_SUCCESS)
          ip4_->Cancel(ip4_, &txToken_);
        ++sequence_;
        SetEchoSequence(request_.Get(), baseSum_, sequence_);
        txToken_.Status = EFI_ABORTED;
        if (sequence_ < kMaxTimedRequests)
          sendTimes_[sequence_] = ReadTimeStampCounter();
        status = ip4_->Transmit(ip4_, &txToken_);
        if (EFI_ERROR(status)) {
          LogPrint(u"IP4 Protocol Transmit()error!(%r)\r\n", status);
          return status;
        }
        ++sent;
      }
    }
    if (rxToken_.Status == EFI_SUCCESS) {
      status = TakeReceived();
      if (EFI_ERROR(status))
        return status;
    }
    if (policy_.Counter->Replies >= Count) {
      ConsolePrint(u"All Received!\r\n");
      return status;
    }
    if (UINT32(ticks + 1 - sent) >= 2) {
      ConsolePrint(u"Receive Time Out!\r\n");
      drops_.SayDropped();
      return EFI_TIMEOUT;
    }
  }
}

} // namespace

EFI_STATUS ExecutePingProcess(EFI_HANDLE Ip4ServiceBindingHandle, const EFI_IPv4_ADDRESS& DestinationAddress,
                              UINT32 Count, const PingProgress* Progress, const EchoPolicy& Policy) {
  TracePrint(u"enter ExecutePingProcess()\r\n");
  Policy.Counter->Replies = 0;
  PingSession session(Policy, DestinationAddress);
  EFI_STATUS status = session.Open(Ip4ServiceBindingHandle);
  if (EFI_ERROR(status))
    return status;
  status = session.Configure();
  if (status == EFI_NO_MAPPING)
    status = session.AwaitAddress(Progress);
  if (EFI_ERROR(status))
    return status;
  if (Count == 0)
    return EFI_SUCCESS;
  status = session.Arm();
  if (EFI_ERROR(status))
    return status;
  return session.Exchange(Count);
}
