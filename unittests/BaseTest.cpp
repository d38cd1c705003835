#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/DevicePathText.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "base/TextDecode.h"
#include "text/OrderedList.h"
#include "fakes/FakeFirmware.h"

namespace {

TEST(String, CopiesAreBoundedAndTerminated) {
  char16_t buffer[4];
  EXPECT_TRUE(StrCopy(buffer, sizeof(buffer), u"abc"));
  EXPECT_EQ(std::u16string(buffer), u"abc");
  EXPECT_FALSE(StrCopy(buffer, sizeof(buffer), u"abcd"));
  EXPECT_EQ(std::u16string(buffer), u"abc");
  EXPECT_FALSE(StrCopy(buffer, 7, u"abcd")); // an odd size rounds down
  EXPECT_EQ(std::u16string(buffer), u"ab");
  EXPECT_FALSE(StrAppend(buffer, sizeof(buffer), u"cd"));
  EXPECT_EQ(std::u16string(buffer), u"abc");
  EXPECT_TRUE(StrCopy(buffer, sizeof(buffer), nullptr));
  EXPECT_EQ(buffer[0], 0);
}

TEST(String, CaseFoldingIsAsciiOnly) {
  EXPECT_EQ(StriCmp(u"PingTest", u"pingtest"), 0);
  EXPECT_NE(StriCmp(u"\u00C9", u"\u00E9"), 0); // É and é are not folded
  EXPECT_LT(StriCmp(u"abc", u"ABD"), 0);
  EXPECT_EQ(StrniCmp(u"-DeviceIDx", u"-deviceid", 9), 0);
  char16_t text[] = u"MiXeD \u00C9";
  StrLwrAscii(text);
  EXPECT_EQ(std::u16string(text), u"mixed \u00C9");
  const char16_t* path = u"a/Pci(0x2,0x0)";
  EXPECT_EQ(StrFind(path, u"Pci("), path + 2);
  EXPECT_EQ(StrFind(u"abc", u"x"), nullptr);
}

TEST(Owners, ReleasePoolOnEveryPath) {
  FakeFirmware fw;
  {
    auto p = wc::PoolPtr<char16_t>::Allocate(16);
    ASSERT_TRUE(p);
    auto q = wc::Move(p);
    EXPECT_FALSE(p);
    EXPECT_EQ(fw.pool.size(), 1u);
  }
  EXPECT_TRUE(fw.pool.empty());
}

// One decoder serves the message files (bytes without a mark are 8-bit), the INI files (8-bit or
// UCS-2, never UTF-8) and the manager's files (bytes without a mark are UTF-8): the encodings differ
// only in what unmarked bytes mean, never in how a marked file or a character beyond 0xFFFF reads.
TEST(TextDecode, MarksFallbacksAndBrokenSequences) {
  FakeFirmware fw;
  auto decode = [](std::string bytes, TextEncoding encoding, TextEncoding fallback = TextEncoding::Bytes) {
    UINTN length = 99;
    CHAR16* text =
        DecodeText(reinterpret_cast<const UINT8*>(bytes.data()), bytes.size(), encoding, fallback, &length);
    std::u16string s(text, length);
    FreePool(text);
    return s;
  };
  const auto detect = TextEncoding::Detect;
  EXPECT_EQ(decode(std::string("\xFF\xFE"
                               "a\0\xE9\0b",
                               7),
                   detect),
            u"a\u00E9"); // odd last byte dropped
  EXPECT_EQ(decode("\xEF\xBB\xBFx\xC3\xA9", detect), u"x\u00E9");
  EXPECT_EQ(decode("x\xC3\xA9", detect), u"x\u00C3\u00A9");
  EXPECT_EQ(decode("x\xC3\xA9", detect, TextEncoding::Utf8), u"x\u00E9");
  EXPECT_EQ(decode("\xF0\x9F\x98\x80z", TextEncoding::Utf8), std::u16string(u"\xF600z")); // low 16 bits
  EXPECT_EQ(decode("a\xC3", TextEncoding::Utf8), u"a");   // a cut sequence ends the text
  EXPECT_EQ(decode("a\xC3xb", TextEncoding::Utf8), u"a"); // and so does a broken one
  EXPECT_EQ(decode("a\xFE", TextEncoding::Utf8), u"a");   // or a byte that starts none
  EXPECT_EQ(decode("\xFF\xFE"
                   "ab",
                   TextEncoding::Bytes),
            u"ab"); // the UTF-16 mark is skipped everywhere
  EXPECT_EQ(decode("\xEF\xBB\xBF"
                   "ab",
                   TextEncoding::Bytes),
            u"\u00EF\u00BB\u00BFab");
  EXPECT_EQ(decode("", detect), u"");
  CHAR16* none = DecodeText(nullptr, 5, detect); // no data: an empty text
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none[0], 0);
  FreePool(none);
  fw.failAllocationAfter = 0;
  EXPECT_EQ(DecodeText(reinterpret_cast<const UINT8*>("a"), 1, detect), nullptr);
  fw.failAllocationAfter = SIZE_MAX;
  EXPECT_TRUE(fw.pool.empty());
}

