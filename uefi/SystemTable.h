// EFI system table, boot services, runtime services and the simple text protocols.
#pragma once

#include "uefi/Base.h"

struct EFI_TABLE_HEADER {
  UINT64 Signature;
  UINT32 Revision;
  UINT32 HeaderSize;
  UINT32 CRC32;
  UINT32 Reserved;
};
static_assert(sizeof(EFI_TABLE_HEADER) == 24);

struct EFI_DEVICE_PATH_PROTOCOL;

// ---- Simple text input ----
struct EFI_INPUT_KEY {
  UINT16 ScanCode;
  CHAR16 UnicodeChar;
};
struct EFI_SIMPLE_TEXT_INPUT_PROTOCOL {
  EFI_STATUS(EFIAPI* Reset)(EFI_SIMPLE_TEXT_INPUT_PROTOCOL* This, BOOLEAN ExtendedVerification);
  EFI_STATUS(EFIAPI* ReadKeyStroke)(EFI_SIMPLE_TEXT_INPUT_PROTOCOL* This, EFI_INPUT_KEY* Key);
  EFI_EVENT WaitForKey;
};
constexpr UINT16 SCAN_UP = 0x01;
constexpr UINT16 SCAN_DOWN = 0x02;
constexpr UINT16 SCAN_ESC = 0x17;

// ---- Simple text output ----
struct SIMPLE_TEXT_OUTPUT_MODE {
  INT32 MaxMode;
  INT32 Mode;
  INT32 Attribute;
  INT32 CursorColumn;
  INT32 CursorRow;
  BOOLEAN CursorVisible;
};
struct EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL {
  EFI_STATUS(EFIAPI* Reset)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, BOOLEAN ExtendedVerification);
  EFI_STATUS(EFIAPI* OutputString)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* TestString)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* QueryMode)
  (EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN ModeNumber, UINTN* Columns, UINTN* Rows);
  EFI_STATUS(EFIAPI* SetMode)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN ModeNumber);
  EFI_STATUS(EFIAPI* SetAttribute)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN Attribute);
  EFI_STATUS(EFIAPI* ClearScreen)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This);
  EFI_STATUS(EFIAPI* SetCursorPosition)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN Column, UINTN Row);
  EFI_STATUS(EFIAPI* EnableCursor)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, BOOLEAN Visible);
  SIMPLE_TEXT_OUTPUT_MODE* Mode;
};
static_assert(sizeof(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL) == 80);

// Text attributes (foreground on black).
constexpr UINTN EFI_BLACK = 0x00;
constexpr UINTN EFI_BLUE = 0x01;
constexpr UINTN EFI_GREEN = 0x02;
constexpr UINTN EFI_CYAN = 0x03;
constexpr UINTN EFI_RED = 0x04;
constexpr UINTN EFI_MAGENTA = 0x05;
constexpr UINTN EFI_BROWN = 0x06;
constexpr UINTN EFI_LIGHTGRAY = 0x07;
constexpr UINTN EFI_DARKGRAY = 0x08;
constexpr UINTN EFI_LIGHTGREEN = 0x0A;
constexpr UINTN EFI_LIGHTCYAN = 0x0B;
constexpr UINTN EFI_LIGHTRED = 0x0C;
constexpr UINTN EFI_YELLOW = 0x0E;
constexpr UINTN EFI_WHITE = 0x0F;

// ---- Memory ----
enum EFI_ALLOCATE_TYPE : UINT32 { AllocateAnyPages, AllocateMaxAddress, AllocateAddress, MaxAllocateType };
enum EFI_MEMORY_TYPE : UINT32 {
  EfiReservedMemoryType,
  EfiLoaderCode,
  EfiLoaderData,
  EfiBootServicesCode,
  EfiBootServicesData,
  EfiRuntimeServicesCode,
  EfiRuntimeServicesData,
  EfiConventionalMemory,
};
struct EFI_MEMORY_DESCRIPTOR {
  UINT32 Type;
  EFI_PHYSICAL_ADDRESS PhysicalStart;
  EFI_VIRTUAL_ADDRESS VirtualStart;
  UINT64 NumberOfPages;
  UINT64 Attribute;
};

// ---- Events ----
constexpr UINT32 EVT_TIMER = 0x80000000;
constexpr UINT32 EVT_RUNTIME = 0x40000000;
constexpr UINT32 EVT_NOTIFY_WAIT = 0x00000100;
constexpr UINT32 EVT_NOTIFY_SIGNAL = 0x00000200;
using EFI_EVENT_NOTIFY = void(EFIAPI*)(EFI_EVENT Event, void* Context);
enum EFI_TIMER_DELAY : UINT32 { TimerCancel, TimerPeriodic, TimerRelative };

