// A small in-process stand-in for the firmware: pool memory with leak accounting, a protocol
// database with open-protocol records, events on a virtual clock, variables, and consoles that
// record what was written. Tests install it into the module's gST/gBS/gRT.
//
// Fault injection: every allocation and every firmware call that can fail (of the boot services
// here and of the fake protocols in fakes/) counts as one use. With failAt = n, the n-th use from
// then on fails (allocations with EFI_OUT_OF_RESOURCES, other calls with EFI_DEVICE_ERROR). Calls
// that give something back (FreePool, CloseEvent, CloseProtocol, DestroyChild, unconfiguring a
// child) never fail: there is nothing a caller could do about them.
#pragma once
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "uefi/Uefi.h"

struct FakeFirmware {
  FakeFirmware();
  ~FakeFirmware();

  EFI_SYSTEM_TABLE st{};
  EFI_BOOT_SERVICES bs{};
  EFI_RUNTIME_SERVICES rt{};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL conOut{};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL stdErr{};

  // What each console received, attributes included as "{attr}" markers.
  std::u16string conOutText;
  std::u16string stdErrText;

  std::map<void*, size_t> pool; // live allocations
  // Buffers that left the machine (frames, echo requests, configuration blocks) carrying pool memory
  // the module never wrote: a run of the pool's fill byte.
  size_t leftovers = 0;
  void CheckLeavesClean(const void* data, size_t size) {
    const auto* b = static_cast<const uint8_t*>(data);
    for (size_t i = 0, run = 0; i < size; ++i) {
      run = b[i] == kPoolFill ? run + 1 : 0;
      if (run == 4) {
        ++leftovers;
        return;
      }
    }
  }
  static constexpr uint8_t kPoolFill = 0xA5;
  size_t failAllocationAfter = SIZE_MAX; // make the n-th further allocation fail

  uint64_t uses = 0;   // allocations and fallible calls so far
  uint64_t failAt = 0; // the use that fails (1-based); 0: none
  uint64_t failed = 0; // uses that were failed
  // Counts uses from now on and fails the n-th (0: none).
  void FailUse(uint64_t n) {
    uses = 0;
    failed = 0;
    failAt = n;
  }
  const char* failedCall = nullptr; // the fake function whose use was failed
  std::string failEvery;            // every use of the fake function of this name fails
  // TRUE when the calling fake function is the one failEvery names; counts nothing.
  bool FailsByName(const char* call = __builtin_FUNCTION()) const { return failEvery == call; }
  // Counts one use; TRUE when this one is to fail.
  bool Fail(const char* call = __builtin_FUNCTION()) {
    ++uses;
    if ((failAt == 0 || uses != failAt) && !FailsByName(call))
      return false;
    ++failed;
    failedCall = call;
    return true;
  }

  // Open-protocol records, as OpenProtocol keeps them (TEST_PROTOCOL opens are not recorded).
  struct Open {
    EFI_HANDLE handle;
    EFI_GUID guid;
    EFI_HANDLE agent;
    EFI_HANDLE controller;
    UINT32 attributes;
    UINT32 count;
  };
  std::vector<Open> opens;
  void RecordOpen(EFI_HANDLE handle, const EFI_GUID& guid, EFI_HANDLE agent, EFI_HANDLE controller,
                  UINT32 attributes);
  size_t OpensBy(EFI_HANDLE agent) const;

  struct Installed {
    EFI_HANDLE handle;
    EFI_GUID guid;
    void* iface;
  };
  std::vector<Installed> protocols;
  EFI_STATUS failInstallWith = EFI_SUCCESS;
  bool clockWorks = true; // GetTime answers 2024-01-03 16:39:14 plus the virtual time when it works
  UINT64 (*savedCounter)() = nullptr; // the time-stamp counter reader the fake replaced

  struct Variable {
    std::u16string name;
    EFI_GUID guid;
    std::vector<uint8_t> data;
  };
  std::vector<Variable> variables;

  // Events and a virtual clock (100 ns units). Every CheckEvent advances the clock by checkStep,
  // so polling loops make progress; Stall advances it by the stalled time.
  struct FakeEvent {
    UINT32 type;
    EFI_EVENT_NOTIFY notify;
    void* context;
    UINT64 due = 0;    // 0: no timer armed
    UINT64 period = 0; // 0: one-shot
    bool signaled = false;
  };
  std::map<EFI_EVENT, FakeEvent> events;
  UINT64 now = 0;
  UINT64 checkStep = 10000; // 1 ms
  void Advance(UINT64 units);
  // Called whenever the clock moves (fake devices complete their work here).
  std::vector<std::function<void()>> tickers;

  void AddProtocol(EFI_HANDLE handle, const EFI_GUID& guid, void* iface) {
    protocols.push_back({handle, guid, iface});
  }
  void RemoveHandle(EFI_HANDLE handle);
  bool HasProtocol(EFI_HANDLE handle, const EFI_GUID& guid) const;
  void SetVariable(const std::u16string& name, const EFI_GUID& guid, const std::u16string& text);
  void SetVariableBytes(const std::u16string& name, const EFI_GUID& guid, std::vector<uint8_t> data);

  static FakeFirmware* current;
};

// A manager protocol that records what the module hands it.
struct FakeManager {
  FakeManager();
  ~FakeManager();
  VEX_MANAGER_PROTOCOL protocol{};
  struct Line {
    std::u16string text;
    bool flag, toConsole, toError;
  };
  std::vector<Line> lines;
  struct Report {
    UINTN percent, seconds;
    bool asked; // the module passed a place for the answer
  };
  std::vector<Report> progress;
  std::vector<UINTN> answers;   // interrupt values given at the progress reports that ask, in order
  std::vector<UINTN> prompts;   // message numbers prompted
  std::set<UINTN> abortPrompts; // prompts the operator aborts
  std::u16string AllText() const;
  std::u16string ConsoleText() const; // lines marked for the console or as errors
  static FakeManager* current;
};

std::string Narrow(const std::u16string& s);
std::u16string Widen(const std::string& s);
