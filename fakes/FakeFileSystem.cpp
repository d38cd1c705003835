#include "fakes/FakeFileSystem.h"

#include <algorithm>
#include <cstring>

#include "fakes/FakeFirmware.h"

namespace {

// A use of the fake firmware's fault injection, when a fake firmware is there.
bool Injected(const char* call = __builtin_FUNCTION()) {
  return FakeFirmware::current != nullptr && FakeFirmware::current->Fail(call);
}

bool SameName(const std::u16string& a, const std::u16string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char16_t x, char16_t y) {
           auto low = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c + 32) : c; };
           return low(x) == low(y);
         });
}

std::vector<std::u16string> Split(const std::u16string& path) {
  std::vector<std::u16string> parts;
  std::u16string part;
  for (char16_t c : path) {
    if (c == u'\\') {
      if (!part.empty())
        parts.push_back(part);
      part.clear();
    } else {
      part += c;
    }
  }
  if (!part.empty())
    parts.push_back(part);
  return parts;
}

struct FakeFile;
struct FileBinding {
  EFI_FILE_PROTOCOL protocol; // first: the protocol pointer is the handle
  FakeFile* owner;
};

struct FakeFile {
  FileBinding binding;
  FakeFileSystem* fs;
  std::vector<FakeNode*> chain; // root ... node
  std::u16string name;
  uint64_t position = 0;
  size_t entry = 0;
  FakeNode* Node() const { return chain.back(); }
};

FakeFile* Self(EFI_FILE_PROTOCOL* p) {
  return reinterpret_cast<FileBinding*>(p)->owner;
}

EFI_FILE_PROTOCOL* NewHandle(FakeFileSystem* fs, std::vector<FakeNode*> chain, std::u16string name);

EFI_STATUS EFIAPI Open(EFI_FILE_PROTOCOL* This, EFI_FILE_PROTOCOL** New, const CHAR16* Name, UINT64 Mode,
                       UINT64 Attributes) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  std::u16string path = Name;
  std::vector<FakeNode*> chain = path.starts_with(u"\\") ? std::vector<FakeNode*>{&f->fs->root} : f->chain;
  std::u16string name = path.starts_with(u"\\") ? u"\\" : f->name;
  auto parts = Split(path);
  for (size_t i = 0; i < parts.size(); ++i) {
    const auto& part = parts[i];
    if (part == u".")
      continue;
    if (part == u"..") {
      if (chain.size() > 1)
        chain.pop_back();
      continue;
    }
    if (!chain.back()->directory)
      return EFI_NOT_FOUND;
    FakeNode* next = chain.back()->Child(part);
    if (next == nullptr) {
      if (i + 1 != parts.size() || (Mode & EFI_FILE_MODE_CREATE) == 0)
        return EFI_NOT_FOUND;
      auto node = std::make_unique<FakeNode>();
      node->directory = (Attributes & EFI_FILE_DIRECTORY) != 0;
      next = node.get();
      chain.back()->children.emplace_back(part, std::move(node));
    }
    chain.push_back(next);
    name = part;
  }
  *New = NewHandle(f->fs, chain, name);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Close(EFI_FILE_PROTOCOL* This) {
  FakeFile* f = Self(This);
  f->fs->openHandles--;
  delete f;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Delete(EFI_FILE_PROTOCOL* This) {
  FakeFile* f = Self(This);
  EFI_STATUS status = EFI_WARN_DELETE_FAILURE; // the handle is closed whatever happens
  if (!Injected() && f->chain.size() > 1 && f->Node()->children.empty() && !f->Node()->readOnly) {
    auto& siblings = f->chain[f->chain.size() - 2]->children;
    std::erase_if(siblings, [&](auto& e) { return e.second.get() == f->Node(); });
    status = EFI_SUCCESS;
  }
  Close(This);
  return status;
}

void FillInfo(EFI_FILE_INFO* info, const std::u16string& name, const FakeNode& node) {
  std::memset(info, 0, sizeof(EFI_FILE_INFO));
  info->Size = offsetof(EFI_FILE_INFO, FileName) + (name.size() + 1) * 2;
  info->FileSize = node.data.size();
  info->PhysicalSize = node.data.size();
  info->Attribute = node.directory ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
  std::memcpy(info->FileName, name.c_str(), (name.size() + 1) * 2);
}

EFI_STATUS EFIAPI Read(EFI_FILE_PROTOCOL* This, UINTN* Size, void* Buffer) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  FakeNode* node = f->Node();
  if (!node->directory) {
    size_t n =
        f->position >= node->data.size() ? 0 : std::min<size_t>(*Size, node->data.size() - f->position);
    if (n != 0)
      std::memcpy(Buffer, node->data.data() + f->position, n);
    f->position += n;
    *Size = n;
    return EFI_SUCCESS;
  }
  // Sub-directories list "." and ".." first, as on FAT.
  bool dots = f->chain.size() > 1;
  size_t total = node->children.size() + (dots ? 2 : 0);
  if (f->entry >= total) {
    *Size = 0;
    return EFI_SUCCESS;
  }
  std::u16string name;
  FakeNode dotNode;
  dotNode.directory = true;
  const FakeNode* entry = &dotNode;
  if (dots && f->entry < 2) {
    name = f->entry == 0 ? u"." : u"..";
  } else {
    auto& child = node->children[f->entry - (dots ? 2 : 0)];
    name = child.first;
    entry = child.second.get();
  }
  size_t need = offsetof(EFI_FILE_INFO, FileName) + (name.size() + 1) * 2;
  if (*Size < need) {
    *Size = need;
    return EFI_BUFFER_TOO_SMALL;
  }
  FillInfo(static_cast<EFI_FILE_INFO*>(Buffer), name, *entry);
  *Size = need;
  f->entry++;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Write(EFI_FILE_PROTOCOL* This, UINTN* Size, const void* Buffer) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  FakeNode* node = f->Node();
  if (node->directory)
    return EFI_UNSUPPORTED;
  if (node->data.size() < f->position + *Size)
    node->data.resize(f->position + *Size);
  std::memcpy(node->data.data() + f->position, Buffer, *Size);
  f->position += *Size;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetPosition(EFI_FILE_PROTOCOL* This, UINT64* Position) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  if (f->Node()->directory)
    return EFI_UNSUPPORTED;
  *Position = f->position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetPosition(EFI_FILE_PROTOCOL* This, UINT64 Position) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  if (f->Node()->directory) {
    if (Position != 0)
      return EFI_UNSUPPORTED;
    f->entry = 0;
    return EFI_SUCCESS;
  }
  f->position = Position == ~0ull ? f->Node()->data.size() : Position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetInfo(EFI_FILE_PROTOCOL* This, const EFI_GUID* Type, UINTN* Size, void* Buffer) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  FakeFile* f = Self(This);
  if (!(*Type == EFI_FILE_INFO_ID))
    return EFI_UNSUPPORTED;
  size_t need = offsetof(EFI_FILE_INFO, FileName) + (f->name.size() + 1) * 2;
  if (*Size < need) {
    *Size = need;
    return EFI_BUFFER_TOO_SMALL;
  }
  FillInfo(static_cast<EFI_FILE_INFO*>(Buffer), f->name, *f->Node());
  *Size = need;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Flush(EFI_FILE_PROTOCOL*) {
  return EFI_SUCCESS;
}

EFI_FILE_PROTOCOL* NewHandle(FakeFileSystem* fs, std::vector<FakeNode*> chain, std::u16string name) {
  auto* f = new FakeFile{};
  f->binding.owner = f;
  EFI_FILE_PROTOCOL& p = f->binding.protocol;
  p.Revision = 0x10000;
  p.Open = Open;
  p.Close = Close;
  p.Delete = Delete;
  p.Read = Read;
  p.Write = Write;
  p.GetPosition = GetPosition;
  p.SetPosition = SetPosition;
  p.GetInfo = GetInfo;
  p.Flush = Flush;
  f->fs = fs;
  f->chain = std::move(chain);
  f->name = std::move(name);
  fs->openHandles++;
  return &p;
}

EFI_STATUS EFIAPI OpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* This, EFI_FILE_PROTOCOL** Root) {
  if (Injected())
    return EFI_DEVICE_ERROR;
  auto* fs = reinterpret_cast<FakeFileSystem::Binding*>(This)->owner;
  *Root = NewHandle(fs, {&fs->root}, u"\\");
  return EFI_SUCCESS;
}

} // namespace