// ---- Protocol handling ----
enum EFI_INTERFACE_TYPE : UINT32 { EFI_NATIVE_INTERFACE };
enum EFI_LOCATE_SEARCH_TYPE : UINT32 { AllHandles, ByRegisterNotify, ByProtocol };

constexpr UINT32 EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL = 0x01;
constexpr UINT32 EFI_OPEN_PROTOCOL_GET_PROTOCOL = 0x02;
constexpr UINT32 EFI_OPEN_PROTOCOL_TEST_PROTOCOL = 0x04;
constexpr UINT32 EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER = 0x08;
constexpr UINT32 EFI_OPEN_PROTOCOL_BY_DRIVER = 0x10;
constexpr UINT32 EFI_OPEN_PROTOCOL_EXCLUSIVE = 0x20;

struct EFI_OPEN_PROTOCOL_INFORMATION_ENTRY {
  EFI_HANDLE AgentHandle;
  EFI_HANDLE ControllerHandle;
  UINT32 Attributes;
  UINT32 OpenCount;
};
static_assert(sizeof(EFI_OPEN_PROTOCOL_INFORMATION_ENTRY) == 24);

enum EFI_RESET_TYPE : UINT32 { EfiResetCold, EfiResetWarm, EfiResetShutdown, EfiResetPlatformSpecific };

