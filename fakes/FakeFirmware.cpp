#include "fakes/FakeFirmware.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/Globals.h"
#include "support/Clock.h"

FakeFirmware* FakeFirmware::current = nullptr;
FakeManager* FakeManager::current = nullptr;

namespace {

FakeFirmware& F() {
  return *FakeFirmware::current;
}

EFI_STATUS EFIAPI FakeAllocatePool(EFI_MEMORY_TYPE, UINTN size, void** buffer) {
  if (F().failAllocationAfter == 0 || F().Fail()) {
    *buffer = nullptr;
    return EFI_OUT_OF_RESOURCES;
  }
  if (F().failAllocationAfter != SIZE_MAX)
    --F().failAllocationAfter;
  *buffer = std::malloc(size == 0 ? 1 : size);
  std::memset(*buffer, FakeFirmware::kPoolFill, size); // pool memory is not zeroed
  F().pool[*buffer] = size;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeFreePool(void* buffer) {
  auto it = F().pool.find(buffer);
  if (it == F().pool.end())
    return EFI_INVALID_PARAMETER;
  F().pool.erase(it);
  std::free(buffer);
  return EFI_SUCCESS;
}

EFI_STATUS FindProtocol(EFI_HANDLE handle, const EFI_GUID* guid, void** iface) {
  for (auto& p : F().protocols)
    if (p.handle == handle && p.guid == *guid) {
      *iface = p.iface;
      return EFI_SUCCESS;
    }
  return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI FakeHandleProtocol(EFI_HANDLE handle, const EFI_GUID* guid, void** iface) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  return FindProtocol(handle, guid, iface);
}

EFI_STATUS EFIAPI FakeLocateProtocol(const EFI_GUID* guid, void*, void** iface) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  for (auto& p : F().protocols)
    if (p.guid == *guid) {
      *iface = p.iface;
      return EFI_SUCCESS;
    }
  *iface = nullptr;
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI FakeLocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE type, const EFI_GUID* guid, void*,
                                         UINTN* count, EFI_HANDLE** buffer) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  std::vector<EFI_HANDLE> found;
  for (auto& p : F().protocols)
    if ((type == AllHandles || p.guid == *guid) &&
        std::find(found.begin(), found.end(), p.handle) == found.end())
      found.push_back(p.handle);
  if (found.empty())
    return EFI_NOT_FOUND;
  void* memory = nullptr;
  EFI_STATUS status = FakeAllocatePool(EfiBootServicesData, found.size() * sizeof(EFI_HANDLE), &memory);
  if (EFI_ERROR(status))
    return status;
  std::memcpy(memory, found.data(), found.size() * sizeof(EFI_HANDLE));
  *buffer = static_cast<EFI_HANDLE*>(memory);
  *count = found.size();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeCreateEvent(UINT32 type, EFI_TPL, EFI_EVENT_NOTIFY notify, void* context,
                                  EFI_EVENT* event) {
  if (F().Fail())
    return EFI_OUT_OF_RESOURCES;
  static uintptr_t next = 0x70000;
  *event = reinterpret_cast<EFI_EVENT>(next += 16);
  F().events[*event] = FakeFirmware::FakeEvent{type, notify, context};
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeCloseEvent(EFI_EVENT event) {
  return F().events.erase(event) == 1 ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

EFI_STATUS EFIAPI FakeSetTimer(EFI_EVENT event, EFI_TIMER_DELAY type, UINT64 time) {
  if (type != TimerCancel && F().Fail())
    return EFI_DEVICE_ERROR;
  auto it = F().events.find(event);
  if (it == F().events.end())
    return EFI_INVALID_PARAMETER;
  it->second.due = type == TimerCancel ? 0 : F().now + (time == 0 ? 1 : time);
  it->second.period = type == TimerPeriodic ? time : 0;
  it->second.signaled = false;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeSignalEvent(EFI_EVENT event) {
  auto it = F().events.find(event);
  if (it == F().events.end())
    return EFI_SUCCESS; // e.g. a recycle event of a fake driver
  if (it->second.notify != nullptr)
    it->second.notify(event, it->second.context);
  else
    it->second.signaled = true;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeCheckEvent(EFI_EVENT event) {
  F().Advance(F().checkStep);
  auto it = F().events.find(event);
  if (it == F().events.end())
    return EFI_INVALID_PARAMETER;
  if (!it->second.signaled)
    return EFI_NOT_READY;
  it->second.signaled = false;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeStall(UINTN microseconds) {
  F().Advance(UINT64(microseconds) * 10);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeOpenProtocol(EFI_HANDLE handle, const EFI_GUID* guid, void** iface, EFI_HANDLE agent,
                                   EFI_HANDLE controller, UINT32 attributes) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  void* found = nullptr;
  EFI_STATUS status = FindProtocol(handle, guid, &found);
  if (iface != nullptr)
    *iface = found;
  if (!EFI_ERROR(status) && attributes != EFI_OPEN_PROTOCOL_TEST_PROTOCOL)
    F().RecordOpen(handle, *guid, agent, controller, attributes);
  return status;
}

EFI_STATUS EFIAPI FakeCloseProtocol(EFI_HANDLE handle, const EFI_GUID* guid, EFI_HANDLE agent,
                                    EFI_HANDLE controller) {
  // Not a counted use (the sweep leaves closes alone), but it can be made to fail by name.
  if (F().FailsByName())
    return EFI_DEVICE_ERROR;
  size_t removed = std::erase_if(F().opens, [&](const FakeFirmware::Open& o) {
    return o.handle == handle && o.guid == *guid && o.agent == agent && o.controller == controller;
  });
  return removed != 0 ? EFI_SUCCESS : EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI FakeOpenProtocolInformation(EFI_HANDLE handle, const EFI_GUID* guid,
                                              EFI_OPEN_PROTOCOL_INFORMATION_ENTRY** entries, UINTN* count) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  void* iface = nullptr;
  if (EFI_ERROR(FindProtocol(handle, guid, &iface)))
    return EFI_NOT_FOUND;
  std::vector<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> found;
  for (auto& o : F().opens)
    if (o.handle == handle && o.guid == *guid)
      found.push_back({o.agent, o.controller, o.attributes, o.count});
  void* memory = nullptr;
  EFI_STATUS status = FakeAllocatePool(
      EfiBootServicesData, (found.size() + 1) * sizeof(EFI_OPEN_PROTOCOL_INFORMATION_ENTRY), &memory);
  if (EFI_ERROR(status))
    return status;
  if (!found.empty())
    std::memcpy(memory, found.data(), found.size() * sizeof(found[0]));
  *entries = static_cast<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY*>(memory);
  *count = found.size();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeProtocolsPerHandle(EFI_HANDLE handle, EFI_GUID*** guids, UINTN* count) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  std::vector<const EFI_GUID*> found;
  for (auto& p : F().protocols)
    if (p.handle == handle)
      found.push_back(&p.guid);
  if (found.empty())
    return EFI_INVALID_PARAMETER;
  void* memory = nullptr;
  EFI_STATUS status = FakeAllocatePool(EfiBootServicesData, found.size() * sizeof(EFI_GUID*), &memory);
  if (EFI_ERROR(status))
    return status;
  std::memcpy(memory, found.data(), found.size() * sizeof(EFI_GUID*));
  *guids = static_cast<EFI_GUID**>(memory);
  *count = found.size();
  return EFI_SUCCESS;
}

// The real-time clock follows the virtual clock from 2024-01-03 16:39:14; reading it takes a
// millisecond, so that a loop waiting for the next second ends.
EFI_STATUS EFIAPI FakeGetTime(EFI_TIME* time, EFI_TIME_CAPABILITIES*) {
  if (!F().clockWorks)
    return EFI_DEVICE_ERROR;
  F().Advance(F().checkStep);
  UINT64 seconds = (16 * 60 + 39) * 60 + 14 + F().now / 10000000;
  *time = EFI_TIME{
      2024, 1, 3, UINT8(seconds / 3600 % 24), UINT8(seconds / 60 % 60), UINT8(seconds % 60), 0, 0, 0, 0, 0};
  return EFI_SUCCESS;
}

// The time-stamp counter runs at 1 GHz of virtual time.
UINT64 FakeTimeStampCounter() {
  return F().now * 100;
}

EFI_STATUS EFIAPI FakeInstallMultiple(EFI_HANDLE* handle, ...) {
  if (F().failInstallWith != EFI_SUCCESS)
    return F().failInstallWith;
  __builtin_ms_va_list ap;
  __builtin_ms_va_start(ap, handle);
  std::vector<FakeFirmware::Installed> adding;
  for (;;) {
    auto* guid = __builtin_va_arg(ap, const EFI_GUID*);
    if (guid == nullptr)
      break;
    void* iface = __builtin_va_arg(ap, void*);
    if (F().HasProtocol(*handle, *guid)) {
      __builtin_ms_va_end(ap);
      return EFI_ALREADY_STARTED;
    }
    adding.push_back({*handle, *guid, iface});
  }
  __builtin_ms_va_end(ap);
  F().protocols.insert(F().protocols.end(), adding.begin(), adding.end());
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeUninstallMultiple(EFI_HANDLE handle, ...) {
  __builtin_ms_va_list ap;
  __builtin_ms_va_start(ap, handle);
  std::vector<std::pair<EFI_GUID, void*>> removing;
  for (;;) {
    auto* guid = __builtin_va_arg(ap, const EFI_GUID*);
    if (guid == nullptr)
      break;
    removing.push_back({*guid, __builtin_va_arg(ap, void*)});
  }
  __builtin_ms_va_end(ap);
  // All or nothing, as the firmware does.
  for (auto& [guid, iface] : removing) {
    bool found = false;
    for (auto& p : F().protocols)
      found |= p.handle == handle && p.guid == guid && p.iface == iface;
    if (!found)
      return EFI_INVALID_PARAMETER;
  }
  for (auto& entry : removing)
    std::erase_if(F().protocols, [&](auto& p) {
      return p.handle == handle && p.guid == entry.first && p.iface == entry.second;
    });
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeGetNextVariableName(UINTN* size, CHAR16* name, EFI_GUID* guid) {
  auto& vars = F().variables;
  size_t next = 0;
  if (name[0] != 0) {
    next = vars.size();
    for (size_t i = 0; i < vars.size(); ++i)
      if (vars[i].name == std::u16string(name) && vars[i].guid == *guid)
        next = i + 1;
    if (next == vars.size() + 1 || next > vars.size())
      return EFI_INVALID_PARAMETER;
  }
  if (next >= vars.size())
    return EFI_NOT_FOUND;
  size_t need = (vars[next].name.size() + 1) * 2;
  if (*size < need) {
    *size = need;
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(name, vars[next].name.c_str(), need);
  *guid = vars[next].guid;
  *size = need;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeGetVariable(const CHAR16* name, const EFI_GUID* guid, UINT32*, UINTN* size,
                                  void* data) {
  for (auto& v : F().variables)
    if (v.name == std::u16string(name) && v.guid == *guid) {
      if (*size < v.data.size()) {
        *size = v.data.size();
        return EFI_BUFFER_TOO_SMALL;
      }
      std::memcpy(data, v.data.data(), v.data.size());
      *size = v.data.size();
      return EFI_SUCCESS;
    }
  return EFI_NOT_FOUND;
}

std::u16string& TextOf(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out) {
  return out == &F().stdErr ? F().stdErrText : F().conOutText;
}

EFI_STATUS EFIAPI FakeOutputString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, const CHAR16* s) {
  TextOf(self) += s;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FakeSetAttribute(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN attr) {
  TextOf(self) += u"{" + Widen(std::to_string(attr)) + u"}";
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ManagerOutput(CHAR16* text, BOOLEAN flag, BOOLEAN toConsole, BOOLEAN toError) {
  FakeManager::current->lines.push_back({text, flag != 0, toConsole != 0, toError != 0});
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI ManagerProgress(UINTN percent, UINTN seconds, UINTN* interrupt) {
  auto& m = *FakeManager::current;
  m.progress.push_back({percent, seconds, interrupt != nullptr});
  if (interrupt != nullptr) {
    *interrupt = 0;
    if (!m.answers.empty()) {
      *interrupt = m.answers.front();
      m.answers.erase(m.answers.begin());
    }
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI ManagerPrompt(UINTN id, CHAR16*) {
  FakeManager::current->prompts.push_back(id);
  return FakeManager::current->abortPrompts.count(id) != 0 ? EFI_ABORTED : EFI_SUCCESS;
}
EFI_STATUS EFIAPI ManagerReserved() {
  return EFI_UNSUPPORTED;
}

} // namespace

FakeFirmware::FakeFirmware() {
  current = this;
  savedCounter = gReadTimeStampCounter;
  gReadTimeStampCounter = FakeTimeStampCounter;
  ResetTimeStampCounterFrequency();
  bs.AllocatePool = FakeAllocatePool;
  bs.FreePool = FakeFreePool;
  bs.HandleProtocol = FakeHandleProtocol;
  bs.LocateProtocol = FakeLocateProtocol;
  bs.InstallMultipleProtocolInterfaces = FakeInstallMultiple;
  bs.UninstallMultipleProtocolInterfaces = FakeUninstallMultiple;
  bs.LocateHandleBuffer = FakeLocateHandleBuffer;
  bs.CreateEvent = FakeCreateEvent;
  bs.CloseEvent = FakeCloseEvent;
  bs.SetTimer = FakeSetTimer;
  bs.SignalEvent = FakeSignalEvent;
  bs.CheckEvent = FakeCheckEvent;
  bs.Stall = FakeStall;
  bs.OpenProtocol = FakeOpenProtocol;
  bs.CloseProtocol = FakeCloseProtocol;
  bs.OpenProtocolInformation = FakeOpenProtocolInformation;
  bs.ProtocolsPerHandle = FakeProtocolsPerHandle;
  rt.GetTime = FakeGetTime;
  rt.GetNextVariableName = FakeGetNextVariableName;
  rt.GetVariable = FakeGetVariable;
  conOut.OutputString = FakeOutputString;
  conOut.SetAttribute = FakeSetAttribute;
  stdErr.OutputString = FakeOutputString;
  stdErr.SetAttribute = FakeSetAttribute;
  st.Hdr.Revision = 0x00020046; // UEFI 2.70
  st.BootServices = &bs;
  st.RuntimeServices = &rt;
  st.ConOut = &conOut;
  st.StdErr = &stdErr;
  gST = &st;
  gBS = &bs;
  gRT = &rt;
}

FakeFirmware::~FakeFirmware() {
  for (auto& [p, size] : pool)
    std::free(p);
  gST = nullptr;
  gBS = nullptr;
  gRT = nullptr;
  gReadTimeStampCounter = savedCounter;
  ResetTimeStampCounterFrequency();
  current = nullptr;
}

void FakeFirmware::RecordOpen(EFI_HANDLE handle, const EFI_GUID& guid, EFI_HANDLE agent,
                              EFI_HANDLE controller, UINT32 attributes) {
  for (auto& o : opens)
    if (o.handle == handle && o.guid == guid && o.agent == agent && o.controller == controller &&
        o.attributes == attributes) {
      ++o.count;
      return;
    }
  opens.push_back({handle, guid, agent, controller, attributes, 1});
}

size_t FakeFirmware::OpensBy(EFI_HANDLE agent) const {
  size_t n = 0;
  for (auto& o : opens)
    n += o.agent == agent;
  return n;
}

void FakeFirmware::Advance(UINT64 units) {
  UINT64 until = now + units;
  // Fire the timers that fall due on the way, in time order.
  for (;;) {
    EFI_EVENT next = nullptr;
    UINT64 when = until + 1;
    for (auto& [e, ev] : events)
      if (ev.due != 0 && ev.due <= until && ev.due < when) {
        next = e;
        when = ev.due;
      }
    if (next == nullptr)
      break;
    now = when;
    FakeEvent& ev = events[next];
    ev.due = ev.period != 0 ? when + ev.period : 0;
    if (ev.notify != nullptr && (ev.type & EVT_NOTIFY_SIGNAL) != 0)
      ev.notify(next, ev.context);
    else
      ev.signaled = true;
  }
  now = until;
  for (size_t i = 0; i < tickers.size(); ++i)
    tickers[i]();
}

void FakeFirmware::RemoveHandle(EFI_HANDLE handle) {
  std::erase_if(protocols, [&](auto& p) { return p.handle == handle; });
  std::erase_if(opens, [&](auto& o) { return o.handle == handle; });
}

bool FakeFirmware::HasProtocol(EFI_HANDLE handle, const EFI_GUID& guid) const {
  for (auto& p : protocols)
    if (p.handle == handle && p.guid == guid)
      return true;
  return false;
}

void FakeFirmware::SetVariable(const std::u16string& name, const EFI_GUID& guid, const std::u16string& text) {
  std::vector<uint8_t> data((text.size() + 1) * 2);
  std::memcpy(data.data(), text.c_str(), data.size());
  SetVariableBytes(name, guid, std::move(data));
}

void FakeFirmware::SetVariableBytes(const std::u16string& name, const EFI_GUID& guid,
                                    std::vector<uint8_t> data) {
  variables.push_back({name, guid, std::move(data)});
}

FakeManager::FakeManager() {
  current = this;
  protocol = {ManagerProgress, ManagerReserved, ManagerOutput, ManagerReserved, ManagerPrompt};
}
FakeManager::~FakeManager() {
  current = nullptr;
}

std::u16string FakeManager::AllText() const {
  std::u16string all;
  for (auto& l : lines)
    all += l.text;
  return all;
}

std::u16string FakeManager::ConsoleText() const {
  std::u16string all;
  for (auto& l : lines)
    if (l.toConsole || l.toError)
      all += l.text;
  return all;
}

std::string Narrow(const std::u16string& s) {
  std::string out;
  for (char16_t c : s)
    out += c < 0x80 ? char(c) : '?';
  return out;
}

std::u16string Widen(const std::string& s) {
  std::u16string out;
  for (unsigned char c : s)
    out += char16_t(c);
  return out;
}
