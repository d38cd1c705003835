#include "ping/IcmpEcho.h"
#include "base/Cxx.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "nic/Dumps.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"
#include "support/Clock.h"
#include "support/Platform.h"

namespace {

constexpr UINT64 kOneSecond = 10000000;    // timer units of 100 ns
constexpr UINT64 kMappingWait = 600000000; // 60 s, ping test
constexpr UINTN kInteractiveMappingTicks = 60;
constexpr UINTN kPollingPause = 10000;  // µs between looks while the address is awaited
constexpr UINTN kMaxTimedRequests = 64; // requests whose send time is kept for round trips

struct VariantState {
  UINT32 replies;
  UINT16 identifier;
  BOOLEAN currentPlatform;
};
constinit VariantState gVariants[2] = {{0, 0, TRUE}, {0, 0, TRUE}};

VariantState& StateOf(PingVariant v) {
  return gVariants[UINTN(v) & 1];
}

void EFIAPI IgnoreNotify(EFI_EVENT, void*) {}

volatile UINTN gInteractiveTicks = 0;
void EFIAPI CountTick(EFI_EVENT, void*) {
  gInteractiveTicks = gInteractiveTicks + 1;
}

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

UINT64 TscPerMicrosecond() {
  static constinit UINT64 perUs = 0;
  if (perUs == 0) {
    UINT64 start = ReadTimeStampCounter();
    gBS->Stall(10000);
    perUs = (ReadTimeStampCounter() - start) / 10000;
    if (perUs == 0)
      perUs = 1;
  }
  return perUs;
}

bool IsConfigured(EFI_IP4_PROTOCOL* ip4, EFI_STATUS* status = nullptr) {
  EFI_IP4_MODE_DATA mode = {};
  EFI_STATUS s = ip4->GetModeData(ip4, &mode, nullptr, nullptr);
  if (status != nullptr)
    *status = s;
  return !EFI_ERROR(s) && mode.IsConfigured;
}

} // namespace

void SetCurrentPlatform(PingVariant Variant, BOOLEAN Current) {
  StateOf(Variant).currentPlatform = Current;
}
BOOLEAN IsCurrentPlatform(PingVariant Variant) {
  return StateOf(Variant).currentPlatform;
}
UINT32 EchoReplyCount(PingVariant Variant) {
  return StateOf(Variant).replies;
}
void ResetEchoReplyCount(PingVariant Variant) {
  StateOf(Variant).replies = 0;
}

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
                       PingVariant Variant) {
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
  VariantState& state = StateOf(Variant);
  if (ReadLe16(icmp + 4) != state.identifier) {
    LogPrint(u"The Identifier differs.\r\n");
    return FALSE;
  }
  if (Variant == PingVariant::PingTest)
    ConsolePrint(u"Receive the packet from IP addr:%d.%d.%d.%d\r\n", source[0], source[1], source[2],
                 source[3]);
  else
    LogPrint(u"Receive the packet from IP addr:%d.%d.%d.%d\r\n", source[0], source[1], source[2], source[3]);
  state.replies++;
  return TRUE;
}