// ---- Boot services ----
struct EFI_BOOT_SERVICES {
  EFI_TABLE_HEADER Hdr;
  EFI_TPL(EFIAPI* RaiseTPL)(EFI_TPL NewTpl);
  void(EFIAPI* RestoreTPL)(EFI_TPL OldTpl);
  EFI_STATUS(EFIAPI* AllocatePages)
  (EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages, EFI_PHYSICAL_ADDRESS* Memory);
  EFI_STATUS(EFIAPI* FreePages)(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages);
  EFI_STATUS(EFIAPI* GetMemoryMap)
  (UINTN* MemoryMapSize, EFI_MEMORY_DESCRIPTOR* MemoryMap, UINTN* MapKey, UINTN* DescriptorSize,
   UINT32* DescriptorVersion);
  EFI_STATUS(EFIAPI* AllocatePool)(EFI_MEMORY_TYPE PoolType, UINTN Size, void** Buffer);
  EFI_STATUS(EFIAPI* FreePool)(void* Buffer);
  EFI_STATUS(EFIAPI* CreateEvent)
  (UINT32 Type, EFI_TPL NotifyTpl, EFI_EVENT_NOTIFY NotifyFunction, void* NotifyContext, EFI_EVENT* Event);
  EFI_STATUS(EFIAPI* SetTimer)(EFI_EVENT Event, EFI_TIMER_DELAY Type, UINT64 TriggerTime);
  EFI_STATUS(EFIAPI* WaitForEvent)(UINTN NumberOfEvents, EFI_EVENT* Event, UINTN* Index);
  EFI_STATUS(EFIAPI* SignalEvent)(EFI_EVENT Event);
  EFI_STATUS(EFIAPI* CloseEvent)(EFI_EVENT Event);
  EFI_STATUS(EFIAPI* CheckEvent)(EFI_EVENT Event);
  EFI_STATUS(EFIAPI* InstallProtocolInterface)
  (EFI_HANDLE* Handle, const EFI_GUID* Protocol, EFI_INTERFACE_TYPE InterfaceType, void* Interface);
  EFI_STATUS(EFIAPI* ReinstallProtocolInterface)
  (EFI_HANDLE Handle, const EFI_GUID* Protocol, void* OldInterface, void* NewInterface);
  EFI_STATUS(EFIAPI* UninstallProtocolInterface)
  (EFI_HANDLE Handle, const EFI_GUID* Protocol, void* Interface);
  EFI_STATUS(EFIAPI* HandleProtocol)(EFI_HANDLE Handle, const EFI_GUID* Protocol, void** Interface);
  void* Reserved;
  EFI_STATUS(EFIAPI* RegisterProtocolNotify)(const EFI_GUID* Protocol, EFI_EVENT Event, void** Registration);
  EFI_STATUS(EFIAPI* LocateHandle)
  (EFI_LOCATE_SEARCH_TYPE SearchType, const EFI_GUID* Protocol, void* SearchKey, UINTN* BufferSize,
   EFI_HANDLE* Buffer);
  EFI_STATUS(EFIAPI* LocateDevicePath)
  (const EFI_GUID* Protocol, EFI_DEVICE_PATH_PROTOCOL** DevicePath, EFI_HANDLE* Device);
  EFI_STATUS(EFIAPI* InstallConfigurationTable)(const EFI_GUID* Guid, void* Table);
  EFI_STATUS(EFIAPI* LoadImage)
  (BOOLEAN BootPolicy, EFI_HANDLE ParentImageHandle, EFI_DEVICE_PATH_PROTOCOL* DevicePath, void* SourceBuffer,
   UINTN SourceSize, EFI_HANDLE* ImageHandle);
  EFI_STATUS(EFIAPI* StartImage)(EFI_HANDLE ImageHandle, UINTN* ExitDataSize, CHAR16** ExitData);
  EFI_STATUS(EFIAPI* Exit)
  (EFI_HANDLE ImageHandle, EFI_STATUS ExitStatus, UINTN ExitDataSize, CHAR16* ExitData);
  EFI_STATUS(EFIAPI* UnloadImage)(EFI_HANDLE ImageHandle);
  EFI_STATUS(EFIAPI* ExitBootServices)(EFI_HANDLE ImageHandle, UINTN MapKey);
  EFI_STATUS(EFIAPI* GetNextMonotonicCount)(UINT64* Count);
  EFI_STATUS(EFIAPI* Stall)(UINTN Microseconds);
  EFI_STATUS(EFIAPI* SetWatchdogTimer)
  (UINTN Timeout, UINT64 WatchdogCode, UINTN DataSize, CHAR16* WatchdogData);
  EFI_STATUS(EFIAPI* ConnectController)
  (EFI_HANDLE ControllerHandle, EFI_HANDLE* DriverImageHandle, EFI_DEVICE_PATH_PROTOCOL* RemainingDevicePath,
   BOOLEAN Recursive);
  EFI_STATUS(EFIAPI* DisconnectController)
  (EFI_HANDLE ControllerHandle, EFI_HANDLE DriverImageHandle, EFI_HANDLE ChildHandle);
  EFI_STATUS(EFIAPI* OpenProtocol)
  (EFI_HANDLE Handle, const EFI_GUID* Protocol, void** Interface, EFI_HANDLE AgentHandle,
   EFI_HANDLE ControllerHandle, UINT32 Attributes);
  EFI_STATUS(EFIAPI* CloseProtocol)
  (EFI_HANDLE Handle, const EFI_GUID* Protocol, EFI_HANDLE AgentHandle, EFI_HANDLE ControllerHandle);
  EFI_STATUS(EFIAPI* OpenProtocolInformation)
  (EFI_HANDLE Handle, const EFI_GUID* Protocol, EFI_OPEN_PROTOCOL_INFORMATION_ENTRY** EntryBuffer,
   UINTN* EntryCount);
  EFI_STATUS(EFIAPI* ProtocolsPerHandle)
  (EFI_HANDLE Handle, EFI_GUID*** ProtocolBuffer, UINTN* ProtocolBufferCount);
  EFI_STATUS(EFIAPI* LocateHandleBuffer)
  (EFI_LOCATE_SEARCH_TYPE SearchType, const EFI_GUID* Protocol, void* SearchKey, UINTN* NoHandles,
   EFI_HANDLE** Buffer);
  EFI_STATUS(EFIAPI* LocateProtocol)(const EFI_GUID* Protocol, void* Registration, void** Interface);
  EFI_STATUS(EFIAPI* InstallMultipleProtocolInterfaces)(EFI_HANDLE* Handle, ...);
  EFI_STATUS(EFIAPI* UninstallMultipleProtocolInterfaces)(EFI_HANDLE Handle, ...);
  EFI_STATUS(EFIAPI* CalculateCrc32)(void* Data, UINTN DataSize, UINT32* Crc32);
  void(EFIAPI* CopyMem)(void* Destination, const void* Source, UINTN Length);
  void(EFIAPI* SetMem)(void* Buffer, UINTN Size, UINT8 Value);
  EFI_STATUS(EFIAPI* CreateEventEx)
  (UINT32 Type, EFI_TPL NotifyTpl, EFI_EVENT_NOTIFY NotifyFunction, const void* NotifyContext,
   const EFI_GUID* EventGroup, EFI_EVENT* Event);
};
static_assert(sizeof(EFI_BOOT_SERVICES) == 24 + 44 * 8);
static_assert(offsetof(EFI_BOOT_SERVICES, AllocatePool) == 0x40);
static_assert(offsetof(EFI_BOOT_SERVICES, HandleProtocol) == 0x98);
static_assert(offsetof(EFI_BOOT_SERVICES, OpenProtocol) == 0x118);
static_assert(offsetof(EFI_BOOT_SERVICES, LocateProtocol) == 0x140);

