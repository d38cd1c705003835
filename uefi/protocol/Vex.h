// The diagnostics manager's binary interfaces: the test-module protocols that a test module installs
// on its image handle, and the manager protocol that the module calls back into. The manager is
// built separately, so field order, widths and GUIDs are fixed.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID VEX_TEST_MODULE_PROTOCOL_GUID = {
    0x31EFB10E, 0x6FC9, 0x4026, {0xB1, 0x6A, 0x21, 0x9A, 0x44, 0x57, 0x5B, 0xB5}};
constexpr EFI_GUID VEX_TEST_MODULE_OLD_PROTOCOL_GUID = {
    0xB49FB783, 0x6096, 0x4640, {0x81, 0x3B, 0xEE, 0x93, 0xBB, 0xE3, 0xE6, 0xCF}};
constexpr EFI_GUID VEX_MANAGER_PROTOCOL_GUID = {
    0x7EDFAFED, 0x5779, 0x4A29, {0x90, 0xBE, 0x55, 0x22, 0x28, 0xF6, 0xBD, 0x21}};

using VEX_GET_TEST_RUN_TIME = EFI_STATUS(EFIAPI*)(UINTN Parameter, CHAR16* Options, UINTN* RunTime,
                                                  UINTN* Result, UINTN* ErrorCode);
using VEX_GET_TEST_RUN_TIME_OLD = EFI_STATUS(EFIAPI*)(UINTN Parameter, CHAR16* Options, UINTN* RunTime);
using VEX_GET_TEST_NAME = EFI_STATUS(EFIAPI*)(CHAR16* Buffer, UINTN BufferSize);
using VEX_GET_TEST_VERSION = EFI_STATUS(EFIAPI*)(UINTN* Major, UINTN* Minor, CHAR16** Build);
using VEX_EXECUTE_TEST = EFI_STATUS(EFIAPI*)(UINTN Parameter, CHAR16* Options, UINTN* Result,
                                             UINTN* ErrorCode);

struct VEX_TEST_MODULE_PROTOCOL {
  UINTN First; // always 0
  VEX_GET_TEST_RUN_TIME GetTestRunTime;
  VEX_GET_TEST_NAME GetTestName;
  VEX_GET_TEST_VERSION GetTestVersion;
  VEX_EXECUTE_TEST ExecuteTest;
};
static_assert(sizeof(VEX_TEST_MODULE_PROTOCOL) == 40);
static_assert(offsetof(VEX_TEST_MODULE_PROTOCOL, ExecuteTest) == 32);

struct VEX_TEST_MODULE_OLD_PROTOCOL {
  VEX_GET_TEST_RUN_TIME_OLD GetTestRunTime;
  VEX_GET_TEST_NAME GetTestName;
  VEX_GET_TEST_VERSION GetTestVersion;
  VEX_EXECUTE_TEST ExecuteTest;
};
static_assert(sizeof(VEX_TEST_MODULE_OLD_PROTOCOL) == 32);

// Manager operations used by the module, by position.
using VEX_MANAGER_PROGRESS = EFI_STATUS(EFIAPI*)(UINTN Percent, UINTN SecondsRemaining, UINTN* Interrupt);
using VEX_MANAGER_OUTPUT = EFI_STATUS(EFIAPI*)(CHAR16* Text, BOOLEAN Flag, BOOLEAN ToConsole,
                                               BOOLEAN ToError);
using VEX_MANAGER_PROMPT = EFI_STATUS(EFIAPI*)(UINTN MessageId, CHAR16* MessageFile);
// Positions 1 and 3 belong to the manager; the module never calls them. The project's manager
// fills them with an operation that answers EFI_UNSUPPORTED.
using VEX_MANAGER_RESERVED = EFI_STATUS(EFIAPI*)();

struct VEX_MANAGER_PROTOCOL {
  VEX_MANAGER_PROGRESS Progress;  // 0
  VEX_MANAGER_RESERVED Reserved1; // 1
  VEX_MANAGER_OUTPUT Output;      // 2
  VEX_MANAGER_RESERVED Reserved3; // 3
  VEX_MANAGER_PROMPT Prompt;      // 4
};
static_assert(offsetof(VEX_MANAGER_PROTOCOL, Output) == 16);
static_assert(offsetof(VEX_MANAGER_PROTOCOL, Prompt) == 32);

// The manager's user-interface protocols. Both carry the same menu operation, at entry 14 of the
// graphics library and at entry 6 of the console library; a module finds either with LocateProtocol.
constexpr EFI_GUID VEX_GRAPHICS_LIB_PROTOCOL_GUID = {
    0xBB11ED50, 0x6C27, 0x44FC, {0x92, 0x0C, 0x7E, 0xD3, 0x3B, 0x64, 0x67, 0xE8}};
constexpr EFI_GUID VEX_CONSOLE_LIB_PROTOCOL_GUID = {
    0x293ACD06, 0xD6DE, 0x46CB, {0x98, 0xFE, 0x4F, 0x53, 0x2A, 0x6A, 0x14, 0x3A}};

// A line of text above the items; a list of them ends with a null pointer.
struct VEX_MENU_TEXT_LINE {
  UINT64 Reserved; // 0
  const CHAR16* Text;
};
// An item the operator can pick; its value is handed back. A list of them ends with a null pointer.
struct VEX_MENU_ITEM {
  const CHAR16* Text;
  UINT64 Value;
};
#pragma pack(push, 1)
struct VEX_MENU_SETTINGS {
  UINT64 First;  // 1
  UINT32 Second; // 2
  UINT32 Third;  // 2
  UINT8 Fourth;  // 1
  UINT8 Reserved[4];
};
#pragma pack(pop)
static_assert(sizeof(VEX_MENU_SETTINGS) == 21);

// Shows Title, the text lines and the items, and stores the chosen item's value in *Selection.
using VEX_MENU = EFI_STATUS(EFIAPI*)(const CHAR16* Title, UINTN Reserved1, VEX_MENU_TEXT_LINE** Lines,
                                     VEX_MENU_ITEM** Items, VEX_MENU_SETTINGS* Settings, UINT16 Reserved2,
                                     UINT64* Selection, UINT8 Reserved3, UINT8 Reserved4, UINT8 Reserved5,
                                     UINT64 Reserved6);

struct VEX_GRAPHICS_LIB_PROTOCOL {
  void* Other[13];
  VEX_MENU Menu; // entry 14
};
struct VEX_CONSOLE_LIB_PROTOCOL {
  void* Other[5];
  VEX_MENU Menu; // entry 6
};
static_assert(offsetof(VEX_GRAPHICS_LIB_PROTOCOL, Menu) == 13 * 8);
static_assert(offsetof(VEX_CONSOLE_LIB_PROTOCOL, Menu) == 5 * 8);