EFI_STATUS ExecutePingProcess(EFI_HANDLE Ip4ServiceBindingHandle, const EFI_IPv4_ADDRESS& DestinationAddress,
                              UINT32 Count, PingProgress Progress, PingVariant Variant) {
  VariantState& state = StateOf(Variant);
  TracePrint(u"enter ExecutePingProcess()\r\n");
  state.replies = 0;

  Ip4Child child;
  EFI_STATUS status = child.Open(Ip4ServiceBindingHandle, gImageHandle);
  if (EFI_ERROR(status)) {
    LogPrint(u"OpenIp4Protocol() error.\r\n");
    return status;
  }
  EFI_IP4_PROTOCOL* ip4 = child.Get();

  wc::EventOwner mappingTimer;
  wc::EventOwner rxEvent;
  wc::EventOwner txEvent;
  wc::EventOwner secondTimer;
  wc::PoolPtr<UINT8> request;
  EFI_IP4_COMPLETION_TOKEN rxToken = {};
  EFI_IP4_COMPLETION_TOKEN txToken = {};
  // Runs before the owners above release anything: the child must stop using the tokens first.
  wc::ScopeGuard endOfRun([&] {
    ip4->Configure(ip4, nullptr);
    if (rxToken.Status == EFI_SUCCESS && rxToken.Packet.RxData != nullptr)
      gBS->SignalEvent(rxToken.Packet.RxData->RecycleSignal);
    if (secondTimer)
      gBS->SetTimer(secondTimer.Get(), TimerCancel, 0);
  });

  EFI_IP4_CONFIG_DATA config = {};
  config.DefaultProtocol = 1; // ICMP
  config.AcceptIcmpErrors = TRUE;
  config.UseDefaultAddress = TRUE;
  config.TimeToLive = 128;
  status = ip4->Configure(ip4, &config);
  if (EFI_ERROR(status) && status != EFI_NO_MAPPING) {
    LogPrint(u"EFI IP4 Protocol Configure error.(%r)\r\n", status);
    return status;
  }

  if (status == EFI_NO_MAPPING) {
    // A first look of one second.
    bool configured = false;
    if (EFI_ERROR(mappingTimer.Create(EVT_TIMER, TPL_CALLBACK)) ||
        EFI_ERROR(gBS->SetTimer(mappingTimer.Get(), TimerRelative, kOneSecond))) {
      LogPrint(u"Failed to create event.\r\n");
    } else {
      while (EFI_ERROR(gBS->CheckEvent(mappingTimer.Get()))) {
        ip4->Poll(ip4);
        if (IsConfigured(ip4)) {
          configured = true;
          break;
        }
        TracePrint(u"Polling...\r\n");
        gBS->Stall(kPollingPause);
      }
    }
    mappingTimer.Close();
    if (!state.currentPlatform) {
      EFI_IP4_MODE_DATA mode = {};
      ip4->GetModeData(ip4, &mode, nullptr, nullptr);
      DumpIp4ModeData(&mode);
    }

    if (!configured) {
      LogPrint(u"EFI IP4 Protocol Mapping error.(%r)\r\n", EFI_NO_MAPPING);
      if (Variant == PingVariant::PingTest) {
        status = mappingTimer.Create(EVT_TIMER, TPL_CALLBACK);
        if (!EFI_ERROR(status))
          status = gBS->SetTimer(mappingTimer.Get(), TimerRelative, kMappingWait);
        if (EFI_ERROR(status))
          return status;
        while (EFI_ERROR(gBS->CheckEvent(mappingTimer.Get()))) {
          ip4->Poll(ip4);
          if (IsConfigured(ip4))
            break;
        }
      } else {
        gInteractiveTicks = 0;
        status = mappingTimer.Create(EVT_TIMER | EVT_NOTIFY_SIGNAL, TPL_CALLBACK, CountTick);
        if (!EFI_ERROR(status))
          status = gBS->SetTimer(mappingTimer.Get(), TimerPeriodic, kOneSecond);
        if (EFI_ERROR(status))
          return status;
        UINTN limit = state.currentPlatform ? kInteractiveMappingTicks : 1;
        while (gInteractiveTicks < limit) {
          ip4->Poll(ip4);
          if (IsConfigured(ip4))
            break;
          if (state.currentPlatform && Progress != nullptr && EFI_ERROR(Progress(gInteractiveTicks, limit)))
            return EFI_ABORTED;
        }
        gBS->SetTimer(mappingTimer.Get(), TimerCancel, 0);
      }
      EFI_STATUS readStatus;
      if (!IsConfigured(ip4, &readStatus)) {
        LogPrint(u"EFI IP4 Protocol Mapping error again.(%r)\r\n", readStatus);
        return EFI_NO_MAPPING;
      }
      status = EFI_SUCCESS;
    } else {
      status = EFI_SUCCESS;
      LogPrint(u"Successfully configure the EFI IP4 Protocol instance.(%r)\r\n", status);
    }
  } else {
    LogPrint(u"Successfully configure the EFI IP4 Protocol instance.(%r)\r\n", status);
  }
  if (Count == 0)
    return EFI_SUCCESS;

  status = rxEvent.Create(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, IgnoreNotify);
  if (EFI_ERROR(status))
    return status;
  rxToken.Event = rxEvent.Get();
  rxToken.Packet.RxData = nullptr;
  rxToken.Status = EFI_NOT_READY;
  status = ip4->Receive(ip4, &rxToken);
  if (EFI_ERROR(status)) {
    LogPrint(u"IP4 Protocol Receive() error!(%r)\r\n", status);
    return status;
  }

  status = secondTimer.Create(EVT_TIMER, TPL_CALLBACK);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to create event.(%r)\r\n", status);
    return status;
  }
  status = gBS->SetTimer(secondTimer.Get(), TimerPeriodic, kOneSecond);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to set timer.(%r)\r\n", status);
    return status;
  }
  status = txEvent.Create(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, IgnoreNotify);
  if (EFI_ERROR(status))
    return status;

  TracePrint(u"The destination ip address:\r\n");
  DumpIpv4Address(&DestinationAddress);
  request = wc::PoolPtr<UINT8>::Allocate(kEchoRequestBytes);
  if (!request) {
    LogPrint(u"Failed to allocate memory resource.\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  // The checksum of request n is derived from this sum and n.
  UINT16 baseSum = BuildEchoRequest(request.Get(), state.identifier);

  EFI_IP4_TRANSMIT_DATA txData = {};
  txData.DestinationAddress = DestinationAddress;
  txData.TotalDataLength = kEchoRequestBytes;
  txData.FragmentCount = 1;
  txData.FragmentTable[0].FragmentLength = kEchoRequestBytes;
  txData.FragmentTable[0].FragmentBuffer = request.Get();
  txToken.Event = txEvent.Get();
  txToken.Packet.TxData = &txData;
  txToken.Status = EFI_ABORTED;

  UINT64 sendTimes[kMaxTimedRequests] = {};
  UINT64 tscPerUs = TscPerMicrosecond();
  UINT16 sequence = 0;
  sendTimes[0] = ReadTimeStampCounter();
  status = ip4->Transmit(ip4, &txToken);
  if (EFI_ERROR(status)) {
    LogPrint(u"IP4 Protocol Transmit() error!(%r)\r\n", status);
    return status;
  }
  UINT32 sent = 1;
  UINT32 ticks = 0;

  for (;;) {
    ip4->Poll(ip4);
    if (!EFI_ERROR(gBS->CheckEvent(secondTimer.Get()))) {
      ++ticks;
      if (sent < Count) {
        if (txToken.Status != EFI_SUCCESS)
          ip4->Cancel(ip4, &txToken);
        ++sequence;
        SetEchoSequence(request.Get(), baseSum, sequence);
        txToken.Status = EFI_ABORTED;
        if (sequence < kMaxTimedRequests)
          sendTimes[sequence] = ReadTimeStampCounter();
        status = ip4->Transmit(ip4, &txToken);
        if (EFI_ERROR(status)) {
          LogPrint(u"IP4 Protocol Transmit()error!(%r)\r\n", status);
          break;
        }
        ++sent;
      }
    }
    if (rxToken.Status == EFI_SUCCESS) {
      UINT64 arrived = ReadTimeStampCounter();
      ConsolePrint(u"Receive Packet......\r\n");
      EFI_IP4_RECEIVE_DATA* rx = rxToken.Packet.RxData;
      if (CheckEchoReply(rx, DestinationAddress, Variant)) {
        const auto* icmp = static_cast<const UINT8*>(rx->FragmentTable[0].FragmentBuffer);
        UINT16 replySequence = ReadLe16(icmp + 6);
        if (replySequence <= sequence && replySequence < kMaxTimedRequests)
          LogPrint(u"Reply seq %d from %d.%d.%d.%d: time %d us\r\n", replySequence,
                   DestinationAddress.Addr[0], DestinationAddress.Addr[1], DestinationAddress.Addr[2],
                   DestinationAddress.Addr[3], (arrived - sendTimes[replySequence]) / tscPerUs);
      }
      if (rx != nullptr)
        gBS->SignalEvent(rx->RecycleSignal);
      rxToken.Packet.RxData = nullptr;
      rxToken.Status = EFI_ABORTED;
      status = ip4->Receive(ip4, &rxToken);
      if (EFI_ERROR(status)) {
        LogPrint(u"IP4 Protocol Receive()error!(%r)\r\n", status);
        break;
      }
    }
    if (state.replies >= Count) {
      ConsolePrint(u"All Received!\r\n");
      break;
    }
    if (UINT32(ticks + 1 - sent) >= 2) {
      status = EFI_TIMEOUT;
      ConsolePrint(u"Receive Time Out!\r\n");
      break;
    }
  }
  return status;
}

void DecideCurrentPlatform(PingVariant Variant) {
  constexpr UINT32 kCurrentUefi = 0x2001E;        // 2.30
  constexpr UINT32 kCurrentUefiFamily1 = 0x2000A; // 2.10, on platform family 1
  UINT32 revision = gST->Hdr.Revision;
  UINTN family = GetPlatformFamilyId();
  BOOLEAN current = revision >= kCurrentUefi || (revision >= kCurrentUefiFamily1 && family == 1);
  if (!current)
    LogPrint(u"Old UEFI 0x%x platform, family id 0x%x\r\n", revision, family);
  SetCurrentPlatform(Variant, current);
}