// ---- Runtime services ----
constexpr UINT32 EFI_VARIABLE_NON_VOLATILE = 0x1;
constexpr UINT32 EFI_VARIABLE_BOOTSERVICE_ACCESS = 0x2;
constexpr UINT32 EFI_VARIABLE_RUNTIME_ACCESS = 0x4;

struct EFI_RUNTIME_SERVICES {
  EFI_TABLE_HEADER Hdr;
  EFI_STATUS(EFIAPI* GetTime)(EFI_TIME* Time, EFI_TIME_CAPABILITIES* Capabilities);
  EFI_STATUS(EFIAPI* SetTime)(EFI_TIME* Time);
  EFI_STATUS(EFIAPI* GetWakeupTime)(BOOLEAN* Enabled, BOOLEAN* Pending, EFI_TIME* Time);
  EFI_STATUS(EFIAPI* SetWakeupTime)(BOOLEAN Enable, EFI_TIME* Time);
  EFI_STATUS(EFIAPI* SetVirtualAddressMap)
  (UINTN MemoryMapSize, UINTN DescriptorSize, UINT32 DescriptorVersion, EFI_MEMORY_DESCRIPTOR* VirtualMap);
  EFI_STATUS(EFIAPI* ConvertPointer)(UINTN DebugDisposition, void** Address);
  EFI_STATUS(EFIAPI* GetVariable)
  (const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32* Attributes, UINTN* DataSize, void* Data);
  EFI_STATUS(EFIAPI* GetNextVariableName)
  (UINTN* VariableNameSize, CHAR16* VariableName, EFI_GUID* VendorGuid);
  EFI_STATUS(EFIAPI* SetVariable)
  (const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32 Attributes, UINTN DataSize,
   const void* Data);
  EFI_STATUS(EFIAPI* GetNextHighMonotonicCount)(UINT32* HighCount);
  void(EFIAPI* ResetSystem)(EFI_RESET_TYPE ResetType, EFI_STATUS ResetStatus, UINTN DataSize,
                            void* ResetData);
  void* UpdateCapsule;
  void* QueryCapsuleCapabilities;
  void* QueryVariableInfo;
};
static_assert(sizeof(EFI_RUNTIME_SERVICES) == 24 + 14 * 8);

struct EFI_CONFIGURATION_TABLE {
  EFI_GUID VendorGuid;
  void* VendorTable;
};

struct EFI_SYSTEM_TABLE {
  EFI_TABLE_HEADER Hdr;
  CHAR16* FirmwareVendor;
  UINT32 FirmwareRevision;
  EFI_HANDLE ConsoleInHandle;
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL* ConIn;
  EFI_HANDLE ConsoleOutHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* ConOut;
  EFI_HANDLE StandardErrorHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* StdErr;
  EFI_RUNTIME_SERVICES* RuntimeServices;
  EFI_BOOT_SERVICES* BootServices;
  UINTN NumberOfTableEntries;
  EFI_CONFIGURATION_TABLE* ConfigurationTable;
};
static_assert(sizeof(EFI_SYSTEM_TABLE) == 120);
static_assert(offsetof(EFI_SYSTEM_TABLE, BootServices) == 96);

constexpr EFI_GUID EFI_GLOBAL_VARIABLE_GUID = {
    0x8BE4DF61, 0x93CA, 0x11D2, {0xAA, 0x0D, 0x00, 0xE0, 0x98, 0x03, 0x2B, 0x8C}};
constexpr EFI_GUID SMBIOS_TABLE_GUID = {
    0xEB9D2D31, 0x2D88, 0x11D3, {0x9A, 0x16, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};
constexpr EFI_GUID SMBIOS3_TABLE_GUID = {
    0xF2FD1544, 0x9794, 0x4A2C, {0x99, 0x2E, 0xE5, 0xBB, 0xCF, 0x20, 0xE3, 0x94}};
