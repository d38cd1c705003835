// A device path as the firmware hands one over, made from fuzz input: nodes of any type, sub-type
// and content whose length fields stay inside the path (a walker cannot know the buffer's size, so
// lengths that reach past it are the firmware's to avoid), some of them declaring a length below
// the 4-byte minimum, then the end node. No nodes at all gives a path that is only its end node.
#pragma once
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

inline std::vector<uint8_t> FuzzDevicePath(FuzzedDataProvider& in, size_t maxNodes) {
  std::vector<uint8_t> path;
  size_t nodes = in.ConsumeIntegralInRange<size_t>(0, maxNodes);
  for (size_t i = 0; i < nodes && in.remaining_bytes() > 0; ++i) {
    uint8_t type = in.ConsumeIntegral<uint8_t>(), subType = in.ConsumeIntegral<uint8_t>();
    std::vector<uint8_t> body = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 40));
    size_t length = 4 + body.size();
    if (in.ConsumeIntegralInRange<uint8_t>(0, 15) == 0)
      length = in.ConsumeIntegralInRange<size_t>(0, 3); // malformed, inside the node
    path.insert(path.end(), {type, subType, uint8_t(length), uint8_t(length >> 8)});
    path.insert(path.end(), body.begin(), body.end());
  }
  path.insert(path.end(), {0x7F, 0xFF, 4, 0});
  return path;
}
