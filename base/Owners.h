// Owners for firmware resources. Each releases what it holds when it goes out of scope, so a
// resource taken in an operation is given back on every exit path of that operation.
#pragma once
#include "base/Cxx.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "uefi/protocol/SimpleFileSystem.h"

namespace wc {

// Anything one function releases: pool memory, an INI or XML document, an ordered list.
template <class T, auto Free> class Owned {
public:
  Owned() = default;
  explicit Owned(T* p) : p_(p) {}
  Owned(Owned&& o) noexcept : p_(Exchange<T*>(o.p_, nullptr)) {}
  Owned& operator=(Owned&& o) noexcept {
    if (this != &o)
      Reset(o.Release());
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { Reset(); }

  T* Get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  // For the out-parameter of the function that makes one.
  T** Receive() {
    Reset();
    return &p_;
  }
  T* Release() { return Exchange<T*>(p_, nullptr); }
  void Reset(T* p = nullptr) {
    if (p_ != nullptr && p_ != p)
      Free(p_);
    p_ = p;
  }

private:
  T* p_ = nullptr;
};

// Boot-services pool memory.
template <class T> void FreePoolOf(T* p) {
  FreePool(const_cast<void*>(static_cast<const void*>(p)));
}
template <class T> class PoolPtr : public Owned<T, FreePoolOf<T>> {
public:
  using Owned<T, FreePoolOf<T>>::Owned;
  static PoolPtr Allocate(UINTN bytes) { return PoolPtr(static_cast<T*>(AllocatePool(bytes))); }
  static PoolPtr AllocateZero(UINTN bytes) { return PoolPtr(static_cast<T*>(AllocateZeroPool(bytes))); }
  T& operator[](UINTN i) const { return this->Get()[i]; }
};

// An event created with CreateEvent and closed by its creator.
class EventOwner {
public:
  EventOwner() = default;
  EventOwner(EventOwner&& o) noexcept : e_(Exchange<EFI_EVENT>(o.e_, nullptr)) {}
  EventOwner(const EventOwner&) = delete;
  EventOwner& operator=(const EventOwner&) = delete;
  ~EventOwner() { Close(); }

  EFI_STATUS Create(UINT32 type, EFI_TPL tpl = TPL_CALLBACK, EFI_EVENT_NOTIFY notify = nullptr,
                    void* context = nullptr) {
    Close();
    return gBS->CreateEvent(type, tpl, notify, context, &e_);
  }
  // The event of a completion token whose status the owner polls: the firmware signals it, and its
  // notification does nothing.
  EFI_STATUS CreateForToken() { return Create(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, NotifyNothing); }
  EFI_EVENT Get() const { return e_; }
  explicit operator bool() const { return e_ != nullptr; }
  void Close() {
    if (e_ != nullptr)
      gBS->CloseEvent(Exchange<EFI_EVENT>(e_, nullptr));
  }

private:
  static void EFIAPI NotifyNothing(EFI_EVENT, void*) {}
  EFI_EVENT e_ = nullptr;
};

// A protocol opened on a handle with OpenProtocol; closed with CloseProtocol on release when the
// open was of a kind that must be closed (anything but GET_PROTOCOL/TEST_PROTOCOL).
template <class P> class OpenedProtocol {
public:
  OpenedProtocol() = default;
  OpenedProtocol(OpenedProtocol&& o) noexcept
      : iface_(Exchange<P*>(o.iface_, nullptr)), handle_(o.handle_), guid_(o.guid_), agent_(o.agent_),
        controller_(o.controller_), mustClose_(Exchange(o.mustClose_, false)) {}
  OpenedProtocol(const OpenedProtocol&) = delete;
  OpenedProtocol& operator=(const OpenedProtocol&) = delete;
  ~OpenedProtocol() { Close(); }

  EFI_STATUS Open(EFI_HANDLE handle, const EFI_GUID& guid, EFI_HANDLE agent, EFI_HANDLE controller,
                  UINT32 attributes) {
    Close();
    void* iface = nullptr;
    EFI_STATUS status = gBS->OpenProtocol(handle, &guid, &iface, agent, controller, attributes);
    if (EFI_ERROR(status))
      return status;
    iface_ = static_cast<P*>(iface);
    handle_ = handle;
    guid_ = &guid;
    agent_ = agent;
    controller_ = controller;
    mustClose_ = (attributes & (EFI_OPEN_PROTOCOL_GET_PROTOCOL | EFI_OPEN_PROTOCOL_TEST_PROTOCOL)) == 0;
    return status;
  }
  P* Get() const { return iface_; }
  P* operator->() const { return iface_; }
  explicit operator bool() const { return iface_ != nullptr; }
  EFI_STATUS Close() {
    EFI_STATUS status = EFI_SUCCESS;
    if (iface_ != nullptr && mustClose_)
      status = gBS->CloseProtocol(handle_, guid_, agent_, controller_);
    iface_ = nullptr;
    mustClose_ = false;
    return status;
  }

private:
  P* iface_ = nullptr;
  EFI_HANDLE handle_ = nullptr;
  const EFI_GUID* guid_ = nullptr;
  EFI_HANDLE agent_ = nullptr;
  EFI_HANDLE controller_ = nullptr;
  bool mustClose_ = false;
};

// The handles that carry a protocol, in the firmware's order; the buffer is freed on release.
class HandleBuffer {
public:
  EFI_STATUS Locate(const EFI_GUID& Protocol) {
    Reset();
    EFI_STATUS status = gBS->LocateHandleBuffer(ByProtocol, &Protocol, nullptr, &count_, handles_.Receive());
    if (EFI_ERROR(status) || !handles_)
      Reset();
    return status;
  }
  // Every handle of the handle database.
  EFI_STATUS LocateAll() {
    Reset();
    EFI_STATUS status = gBS->LocateHandleBuffer(AllHandles, nullptr, nullptr, &count_, handles_.Receive());
    if (EFI_ERROR(status) || !handles_)
      Reset();
    return status;
  }
  UINTN Count() const { return count_; }
  EFI_HANDLE operator[](UINTN i) const { return handles_[i]; }
  // The handle at a 1-based position, or null when there is none.
  EFI_HANDLE At(UINT64 Position) const {
    return Position >= 1 && Position <= count_ ? handles_[Position - 1] : nullptr;
  }
  void Reset() {
    handles_.Reset();
    count_ = 0;
  }

private:
  PoolPtr<EFI_HANDLE> handles_;
  UINTN count_ = 0;
};

// An open file or directory of a simple file system; closed on release.
class FileOwner {
public:
  FileOwner() = default;
  explicit FileOwner(EFI_FILE_PROTOCOL* f) : f_(f) {}
  FileOwner(FileOwner&& o) noexcept : f_(Exchange<EFI_FILE_PROTOCOL*>(o.f_, nullptr)) {}
  FileOwner(const FileOwner&) = delete;
  FileOwner& operator=(const FileOwner&) = delete;
  ~FileOwner() { Close(); }

  EFI_FILE_PROTOCOL* Get() const { return f_; }
  EFI_FILE_PROTOCOL* operator->() const { return f_; }
  explicit operator bool() const { return f_ != nullptr; }
  EFI_FILE_PROTOCOL** Receive() {
    Close();
    return &f_;
  }
  EFI_FILE_PROTOCOL* Release() { return Exchange<EFI_FILE_PROTOCOL*>(f_, nullptr); }
  void Close() {
    if (f_ != nullptr) {
      EFI_FILE_PROTOCOL* f = Exchange<EFI_FILE_PROTOCOL*>(f_, nullptr);
      f->Close(f);
    }
  }

private:
  EFI_FILE_PROTOCOL* f_ = nullptr;
};

} // namespace wc
