// SpeedTest: transmit throughput of one NIC through the managed network. A burst of maximum-size
// frames is queued back to back; the time-stamp counter at the first and the last successful
// completion gives the interval, and the speed class (10, 100 or 1000 Mbit/s) must reach
// -NetworkSpeed.
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Cxx.h"
#include "base/Owners.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"
#include "support/Clock.h"
#include "tests/CommonOptions.h"
#include "tests/NicCheckRun.h"
#include "tests/SpeedTest.h"

EFI_STATUS SpeedTest(UINTN* Result, UINTN* ErrorCode);
EFI_STATUS MeasureNetworkSpeed(EFI_HANDLE Nic, UINT64 PacketsCount, UINT64* Speed);
EFI_STATUS TransmitFrame(EFI_MANAGED_NETWORK_PROTOCOL* Mnp, EFI_MAC_ADDRESS* DestinationAddress,
                         EFI_MAC_ADDRESS* SourceAddress, const UINT8* Frame, UINT32 FrameLength);

namespace {

constexpr auto kOptions = DeclareOptions<NicTestOptions>(
    kRetriesOption, kTestRepeatsOption, kIndexOption, kDeviceIdOption, kNetworkSpeedOption,
    NicOptionDecl{{.Name = u"-PacketsCount",
                   .Description = u"Count of packets to send.",
                   .Type = OPTION_TYPE_INTEGER,
                   .Default = u"5000",
                   .Low = u"1000",
                   .High = u"99999"},
                  [](NicTestOptions& o, const OptionRead& v) { return Store(o.PacketsCount, v); }});

constexpr UINTN kGroup = TestErrorGroup(4);
constexpr UINTN kSpeedTestFailed = kGroup + 0x01;
constexpr ErrorMeaning kErrors[] = {{kSpeedTestFailed, u"the speed test failed"}, {}};

constexpr UINTN kCompletionPolls = 50;     // at most 5 s for the last completions
constexpr UINTN kCompletionPause = 100000; // 100 ms
// A frame the firmware pushes back on (its transmit ring, or the managed network's transmit buffers,
// are full) is sent again once the NIC had time to send what it holds. A measurement spends at most
// ten seconds from its first refusal, and this many pauses, waiting for drains; past that a refused
// frame counts as failed.
constexpr UINT64 kDrainSeconds = 10;
constexpr UINTN kDrainPauses = 100000;
constexpr UINTN kDrainPause = 100; // µs

// Written by the completion handler while the sender stalls, read after the wait. Module-wide
// because the firmware hands a token back to the handler whenever it completes, which may be after
// the measurement that queued it gave up waiting.
struct TransmitToken;
struct Measurement {
  UINT64 CompletedCount;
  UINT64 FirstCompletionTsc;
  UINT64 LastCompletionTsc;
  UINT64 FailedCount;      // frames that completed with an error
  EFI_STATUS FirstFailure; // and the error of the first of them
  UINT64 FirstFailedFrame; // its number in the burst, from 1
  UINT64 RefusedCount;     // refusals of frames sent again once the ring drained
  UINT64 DrainPauses;      // pauses spent letting the ring drain
  UINT64 DrainDeadline;    // time-stamp counter at which draining stops (0: no refusal yet)
  UINT64 TicksPerSecond;   // the counter's frequency (0: unknown, the pauses alone bound it)
  bool Sending;            // a Transmit call of this measurement is under way
  TransmitToken* Refused;  // the frame that call had refused
};
constinit volatile Measurement gMeasurement = {};

// The destination and source of every frame, all zeros; the queued frames point at it until they
// complete, so it lives as long as the measurement above.
constinit EFI_MAC_ADDRESS gZeroAddress = {};

// One frame in flight: the token, its transmit data and a private copy of the frame's bytes right
// behind them, in one allocation that the completion handler frees.
struct TransmitToken {
  EFI_MANAGED_NETWORK_COMPLETION_TOKEN Token;
  EFI_MANAGED_NETWORK_TRANSMIT_DATA TxData;
  UINT8* Bytes() { return reinterpret_cast<UINT8*>(this + 1); }
};

void CountFailure(EFI_STATUS Status) {
  if (gMeasurement.FailedCount == 0) {
    gMeasurement.FirstFailure = Status;
    gMeasurement.FirstFailedFrame = gMeasurement.CompletedCount + 1;
  }
  gMeasurement.FailedCount = gMeasurement.FailedCount + 1;
}

// Whether the measurement may still wait for a drain; the first refusal starts the clock.
bool DrainTimeLeft() {
  if (gMeasurement.DrainPauses >= kDrainPauses)
    return false;
  if (gMeasurement.TicksPerSecond == 0)
    return true;
  UINT64 now = ReadTimeStampCounter();
  if (gMeasurement.DrainDeadline == 0)
    gMeasurement.DrainDeadline = now + kDrainSeconds * gMeasurement.TicksPerSecond;
  return now < gMeasurement.DrainDeadline;
}

void EFIAPI TransmitComplete(EFI_EVENT, void* Context) {
  auto* t = static_cast<TransmitToken*>(Context);
  // The firmware's managed network completes a frame with Device Error, inside the Transmit call,
  // when the NIC's transmit ring is still full after one recycle: the sender keeps that frame and
  // sends it again.
  if (t->Token.Status == EFI_DEVICE_ERROR && gMeasurement.Sending && gMeasurement.Refused == nullptr) {
    gMeasurement.Refused = t;
    return;
  }
  if (t->Token.Status == EFI_SUCCESS) {
    UINT64 now = ReadTimeStampCounter();
    if (gMeasurement.FirstCompletionTsc == 0)
      gMeasurement.FirstCompletionTsc = now;
    gMeasurement.LastCompletionTsc = now;
    gMeasurement.CompletedCount = gMeasurement.CompletedCount + 1;
  } else {
    CountFailure(t->Token.Status);
  }
  gBS->CloseEvent(t->Token.Event);
  FreePool(t);
}

UINT64 Divide(UINT64 a, UINT64 b) {
  return b == 0 ? 0 : a / b;
}

CheckOutcome CheckSpeed(NicCheckRun& Run, EFI_HANDLE Nic) {
  UINT64 speed = 0;
  EFI_STATUS status = MeasureNetworkSpeed(Nic, Run.Options().PacketsCount, &speed);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed get network speed! (%r)\r\n", status);
    Run.End(Outcome::Untouched(status)); // no figure, so no verdict
    return CheckOutcome::Ended;
  }
  return SpeedClass(speed) < Run.Options().NetworkSpeed ? CheckOutcome::Failed : CheckOutcome::Passed;
}

