// Platform identity from SMBIOS: the entry points the firmware publishes, the system identifier and
// the platform family, and a walk of the structure table that stays inside it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "fakes/FakeFirmware.h"
#include "support/Platform.h"

namespace {

struct Smbios {
  std::vector<uint8_t> table;
  void Add(uint8_t type, std::vector<uint8_t> formatted, std::vector<std::string> strings) {
    table.push_back(type);
    table.push_back(uint8_t(formatted.size() + 4));
    table.insert(table.end(), {0x00, 0x01});
    table.insert(table.end(), formatted.begin(), formatted.end());
    for (auto& s : strings) {
      table.insert(table.end(), s.begin(), s.end());
      table.push_back(0);
    }
    if (strings.empty())
      table.push_back(0);
    table.push_back(0);
  }
  // Type 1 with the family string as string 1 (offset 0x1A), length 0x1B unless given.
  void System(const std::string& family, uint8_t length = 0x1B) {
    std::vector<uint8_t> formatted(length - 4, 0);
    if (length > 0x1A)
      formatted[0x1A - 4] = 1;
    Add(1, formatted, {family});
  }
  void Board(const std::string& product) { Add(2, {1, 2}, {"Maker", product}); }
  void Use() { SmbiosUseTable(table.data(), uint16_t(table.size())); }
};

struct SmbiosTest : ::testing::Test {
  FakeFirmware fw;
  void TearDown() override {
    SmbiosUseTable(nullptr, 0);
    EXPECT_TRUE(fw.pool.empty());
  }
};

TEST_F(SmbiosTest, SystemIdentifier) {
  Smbios s;
  s.System("x");
  s.Board("Q35PLUS");
  s.Use();
  char16_t id[10];
  ASSERT_EQ(GetSystemId(id, sizeof(id)), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(id), u"Q35P");
  EXPECT_EQ(GetSystemId(id, 8), EFI_INVALID_PARAMETER);

  Smbios none;
  none.System("x");
  none.Add(2, {0, 0}, {}); // a baseboard without a product string
  none.Use();
  ASSERT_EQ(GetSystemId(id, sizeof(id)), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(id), u"XXXX");
  SmbiosUseTable(nullptr, 0);
  EXPECT_EQ(GetSystemId(id, sizeof(id)), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(id), u"XXXX");
}

// The entry points as the system table's configuration table lists them: the 2.x one when there
// is one, otherwise the 3.0 one (AArch64's virt machine publishes only that), with its 64-bit address.
TEST_F(SmbiosTest, TheThreeZeroEntryPointWhereItIsTheOnlyOne) {
  Smbios three;
  three.Board("THREEBRD");
  three.Add(127, {}, {});
  // A 2.x entry point whose table is at address 0 (a host's heap is beyond 32 bits): taken first, it
  // leaves no table, and the system identifier its fallback.
  std::vector<uint8_t> entry2(0x1F, 0), entry3(0x18, 0);
  std::memcpy(entry2.data(), "_SM_", 4);
  std::memcpy(entry3.data(), "_SM3_", 5);
  uint32_t size3 = uint32_t(three.table.size());
  std::memcpy(entry3.data() + 0x0C, &size3, 4);
  auto address3 = uint64_t(reinterpret_cast<uintptr_t>(three.table.data()));
  std::memcpy(entry3.data() + 0x10, &address3, 8);
  char16_t id[10];

  EFI_CONFIGURATION_TABLE only3[] = {{SMBIOS3_TABLE_GUID, entry3.data()}};
  fw.st.NumberOfTableEntries = 1;
  fw.st.ConfigurationTable = only3;
  ASSERT_EQ(EfiSmbiosLibInitialize(nullptr, &fw.st), EFI_SUCCESS);
  ASSERT_EQ(GetSystemId(id, sizeof(id)), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(id), u"THRE");

  EFI_CONFIGURATION_TABLE both[] = {{SMBIOS3_TABLE_GUID, entry3.data()}, {SMBIOS_TABLE_GUID, entry2.data()}};
  fw.st.NumberOfTableEntries = 2;
  fw.st.ConfigurationTable = both;
  ASSERT_EQ(EfiSmbiosLibInitialize(nullptr, &fw.st), EFI_SUCCESS);
  ASSERT_EQ(GetSystemId(id, sizeof(id)), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(id), u"XXXX");

  fw.st.NumberOfTableEntries = 0;
  EXPECT_EQ(EfiSmbiosLibInitialize(nullptr, &fw.st), EFI_NOT_FOUND);
  fw.st.ConfigurationTable = nullptr;
}

TEST_F(SmbiosTest, PlatformFamilies) {
  struct {
    std::string family;
    uint8_t length;
    int oem201;
    UINTN id;
  } cases[] = {
      {"1A00_QEMUVM", 0x1B, 0, 1},        {"1a00_qemuvm", 0x1B, 0, 1}, // lower case matches
      {"WIRELINE-X2000", 0x1B, 0, 8},     {"NETEDGE", 0x1B, 0, 11},    // longer strings match their key
      {"1B11_SRV210", 0x1B, 0, 2},        {"1A00_QEMUVM", 0x19, 0, 0}, // type 1 too short
      {"Unknown Family", 0x1B, 1, 8},     {"Unknown Family", 0x1B, 2, 0},
      {std::string(60, 'W'), 0x1B, 0, 0}, {"", 0x1B, 0, 0},
  };
  for (auto& c : cases) {
    Smbios s;
    s.Board("B");
    s.System(c.family, c.length);
    for (int i = 0; i < c.oem201; ++i)
      s.Add(201, {}, {});
    s.Use();
    EXPECT_EQ(GetPlatformFamilyId(), c.id) << c.family << " " << int(c.length);
  }
  Smbios noSystem;
  noSystem.Board("B");
  noSystem.Use();
  EXPECT_EQ(GetPlatformFamilyId(), 0u);
}

TEST_F(SmbiosTest, WalkStaysInsideTheTable) {
  Smbios s;
  s.Board("ABCDEF");
  s.System("1A00_QEMUVM");
  std::vector<uint8_t> cut(s.table.begin(), s.table.end() - 3); // the last string set runs off the end
  SmbiosUseTable(cut.data(), uint16_t(cut.size()));
  const SMBIOS_STRUCTURE** list = nullptr;
  UINT16 count = 0;
  EXPECT_EQ(SmbiosGetStructures(1, &list, &count), EFI_NOT_FOUND);
  ASSERT_EQ(SmbiosGetStructures(2, &list, &count), EFI_SUCCESS);
  EXPECT_EQ(count, 1u);
  EXPECT_STREQ(SmbiosGetString(list[0], 2), "ABCDEF");
  EXPECT_EQ(SmbiosGetString(list[0], 3), nullptr);
  EXPECT_EQ(SmbiosGetString(list[0], 0), nullptr);
  FreePool(list);

  std::vector<uint8_t> bogus = {1, 2, 0, 0, 0, 0}; // length below the header
  SmbiosUseTable(bogus.data(), uint16_t(bogus.size()));
  EXPECT_EQ(SmbiosGetStructures(1, &list, &count), EFI_NOT_FOUND);
}

} // namespace
