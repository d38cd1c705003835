#include "ping/Echo6.h"

#include "base/Globals.h"
#include "base/Ipv6Text.h"
#include "base/Owners.h"
#include "nic/ServiceChildren.h"
#include "ping/DroppedReplies.h"
#include "ping/Ipv6Packets.h"
#include "report/Output.h"
#include "support/Clock.h"

namespace {

constexpr UINT64 kOneSecond = 10000000; // timer units of 100 ns
constexpr UINTN kMessageBytes = 8 + kEcho6PayloadBytes;

// One echo run's firmware objects: the child, its tokens and their events, the one-second timer.
// Declared in the order they are made, so that they go in reverse: tokens are cancelled before the
// child is destroyed, and the child before the events its tokens name are closed.
class Echo6Session {
public:
  Echo6Session(const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Target, Echo6Run* Run)
      : source_(Source), target_(Target), run_(Run) {}
  Echo6Session(const Echo6Session&) = delete;
  Echo6Session& operator=(const Echo6Session&) = delete;
  ~Echo6Session() {
    if (child_) {
      if (rxArmed_)
        child_->Cancel(child_.Get(), &rxToken_);
      if (txPending_)
        child_->Cancel(child_.Get(), &txToken_);
      child_->Configure(child_.Get(), nullptr);
    }
    child_.Close();
  }

  EFI_STATUS Open(EFI_HANDLE Nic);
  EFI_STATUS Exchange(UINT32 Count);

private:
  EFI_STATUS Arm(); // hands the child a receive token
  EFI_STATUS Send(UINT16 Sequence);
  EFI_STATUS TakeReceived();

  EFI_IPv6_ADDRESS source_, target_;
  Echo6Run* run_;
  wc::EventOwner rxEvent_, txEvent_, secondTimer_;
  Ip6Child child_;
  EFI_IP6_COMPLETION_TOKEN rxToken_ = {}, txToken_ = {};
  EFI_IP6_TRANSMIT_DATA txData_ = {};
  UINT8 message_[kMessageBytes] = {};
  UINT64 sentAt_[kMaxEcho6Requests] = {};
  bool rxArmed_ = false, txPending_ = false;
  EFI_HANDLE nic_ = nullptr;
  DroppedReplyWatch drops_;
};

EFI_STATUS Echo6Session::Open(EFI_HANDLE Nic) {
  nic_ = Nic;
  EFI_STATUS status = rxEvent_.CreateForToken();
  if (!EFI_ERROR(status))
    status = txEvent_.CreateForToken();
  if (!EFI_ERROR(status))
    status = secondTimer_.Create(EVT_TIMER, TPL_CALLBACK);
  if (EFI_ERROR(status)) {
    LogPrint(u"No event for the echo exchange (%r)\r\n", status);
    return status;
  }
  status = child_.Open(Nic, gImageHandle);
  if (EFI_ERROR(status))
    return status;
  EFI_IP6_CONFIG_DATA config = {};
  config.DefaultProtocol = IP6_NEXT_HEADER_ICMP;
  config.AcceptIcmpErrors = TRUE;
  config.StationAddress = source_;
  config.HopLimit = 64;
  status = child_->Configure(child_.Get(), &config);
  if (EFI_ERROR(status)) {
    LogPrint(u"The IPv6 child could not be configured for ICMPv6 (%r)\r\n", status);
    return status;
  }
  status = Arm();
  if (EFI_ERROR(status))
    return status;
  status = gBS->SetTimer(secondTimer_.Get(), TimerPeriodic, kOneSecond);
  if (EFI_ERROR(status))
    LogPrint(u"Failed to set timer.(%r)\r\n", status);
  return status;
}

EFI_STATUS Echo6Session::Send(UINT16 Sequence) {
  if (txPending_) {
    child_->Cancel(child_.Get(), &txToken_);
    txPending_ = false;
  }
  BuildEcho6Request(message_, source_, target_, run_->Identifier, Sequence);
  txData_ = {};
  txData_.DestinationAddress = target_;
  txData_.NextHeader = IP6_NEXT_HEADER_ICMP;
  txData_.DataLength = kMessageBytes;
  txData_.FragmentCount = 1;
  txData_.FragmentTable[0].FragmentLength = kMessageBytes;
  txData_.FragmentTable[0].FragmentBuffer = message_;
  txToken_.Event = txEvent_.Get();
  txToken_.Status = EFI_NOT_READY;
  txToken_.Packet.TxData = &txData_;
  sentAt_[Sequence] = ReadTimeStampCounter();
  EFI_STATUS status = child_->Transmit(child_.Get(), &txToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"The echo request %d could not be sent (%r)\r\n", Sequence, status);
    return status;
  }
  txPending_ = true;
  ++run_->Sent;
  return EFI_SUCCESS;
}

