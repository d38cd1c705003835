// An in-memory EFI_SIMPLE_FILE_SYSTEM_PROTOCOL for the file-access tests: directories keep their
// entries in creation order (as the firmware's read order), names compare without regard to case
// as on FAT, and a directory answers GetPosition with EFI_UNSUPPORTED as the FAT driver does.
#pragma once
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "uefi/Uefi.h"

struct FakeNode {
  bool directory = false;
  bool readOnly = false; // Delete answers EFI_WARN_DELETE_FAILURE and leaves the file

  std::vector<uint8_t> data;
  std::vector<std::pair<std::u16string, std::unique_ptr<FakeNode>>> children;
  FakeNode* Child(const std::u16string& name);
};

struct FakeFileSystem {
  FakeFileSystem();
  struct Binding {
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL protocol;
    FakeFileSystem* owner;
  } binding{};
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* Protocol() { return &binding.protocol; }
  FakeNode root;
  int openHandles = 0;

  FakeNode* Find(const std::u16string& path);
  FakeNode* AddDirectory(const std::u16string& path);
  FakeNode* AddFile(const std::u16string& path, const std::string& content = "");
  std::string Content(const std::u16string& path); // "" when missing
  // Names of a directory's entries, in order.
  std::vector<std::u16string> Names(const std::u16string& path);
};
