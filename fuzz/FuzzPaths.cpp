// Fuzz target: any text as a path to resolve against the current or the module directory, and as
// a path to split into volume and path inside the volume. The 512-character buffers must never
// be overrun.
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/FileIo.h"
#include "fakes/FakeFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  std::vector<char16_t> path(kFileIoPathChars, 0); // exactly the size callers must provide
  size_t chars = std::min(size / 2, kFileIoPathChars - 1);
  std::memcpy(path.data(), data, chars * 2);
  std::vector<char16_t> copy = path;
  FileIoResolvePath(path.data(), path.size() * 2);
  FileIoResolveModulePath(copy.data(), copy.size() * 2);
  std::vector<char16_t> inside(kFileIoPathChars);
  FileIoVolumePath(inside.data(), copy.data(), inside.size() * 2);
  return 0;
}