FakeNode* FakeNode::Child(const std::u16string& name) {
  for (auto& [n, node] : children)
    if (SameName(n, name))
      return node.get();
  return nullptr;
}

FakeFileSystem::FakeFileSystem() {
  binding.owner = this;
  binding.protocol.Revision = 0x10000;
  binding.protocol.OpenVolume = OpenVolume;
  root.directory = true;
}

FakeNode* FakeFileSystem::Find(const std::u16string& path) {
  FakeNode* node = &root;
  for (auto& part : Split(path)) {
    node = node->directory ? node->Child(part) : nullptr;
    if (node == nullptr)
      return nullptr;
  }
  return node;
}

FakeNode* FakeFileSystem::AddDirectory(const std::u16string& path) {
  FakeNode* node = &root;
  for (auto& part : Split(path)) {
    FakeNode* next = node->Child(part);
    if (next == nullptr) {
      auto created = std::make_unique<FakeNode>();
      created->directory = true;
      next = created.get();
      node->children.emplace_back(part, std::move(created));
    }
    node = next;
  }
  return node;
}

FakeNode* FakeFileSystem::AddFile(const std::u16string& path, const std::string& content) {
  auto parts = Split(path);
  std::u16string dir;
  for (size_t i = 0; i + 1 < parts.size(); ++i)
    dir += u"\\" + parts[i];
  FakeNode* parent = AddDirectory(dir);
  auto node = std::make_unique<FakeNode>();
  node->data.assign(content.begin(), content.end());
  FakeNode* result = node.get();
  parent->children.emplace_back(parts.back(), std::move(node));
  return result;
}

std::string FakeFileSystem::Content(const std::u16string& path) {
  FakeNode* node = Find(path);
  return node == nullptr ? "" : std::string(node->data.begin(), node->data.end());
}

std::vector<std::u16string> FakeFileSystem::Names(const std::u16string& path) {
  std::vector<std::u16string> names;
  if (FakeNode* node = Find(path))
    for (auto& [n, child] : node->children)
      names.push_back(n);
  return names;
}
