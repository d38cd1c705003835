#include "ping/BringUp.h"
#include "base/Globals.h"
#include "nic/HiiConfig.h"
#include "nic/NicConfig.h"
#include "ping/Dhcp.h"

EFI_STATUS Ipv4BringUp::ReportTick(void* Context, UINTN Ticks, UINTN Total) {
  auto* self = static_cast<Ipv4BringUp*>(Context);
  // Each tick is reported once, the first after a second has gone.
  if (Ticks == 0 || Ticks == self->lastTick_ || Total == 0 || self->hooks_.AddressWaitTick == nullptr)
    return EFI_SUCCESS;
  if (!self->hooks_.AddressWaitTick(self->hooks_.Context, Ticks, Total)) {
    self->answered_ = true;
    return EFI_ABORTED;
  }
  self->lastTick_ = Ticks;
  return EFI_SUCCESS;
}

BringUpResult Ipv4BringUp::Run(const NicServices& Nic) {
  EFI_STATUS status = policy_.Rewrite == ConfigRewrite::StoredThroughHii ? SetNicByHii() : SetNicConfig();
  // The HII rewrite answers Already Started when there was nothing left to rewrite.
  if (EFI_ERROR(status) &&
      !(policy_.Rewrite == ConfigRewrite::StoredThroughHii && status == EFI_ALREADY_STARTED))
    return {BringUpReason::RewriteFailed, status};

  // A cable plugged in after the firmware's DHCP gave up would leave the address wait empty-handed.
  if (policy_.Echo.Firmware->Ip4Config2)
    RestartStalledDhcp(Nic.Config2);

  // The NIC's own address first: it shows that the stack is configured at all.
  lastTick_ = 0;
  answered_ = false;
  const PingProgress progress = {ReportTick, this};
  status = ExecutePingProcess(Nic.Ip4, EFI_IPv4_ADDRESS{}, 0, &progress, policy_.Echo);
  if (answered_)
    return {BringUpReason::OperatorAnswered, status};
  if (EFI_ERROR(status))
    return {BringUpReason::NoAddress, status};
  if (policy_.AddressOnly)
    return {BringUpReason::Up, EFI_SUCCESS};
  return RunDhcp(Nic.Dhcp4);
}

BringUpResult Ipv4BringUp::RunDhcp(EFI_HANDLE Dhcp4Service) {
  BringUpResult last = {BringUpReason::DhcpNotBound, EFI_SUCCESS};
  for (UINTN attempt = 0; attempt < policy_.Dhcp.Attempts; ++attempt) {
    if (attempt > 0 && hooks_.BeforeRetry != nullptr && !hooks_.BeforeRetry(hooks_.Context, attempt, false)) {
      answered_ = true;
      return {BringUpReason::OperatorAnswered, EFI_SUCCESS};
    }
    Dhcp4Child attemptChild;
    Dhcp4Child& child = policy_.HoldChild ? held_ : attemptChild;
    child.Close();
    EFI_STATUS status = child.Open(Dhcp4Service, gImageHandle);
    if (EFI_ERROR(status))
      return {BringUpReason::DhcpChildFailed, status};
    bool done = false;
    last = TryOnChild(child, &done);
    if (done)
      return last;
  }
  return last;
}

BringUpResult Ipv4BringUp::TryOnChild(Dhcp4Child& Child, bool* Done) {
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  const DhcpTries& tries = policy_.Dhcp;
  BringUpResult last = {BringUpReason::DhcpNotBound, EFI_SUCCESS};
  for (UINTN tryNumber = 0; tryNumber < tries.TriesPerChild; ++tryNumber) {
    UINTN refusals = 0, timeouts = 0;
    EFI_STATUS status;
    for (;;) {
      status = StartConfigureProcess(Child.Get(), &config, &lease_);
      if (status == EFI_ACCESS_DENIED && refusals < tries.RefusalRepeats) {
        ++refusals;
        gBS->Stall(tries.RefusalPause);
        continue;
      }
      if (status == EFI_TIMEOUT && timeouts < tries.TimeoutRepeats) {
        ++timeouts;
        gBS->Stall(tries.TimeoutPause);
        if (hooks_.BeforeRetry != nullptr && !hooks_.BeforeRetry(hooks_.Context, timeouts, true)) {
          answered_ = true;
          *Done = true;
          return {BringUpReason::OperatorAnswered, status};
        }
        continue;
      }
      break;
    }
    if (status == EFI_ACCESS_DENIED) {
      last = {BringUpReason::DhcpRefused, status};
    } else if (status == EFI_TIMEOUT) {
      last = {BringUpReason::DhcpTimedOut, status};
    } else if (EFI_ERROR(status)) {
      *Done = true;
      return {BringUpReason::DhcpFailed, status};
    } else if (!tries.RequireBound || lease_.State == Dhcp4Bound) {
      *Done = true;
      return {BringUpReason::Up, status};
    } else {
      last = {BringUpReason::DhcpNotBound, status};
    }
    if (tries.TryPause != 0)
      gBS->Stall(tries.TryPause);
  }
  return last;
}