constexpr NicCheckTest kTest = {
    .Options = kOptions.Reader(),
    .Repeats = true,
    .WaitsForCable = true,
    .Check = CheckSpeed,
    .PassText = u"Speed Test successed!\r\n",
    .FailText = u"Speed Test failed!\r\n",
    .FailCode = kSpeedTestFailed,
};

} // namespace

extern const TestInfo kSpeedTest = {
    .Name = u"SpeedTest",
    .Description = u"This test verifies the network speed.",
    .Options = kOptions.Rows,
    .Procedure = SpeedTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

SpeedFigures ComputeNetworkSpeed(UINT64 PacketsCount, UINT32 MaxPacketSize, UINT32 MediaHeaderSize,
                                 UINT64 Ticks, UINT64 Frequency) {
  SpeedFigures f = {};
  UINT32 frameBits = (MaxPacketSize + MediaHeaderSize) * 8;
  f.Bits = PacketsCount * frameBits;
  f.Milliseconds = Divide(Ticks, Frequency / 1000);
  f.Speed = Divide(f.Bits * 1000, f.Milliseconds * 1048576);
  return f;
}

UINT64 SpeedClass(UINT64 Speed) {
  return Speed > 200 ? 1000 : Speed > 30 ? 100 : 10;
}

EFI_STATUS TransmitFrame(EFI_MANAGED_NETWORK_PROTOCOL* Mnp, EFI_MAC_ADDRESS* DestinationAddress,
                         EFI_MAC_ADDRESS* SourceAddress, const UINT8* Frame, UINT32 FrameLength) {
  wc::PoolPtr<TransmitToken> t =
      wc::PoolPtr<TransmitToken>::AllocateZero(sizeof(TransmitToken) + FrameLength);
  if (!t) {
    LogPrint(u"Memory Out.\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  t->Token.Status = EFI_NOT_READY;
  EFI_STATUS status =
      gBS->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, TransmitComplete, t.Get(), &t->Token.Event);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed create send event.\r\n");
    return status;
  }
  EFI_MANAGED_NETWORK_TRANSMIT_DATA& tx = t->TxData;
  tx.DestinationAddress = DestinationAddress;
  tx.SourceAddress = SourceAddress;
  tx.ProtocolType = 0;
  tx.DataLength = FrameLength;
  tx.HeaderLength = 0;
  tx.FragmentCount = 1;
  tx.FragmentTable[0].FragmentLength = FrameLength;
  tx.FragmentTable[0].FragmentBuffer = t->Bytes();
  CopyMem(t->Bytes(), Frame, FrameLength);
  t->Token.Packet.TxData = &tx;
  for (;;) {
    gMeasurement.Refused = nullptr;
    gMeasurement.Sending = true;
    status = Mnp->Transmit(Mnp, &t->Token);
    gMeasurement.Sending = false;
    // Refused: the token completed inside Transmit because the NIC's ring was still full.
    bool refused = !EFI_ERROR(status) && gMeasurement.Refused == t.Get();
    if (!refused && !EFI_ERROR(status))
      break;
    // Pushed back (refused, or the managed network has no transmit buffer left while it keeps the
    // frames the NIC has not sent yet): let the NIC send what it holds, then try again.
    if ((refused || status == EFI_OUT_OF_RESOURCES) && DrainTimeLeft()) {
      gMeasurement.RefusedCount = gMeasurement.RefusedCount + 1;
      Mnp->Poll(Mnp);
      gBS->Stall(kDrainPause);
      gMeasurement.DrainPauses = gMeasurement.DrainPauses + 1;
      t->Token.Status = EFI_NOT_READY;
      continue;
    }
    gBS->CloseEvent(t->Token.Event);
    if (!refused) {
      LogPrint(u"Failed Transmit packet! (%r)\r\n", status);
      return status;
    }
    // Refused for good: the burst goes on, and the wait finds this frame missing.
    gMeasurement.RefusedCount = gMeasurement.RefusedCount + 1;
    CountFailure(EFI_DEVICE_ERROR);
    return EFI_SUCCESS;
  }
  // Accepted: the token is the completion handler's now, which may already have freed it.
  t.Release();
  return EFI_SUCCESS;
}

EFI_STATUS MeasureNetworkSpeed(EFI_HANDLE Nic, UINT64 PacketsCount, UINT64* Speed) {
  bool measured = false;
  UINT64 frequency = TimeStampCounterFrequency(&measured);
  // Whether the processor calls its counter invariant (constant rate whatever the power state)
  // tells how far the figure can be trusted.
  if (measured)
    LogPrint(u"Time-stamp counter: %ld ticks per second, invariant: %s\r\n", frequency,
             TimeStampCounterInvariant() ? u"yes" : u"no");
  MnpChild mnp;
  EFI_STATUS status = mnp.Open(Nic, gImageHandle);
  if (EFI_ERROR(status)) {
    if (mnp.Handle() != nullptr)
      LogPrint(u"Failed handle ManagedNetworkProtocol!(%r)\r\n", status);
    return status;
  }
  EFI_MANAGED_NETWORK_CONFIG_DATA config = {};
  config.ReceivedQueueTimeoutValue = 10000000;
  config.TransmitQueueTimeoutValue = 10000000;
  config.FlushQueuesOnReset = TRUE;
  status = mnp->Configure(mnp.Get(), &config);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed configure ManagedNetworkProtocol!(%r)\r\n", status);
    return status;
  }
  EFI_SIMPLE_NETWORK_MODE mode = {};
  UINT32 headerSize = 0, maxPacketSize = 1024;
  if (mnp->GetModeData(mnp.Get(), nullptr, &mode) == EFI_SUCCESS) {
    headerSize = mode.MediaHeaderSize;
    maxPacketSize = mode.MaxPacketSize;
  }
  LogPrint(u"MediaHeaderSize = %d, MaxPacketSize = %d\r\n", headerSize, maxPacketSize);
  // Any content serves, but nothing of the firmware's memory may leave the machine: zeros.
  wc::PoolPtr<UINT8> frame = wc::PoolPtr<UINT8>::AllocateZero(maxPacketSize);
  if (!frame)
    return EFI_OUT_OF_RESOURCES;
  gMeasurement.CompletedCount = 0;
  gMeasurement.FirstCompletionTsc = 0;
  gMeasurement.LastCompletionTsc = 0;
  gMeasurement.FailedCount = 0;
  gMeasurement.FirstFailure = EFI_SUCCESS;
  gMeasurement.RefusedCount = 0;
  gMeasurement.DrainPauses = 0;
  gMeasurement.DrainDeadline = 0;
  gMeasurement.TicksPerSecond = frequency;
  gMeasurement.Refused = nullptr;
  // Frames the interface still holds when the measurement ends are cancelled, so that their tokens
  // come back to the completion handler before the child goes away.
  UINT64 sent = 0;
  wc::ScopeGuard cancel([&] {
    if (gMeasurement.CompletedCount != sent)
      mnp->Cancel(mnp.Get(), nullptr);
  });
  for (; sent < PacketsCount; ++sent) {
    status = TransmitFrame(mnp.Get(), &gZeroAddress, &gZeroAddress, frame.Get(), maxPacketSize);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed send packet! (%r)\r\n", status);
      return status;
    }
  }
  for (UINTN poll = 0; poll < kCompletionPolls && gMeasurement.CompletedCount != PacketsCount; ++poll)
    gBS->Stall(kCompletionPause);
  if (gMeasurement.CompletedCount != PacketsCount) {
    LogPrint(
        u"%ld of %ld frames completed, %ld failed (the first, frame %ld: %r), %ld refusals sent again\r\n",
        UINT64(gMeasurement.CompletedCount), PacketsCount, UINT64(gMeasurement.FailedCount),
        UINT64(gMeasurement.FirstFailedFrame), EFI_STATUS(gMeasurement.FirstFailure),
        UINT64(gMeasurement.RefusedCount));
    LogPrint(u"Failed send packets!\r\n");
    return EFI_ABORTED;
  }
  UINT64 ticks = gMeasurement.LastCompletionTsc - gMeasurement.FirstCompletionTsc;
  SpeedFigures f = ComputeNetworkSpeed(PacketsCount, maxPacketSize, headerSize, ticks, frequency);
  LogPrint(u"Sent %ld bits using %ld ms, speed is %ld Mbit/s\r\n", f.Bits, f.Milliseconds, f.Speed);
  // The same burst in finer figures: a short burst and a slow NIC look alike in milliseconds.
  LogPrint(u"Frames: %ld of %d bytes, first to last completion %ld us, %ld frames/s\r\n", PacketsCount,
           maxPacketSize + headerSize, Divide(ticks * 1000000, frequency),
           Divide(PacketsCount * frequency, ticks));
  if (gMeasurement.RefusedCount != 0)
    LogPrint(u"%ld refusals while the transmit ring was full, each frame sent again\r\n",
             UINT64(gMeasurement.RefusedCount));
  *Speed = f.Speed;
  return EFI_SUCCESS;
}

EFI_STATUS SpeedTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<NicCheckRun>(Result, ErrorCode, kTest);
}