// ---- Ordered list ----

struct ListFixture : ::testing::Test {
  FakeFirmware fw;
  static INTN CompareInts(const void* a, const void* b) {
    return INTN(*static_cast<const int*>(a)) - INTN(*static_cast<const int*>(b));
  }
  int* NewInt(int v) {
    auto* p = static_cast<int*>(AllocatePool(sizeof(int)));
    if (p != nullptr)
      *p = v;
    return p;
  }
  std::vector<int> Walk(ORDERED_LIST* list) {
    std::vector<int> forward, backward;
    for (auto* n = list->First; n != nullptr; n = n->Next)
      forward.push_back(*static_cast<int*>(n->Element));
    for (auto* n = list->Last; n != nullptr; n = n->Previous)
      backward.insert(backward.begin(), *static_cast<int*>(n->Element));
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(forward.size(), list->Count);
    return forward;
  }
};

TEST_F(ListFixture, KeepsInsertionOrderAndFindsTheFirstMatch) {
  ORDERED_LIST* list = nullptr;
  ASSERT_EQ(OrderedListCreate(&list, CompareInts, nullptr), EFI_SUCCESS);
  ORDERED_LIST_NODE* first = nullptr;
  ASSERT_EQ(OrderedListAppend(list, NewInt(2), &first), EFI_SUCCESS);
  EXPECT_EQ(list->First, first);
  EXPECT_EQ(list->Last, first);
  OrderedListAppend(list, NewInt(3), nullptr);
  ORDERED_LIST_NODE* last = list->Last;
  OrderedListInsertFront(list, NewInt(1), nullptr);
  OrderedListAppend(list, NewInt(3), nullptr);
  EXPECT_EQ(Walk(list), (std::vector<int>{1, 2, 3, 3}));
  EXPECT_NE(list->Last, last);

  int key = 3;
  ORDERED_LIST_NODE* found = nullptr;
  ASSERT_EQ(OrderedListFind(list, &key, &found), EFI_SUCCESS);
  EXPECT_EQ(found, last); // the first of the two equal elements
  key = 9;
  ASSERT_EQ(OrderedListFind(list, &key, &found), EFI_SUCCESS);
  EXPECT_EQ(found, nullptr);

  ASSERT_EQ(OrderedListDestroy(list), EFI_SUCCESS);
  EXPECT_TRUE(fw.pool.empty());
}