EFI_STATUS Echo6Session::TakeReceived() {
  UINT64 arrived = ReadTimeStampCounter();
  rxArmed_ = false;
  EFI_IP6_RECEIVE_DATA* rx = rxToken_.Packet.RxData;
  if (rxToken_.Status == EFI_SUCCESS && rx != nullptr && rx->Header != nullptr && rx->FragmentCount >= 1) {
    // A reply is one fragment in EDK2; a message spread over several is read from the first alone,
    // which holds at least the eight bytes that matter.
    const auto* m = static_cast<const UINT8*>(rx->FragmentTable[0].FragmentBuffer);
    UINTN length = rx->FragmentTable[0].FragmentLength;
    INT32 sequence = TakeEcho6Reply(m, length, rx->Header->SourceAddress, target_, run_);
    if (sequence >= 0) {
      UINT64 us = (arrived - sentAt_[sequence]) / TimeStampCounterPerMicrosecond();
      run_->RoundTripUs[sequence] = us == 0 ? 1 : us;
      CHAR16 text[kIpv6TextChars];
      FormatIpv6Address(target_, text, sizeof(text));
      LogPrint(u"Reply seq %d from %s: time %d us\r\n", sequence, text, us);
    }
  }
  if (rx != nullptr && rx->RecycleSignal != nullptr)
    gBS->SignalEvent(rx->RecycleSignal);
  return Arm();
}

EFI_STATUS Echo6Session::Arm() {
  rxToken_.Event = rxEvent_.Get();
  rxToken_.Status = EFI_NOT_READY;
  rxToken_.Packet.RxData = nullptr;
  EFI_STATUS status = child_->Receive(child_.Get(), &rxToken_);
  if (EFI_ERROR(status)) {
    LogPrint(u"The IPv6 child takes no receive token (%r)\r\n", status);
    return status;
  }
  rxArmed_ = true;
  return EFI_SUCCESS;
}

EFI_STATUS Echo6Session::Exchange(UINT32 Count) {
  TimeStampCounterPerMicrosecond(); // calibrated before the first request leaves
  drops_.Start(nic_);
  EFI_STATUS status = Send(0);
  if (EFI_ERROR(status))
    return status;
  UINT32 ticks = 0;
  for (;;) {
    child_->Poll(child_.Get());
    if (txPending_ && txToken_.Status != EFI_NOT_READY) {
      txPending_ = false;
      if (EFI_ERROR(txToken_.Status))
        LogPrint(u"The echo request %d was not sent (%r)\r\n", run_->Sent - 1, txToken_.Status);
    }
    if (rxToken_.Status != EFI_NOT_READY) {
      status = TakeReceived();
      if (EFI_ERROR(status))
        return status;
    }
    if (run_->Replies >= Count)
      return EFI_SUCCESS;
    if (!EFI_ERROR(gBS->CheckEvent(secondTimer_.Get()))) {
      ++ticks;
      if (run_->Sent < Count) {
        status = Send(UINT16(run_->Sent));
        if (EFI_ERROR(status))
          return status;
      } else if (ticks >= run_->Sent + 1) {
        drops_.SayDropped();
        return EFI_TIMEOUT;
      }
    }
  }
}

} // namespace

void BuildEcho6Request(UINT8* Message, const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Target,
                       UINT16 Identifier, UINT16 Sequence) {
  Message[0] = kIcmp6EchoRequest;
  Message[1] = 0;
  Message[2] = Message[3] = 0;
  Message[4] = UINT8(Identifier >> 8);
  Message[5] = UINT8(Identifier);
  Message[6] = UINT8(Sequence >> 8);
  Message[7] = UINT8(Sequence);
  for (UINTN i = 0; i < kEcho6PayloadBytes; ++i)
    Message[8 + i] = UINT8(i);
  UINT16 sum = Ipv6Checksum(Source, Target, IP6_NEXT_HEADER_ICMP, Message, kMessageBytes);
  Message[2] = UINT8(sum >> 8);
  Message[3] = UINT8(sum);
}

INT32 TakeEcho6Reply(const UINT8* Message, UINTN Length, const EFI_IPv6_ADDRESS& Source,
                     const EFI_IPv6_ADDRESS& Target, Echo6Run* Run) {
  if (Message == nullptr || Length < 8 || Message[0] != kIcmp6EchoReply || Message[1] != 0)
    return -1;
  UINT16 identifier = UINT16(Message[4] << 8 | Message[5]);
  UINT16 sequence = UINT16(Message[6] << 8 | Message[7]);
  if (identifier != Run->Identifier || sequence >= Run->Sent || sequence >= kMaxEcho6Requests ||
      !SameIpv6Address(Source, Target)) {
    ++Run->Strays;
    return -1;
  }
  if ((Run->Answered >> sequence) & 1) {
    ++Run->Duplicates;
    return -1;
  }
  Run->Answered |= 1ull << sequence;
  ++Run->Replies;
  return sequence;
}

EFI_STATUS ExecutePing6Process(EFI_HANDLE Nic, const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Target,
                               UINT32 Count, Echo6Run* Run) {
  UINT16 identifier = Run->Identifier;
  *Run = {};
  Run->Identifier = identifier;
  if (Count == 0 || Count > kMaxEcho6Requests)
    return EFI_INVALID_PARAMETER;
  Echo6Session session(Source, Target, Run);
  EFI_STATUS status = session.Open(Nic);
  if (EFI_ERROR(status))
    return status;
  return session.Exchange(Count);
}