TEST_F(ListFixture, RefusesBadCallsAndFreesThroughTheCallback) {
  EXPECT_EQ(OrderedListCreate(nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(OrderedListAppend(nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(OrderedListDestroy(nullptr), EFI_INVALID_PARAMETER);

  static int freed;
  freed = 0;
  ORDERED_LIST* list = nullptr;
  ASSERT_EQ(OrderedListCreate(&list, nullptr,
                              [](void* e, ORDERED_LIST_NODE*) {
                                ++freed;
                                FreePool(e);
                              }),
            EFI_SUCCESS);
  OrderedListAppend(list, NewInt(1), nullptr);
  OrderedListAppend(list, NewInt(2), nullptr);
  int key = 1;
  ORDERED_LIST_NODE* node = reinterpret_cast<ORDERED_LIST_NODE*>(1);
  EXPECT_EQ(OrderedListFind(list, &key, &node), EFI_UNSUPPORTED);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(OrderedListFind(list, &key, nullptr), EFI_INVALID_PARAMETER);

  fw.failAllocationAfter = 0;
  int* stays = NewInt(5);
  EXPECT_EQ(stays, nullptr); // allocation failure reaches the caller
  fw.failAllocationAfter = SIZE_MAX;
  int* element = NewInt(7);
  fw.failAllocationAfter = 0;
  EXPECT_EQ(OrderedListAppend(list, element, nullptr), EFI_OUT_OF_RESOURCES);
  fw.failAllocationAfter = SIZE_MAX;
  EXPECT_EQ(list->Count, 2u);
  FreePool(element); // still the caller's

  OrderedListAppend(list, nullptr, nullptr); // a null element is handed to the callback too
  ASSERT_EQ(OrderedListDestroy(list), EFI_SUCCESS);
  EXPECT_EQ(freed, 3);
  EXPECT_TRUE(fw.pool.empty());
}

// ---- Device paths ----

std::vector<uint8_t> Node(uint8_t type, uint8_t sub, std::vector<uint8_t> data) {
  std::vector<uint8_t> n = {type, sub, uint8_t(data.size() + 4), uint8_t((data.size() + 4) >> 8)};
  n.insert(n.end(), data.begin(), data.end());
  return n;
}

std::u16string PathText(std::vector<std::vector<uint8_t>> nodes, bool displayOnly = false) {
  std::vector<uint8_t> path;
  for (auto& n : nodes)
    path.insert(path.end(), n.begin(), n.end());
  auto end = Node(0x7F, 0xFF, {});
  path.insert(path.end(), end.begin(), end.end());
  CHAR16* text =
      DevicePathToTextFallback(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(path.data()), displayOnly);
  std::u16string result = text ? text : u"(null)";
  FreePool(text);
  return result;
}

TEST(DevicePathText, NodesOfANic) {
  FakeFirmware fw;
  auto pciRoot = Node(2, 1, {0xD0, 0x41, 0x03, 0x0A, 0, 0, 0, 0});
  auto pci = Node(1, 1, {0x0, 0x3});
  std::vector<uint8_t> mac(33, 0);
  uint8_t addr[] = {0x52, 0x54, 0x00, 0x12, 0x34, 0x56};
  std::copy(addr, addr + 6, mac.begin());
  mac[32] = 1;
  std::vector<uint8_t> ipv4 = {0, 0, 0, 0, 10, 0, 2, 2, 0, 0, 0, 0, 17, 0, 0, 1, 2, 3, 4, 255, 255, 255, 0};
  EXPECT_EQ(PathText({pciRoot, pci, Node(3, 11, mac)}), u"PciRoot(0x0)/Pci(0x3,0x0)/MAC(525400123456,0x1)");
  EXPECT_EQ(PathText({pciRoot, pci, Node(3, 11, mac), Node(3, 12, ipv4)}, true),
            u"PciRoot(0x0)/Pci(0x3,0x0)/MAC(525400123456,0x1)/IPv4(10.0.2.2)");
  EXPECT_EQ(PathText({Node(3, 12, ipv4)}), u"IPv4(10.0.2.2,UDP,DHCP,0.0.0.0,1.2.3.4,255.255.255.0)");
  EXPECT_EQ(PathText({Node(3, 0x14, {5, 0}), Node(3, 5, {2, 1})}), u"Vlan(5)/USB(0x2,0x1)");
  std::vector<uint8_t> ven = {0x53, 0x45, 0x94, 0xD8, 0xDD, 0xC4, 0xF4, 0x41,
                              0x9B, 0x30, 0xE1, 0x39, 0x7C, 0xFB, 0x26, 0x7B};
  EXPECT_EQ(PathText({Node(1, 4, ven)}), u"VenHw(d8944553-c4dd-41f4-9b30-e1397cfb267b)");
  EXPECT_EQ(PathText({Node(4, 4, {'\\', 0, 'a', 0, '.', 0, 'e', 0, 0, 0})}), u"\\a.e");
  EXPECT_EQ(PathText({pci, Node(9, 9, {1, 2}), pci}), u"Pci(0x3,0x0)/?/Pci(0x3,0x0)");
}

TEST(DevicePathText, MalformedPathsStopSafely) {
  FakeFirmware fw;
  std::vector<uint8_t> zeroLength = {1, 1, 0, 0, 0, 0};
  CHAR16* text =
      DevicePathToTextFallback(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(zeroLength.data()), FALSE);
  EXPECT_EQ(std::u16string(text), u"");
  FreePool(text);
  EXPECT_EQ(DevicePathSize(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(zeroLength.data())), 0u);
  auto shortPci = Node(1, 1, {});
  EXPECT_EQ(PathText({shortPci}), u"?"); // too short for its kind
}

} // namespace
