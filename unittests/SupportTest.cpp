#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "fakes/FakeFileSystem.h"
#include "frame/Module.h"
#include "options/Usage.h"
#include "fakes/FakeFirmware.h"

namespace {

EFI_HANDLE const kImage = reinterpret_cast<EFI_HANDLE>(0x1000);
EFI_HANDLE const kVolumeA = reinterpret_cast<EFI_HANDLE>(0x3000);
EFI_HANDLE const kVolumeB = reinterpret_cast<EFI_HANDLE>(0x3100);

std::vector<uint8_t> DevicePathBytes(std::vector<std::vector<uint8_t>> nodes) {
  std::vector<uint8_t> path;
  for (auto& n : nodes)
    path.insert(path.end(), n.begin(), n.end());
  path.insert(path.end(), {0x7F, 0xFF, 4, 0});
  return path;
}

std::vector<uint8_t> FileNode(const std::u16string& name) {
  std::vector<uint8_t> node = {4, 4, 0, 0};
  for (char16_t c : name)
    node.insert(node.end(), {uint8_t(c), uint8_t(c >> 8)});
  node.insert(node.end(), {0, 0});
  node[2] = uint8_t(node.size());
  node[3] = uint8_t(node.size() >> 8);
  return node;
}

std::vector<uint8_t> PciNode(uint8_t device) {
  return {1, 1, 6, 0, 0, device};
}

// A shell with two mapped volumes, fs0: on PCI device 1 and fs1: on PCI device 2.
struct FakeShell {
  static inline std::u16string cwd;
  static const CHAR16* EFIAPI GetEnv(const CHAR16* name) {
    return std::u16string(name) == u"cwd" && !cwd.empty() ? cwd.c_str() : nullptr;
  }
  static EFI_DEVICE_PATH_PROTOCOL* EFIAPI FromFilePath(const CHAR16* path) {
    std::u16string p = path;
    uint8_t device = p.starts_with(u"fs0:") || p.starts_with(u"FS0:") ? 1 : p.starts_with(u"fs1:") ? 2 : 0;
    if (device == 0)
      return nullptr;
    auto bytes = DevicePathBytes({PciNode(device), FileNode(u"")}); // the shell appends the file part
    return static_cast<EFI_DEVICE_PATH_PROTOCOL*>(AllocateCopyPool(bytes.size(), bytes.data()));
  }
};

struct FileIoTest : ::testing::Test {
  FakeFirmware fw;
  FakeFileSystem volA, volB;
  EFI_LOADED_IMAGE_PROTOCOL image{};
  std::vector<uint8_t> imagePath = DevicePathBytes({FileNode(u"\\EFI\\tools\\Wirecheck.efi")});
  std::vector<uint8_t> pathA = DevicePathBytes({PciNode(1)});
  std::vector<uint8_t> pathB = DevicePathBytes({PciNode(2)});
  EFI_SHELL_PROTOCOL shell{};

  void SetUp() override {
    FileIoReset();
    DebugLogReset();
    image.DeviceHandle = kVolumeA;
    image.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(imagePath.data());
    fw.AddProtocol(kImage, EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
    fw.AddProtocol(kVolumeA, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, volA.Protocol());
    fw.AddProtocol(kVolumeA, EFI_DEVICE_PATH_PROTOCOL_GUID, pathA.data());
    fw.AddProtocol(kVolumeB, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, volB.Protocol());
    fw.AddProtocol(kVolumeB, EFI_DEVICE_PATH_PROTOCOL_GUID, pathB.data());
    volA.AddDirectory(u"\\EFI\\tools");
  }
  void Start(bool withShell = false, std::u16string cwd = u"") {
    if (withShell) {
      FakeShell::cwd = cwd;
      shell.GetEnv = FakeShell::GetEnv;
      shell.GetDevicePathFromFilePath = FakeShell::FromFilePath;
      fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x5000), EFI_SHELL_PROTOCOL_GUID, &shell);
    }
    ASSERT_EQ(FileIoInitialize(kImage, &fw.st), EFI_SUCCESS);
    DebugLogInitialize(FileIoModuleDirectory());
  }
  void TearDown() override {
    EXPECT_EQ(volA.openHandles + volB.openHandles, 0) << "files left open";
    EXPECT_TRUE(fw.pool.empty()) << fw.pool.size() << " pool allocations left";
    FileIoReset();
    DebugLogReset();
  }
  std::u16string Resolved(std::u16string path, bool fromModule = false) {
    char16_t buffer[512];
    std::memcpy(buffer, path.c_str(), (path.size() + 1) * 2);
    fromModule ? FileIoResolveModulePath(buffer, sizeof(buffer)) : FileIoResolvePath(buffer, sizeof(buffer));
    return buffer;
  }
  std::string Log() { return volA.Content(u"\\EFI\\tools\\Debug.log"); }
};

TEST_F(FileIoTest, DebugLogLinesBesideTheModule) {
  Start();
  char16_t dir[64];
  FileIoGetModuleDirectory(dir, sizeof(dir));
  EXPECT_EQ(std::u16string(dir), u"\\EFI\\tools\\");
  EXPECT_EQ(std::u16string(DebugLogPath()), u"\\EFI\\tools\\Debug.log");

  DebugLogPrint(u"hello %d\r\n", 5);
  DebugLogWrite(u"wide \u0141 char\r\n"); // only the low byte of U+0141 is kept
  fw.clockWorks = false;
  DebugLogWrite(u"no clock\r\n");
  EXPECT_EQ(Log(), "2024-01-03 16:39:14  hello 5\r\n2024-01-03 16:39:14  wide A char\r\n"
                   "Clock not functional  no clock\r\n");

  volA.Find(u"\\EFI\\tools\\Debug.log")->data.clear();
  fw.clockWorks = true;
  DebugLogWrite(std::u16string(1500, u'x').c_str());
  EXPECT_EQ(Log().size(), 1023u);

  // The log restarts once it has grown beyond 5,000,000 bytes, not at exactly that size.
  auto& log = volA.Find(u"\\EFI\\tools\\Debug.log")->data;
  log.assign(5000000, 'a');
  DebugLogWrite(u"kept\r\n");
  EXPECT_EQ(log.size(), 5000000u + 27u);
  DebugLogWrite(u"fresh\r\n");
  EXPECT_EQ(Log(), "2024-01-03 16:39:14  fresh\r\n");
}

TEST_F(FileIoTest, DebugLogPathVariableAndMissingDirectory) {
  fw.SetVariable(u"DEBUGLOGPATH", DEBUG_LOG_PATH_VARIABLE_GUID, u"\\logs\\run.log");
  Start();
  EXPECT_EQ(std::u16string(DebugLogPath()), u"\\logs\\run.log");
  EXPECT_NE(DebugLogWrite(u"lost\r\n"), EFI_SUCCESS); // its directory does not exist
  EXPECT_EQ(volA.Find(u"\\logs"), nullptr);
  volA.AddDirectory(u"\\logs");
  EXPECT_EQ(DebugLogWrite(u"kept\r\n"), EFI_SUCCESS);
  EXPECT_EQ(volA.Content(u"\\logs\\run.log"), "2024-01-03 16:39:14  kept\r\n");
  EXPECT_EQ(Log(), "");
}

TEST_F(FileIoTest, DirectoriesAndFilesWithTheirParents) {
  Start();
  EXPECT_EQ(FileIoCreateDirectory(u"\\a\\b\\d"), EFI_SUCCESS);
  EXPECT_EQ(volA.Names(u"\\"), (std::vector<std::u16string>{u"EFI", u"a"}));
  EXPECT_TRUE(volA.Find(u"\\a\\b\\d")->directory);
  EXPECT_EQ(FileIoCreateDirectory(u"\\a\\b\\d"), EFI_SUCCESS);

  volA.AddFile(u"\\a\\f.txt", "keep");
  EXPECT_EQ(FileIoCreateFile(u"\\a\\f.txt"), EFI_SUCCESS);
  EXPECT_EQ(volA.Content(u"\\a\\f.txt"), "keep");
  EXPECT_EQ(FileIoCreateFile(u"\\a\\b"), EFI_WRITE_PROTECTED);
  EXPECT_EQ(FileIoCreateDirectory(u"\\a\\f.txt\\sub"), EFI_WRITE_PROTECTED);
  EXPECT_NE(
      Log().find(
          "Failed creating directory at \"\\a\\f.txt\". A file exists there already. (Write Protected)"),
      std::string::npos);
  EXPECT_EQ(FileIoCreateFile(u"\\new\\deep\\n.txt"), EFI_SUCCESS);
  EXPECT_TRUE(volA.Find(u"\\new\\deep")->directory);

  EXPECT_TRUE(FileIoFileExists(u"\\a\\f.txt"));
  EXPECT_FALSE(FileIoFileExists(u"\\a\\b"));
  EXPECT_FALSE(FileIoFileExists(u"\\a\\none"));
  EXPECT_EQ(FileIoDeleteFile(u"\\a\\f.txt"), EFI_SUCCESS);
  EXPECT_EQ(FileIoDeleteFile(u"\\a\\f.txt"), EFI_NOT_FOUND);
}

TEST_F(FileIoTest, ListingPutsDirectoriesFirst) {
  Start();
  volA.AddFile(u"\\d\\one.txt");
  volA.AddDirectory(u"\\d\\sub1");
  volA.AddFile(u"\\d\\two.txt");
  volA.AddDirectory(u"\\d\\sub2");
  volA.AddFile(u"\\d\\three.txt");
  volA.AddDirectory(u"\\empty");
  FILE_IO_LIST_ENTRY* list = nullptr;
  UINTN count = 0;
  ASSERT_EQ(FileIoListDirectory(u"\\d", &list, &count), EFI_SUCCESS);
  std::vector<std::u16string> names;
  for (UINTN i = 0; i < count; ++i) {
    names.push_back(list[i].FileName);
    EXPECT_EQ((list[i].Attribute & EFI_FILE_DIRECTORY) != 0, i < 2);
    FreePool(list[i].FileName);
  }
  FreePool(list);
  EXPECT_EQ(names, (std::vector<std::u16string>{u"sub1", u"sub2", u"one.txt", u"two.txt", u"three.txt"}));
  ASSERT_EQ(FileIoListDirectory(u"\\empty", &list, &count), EFI_SUCCESS);
  EXPECT_EQ(count, 0u);
  FreePool(list);
  EXPECT_EQ(FileIoListDirectory(u"\\missing", &list, &count), EFI_NOT_FOUND);
}

TEST_F(FileIoTest, WholeReadsAndPositionedWrites) {
  Start();
  volA.AddFile(u"\\zero.bin");
  void* data = nullptr;
  UINTN size = 99;
  ASSERT_EQ(FileIoReadFile(u"\\zero.bin", &data, &size), EFI_SUCCESS);
  EXPECT_EQ(size, 0u);
  FreePool(data);
  EXPECT_EQ(FileIoReadFile(u"\\none.bin", &data, &size), EFI_NOT_FOUND);
  EXPECT_EQ(data, nullptr);

  EXPECT_EQ(FileIoWriteFile(u"\\w.bin", "abcdef", 6, 0), EFI_SUCCESS);
  EXPECT_EQ(FileIoWriteFile(u"\\w.bin", "XY", 2, 2), EFI_SUCCESS);
  EXPECT_EQ(FileIoWriteFile(u"\\w.bin", "!", 1, kFileIoEndOfFile), EFI_SUCCESS);
  ASSERT_EQ(FileIoReadFile(u"\\w.bin", &data, &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(static_cast<char*>(data), size), "abXYef!");
  FreePool(data);

  // Only a writer that asks for it restarts a large file.
  volA.AddFile(u"\\big.bin", std::string(5000001, 'a'));
  FileIoWriteFile(u"\\big.bin", "z", 1, kFileIoEndOfFile);
  EXPECT_EQ(volA.Find(u"\\big.bin")->data.size(), 5000002u);
  FileIoWriteFile(u"\\big.bin", "z", 1, kFileIoEndOfFile, 5000001);
  EXPECT_EQ(volA.Content(u"\\big.bin"), "z");

  EFI_FILE_PROTOCOL* file = nullptr;
  ASSERT_EQ(
      FileIoOpenFile(u"\\cat.xml", EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0, &file),
      EFI_SUCCESS);
  FileIoPrint(file, u"<A %s=\"%d\">", u"n", 7);
  FileIoWriteString(file, u"\u00E9");
  file->Close(file);
  EXPECT_EQ(volA.Content(u"\\cat.xml"), std::string("<\0A\0 \0n\0=\0\"\0007\0\"\0>\0\xE9\0", 20));
}

TEST_F(FileIoTest, PathResolution) {
  Start();
  EXPECT_EQ(Resolved(u"\\a\\.\\b\\..\\d"), u"\\a\\d");
  EXPECT_EQ(Resolved(u"..\\x"), u"\\EFI\\x");    // the current directory is the module's
  EXPECT_EQ(Resolved(u"..\\..\\..\\x"), u"\\x"); // ".." at the root stays there
  EXPECT_EQ(Resolved(u"\\a\\\\b"), u"\\a\\b");
  EXPECT_EQ(Resolved(u"fs3:\\x.txt"), u"\\x.txt"); // no shell: the volume name is dropped
  EXPECT_EQ(Resolved(u"msg.xml", true), u"\\EFI\\tools\\msg.xml");
  EXPECT_EQ(Resolved(u"\\"), u"\\");
  std::u16string deep;
  for (int i = 0; i < 72; ++i)
    deep += u"abcdef\\";
  std::u16string cut = Resolved(deep); // the current directory in front: cut, never overrun
  EXPECT_LE(cut.size(), 511u);
  EXPECT_TRUE(cut.starts_with(u"\\EFI\\tools\\abcdef\\abcdef"));

  // Without the shell, every path lies on the module's own volume.
  EXPECT_EQ(FileIoWriteFile(u"fs1:\\x.txt", "1", 1, 0), EFI_SUCCESS);
  EXPECT_EQ(volA.Content(u"\\x.txt"), "1");
}

TEST_F(FileIoTest, ShellMapNamesAndCurrentDirectory) {
  volB.AddDirectory(u"\\EFI\\tools");
  Start(true, u"fs1:\\tools");
  EXPECT_EQ(Resolved(u"fs0:\\a\\..\\b"), u"fs0:\\b");
  EXPECT_EQ(Resolved(u"rel.txt"), u"\\tools\\rel.txt");

  EXPECT_EQ(FileIoWriteFile(u"FS0:\\a.txt", "A", 1, 0), EFI_SUCCESS);
  EXPECT_EQ(FileIoWriteFile(u"fs1:\\b.txt", "B", 1, 0), EFI_SUCCESS);
  EXPECT_EQ(FileIoWriteFile(u"\\c.txt", "C", 1, 0), EFI_SUCCESS);         // the cwd's volume
  EXPECT_EQ(FileIoWriteFile(u"fsdata\\d.txt", "D", 1, 0), EFI_NOT_FOUND); // relative, no such directory
  EXPECT_EQ(volA.Content(u"\\a.txt"), "A");
  EXPECT_EQ(volB.Content(u"\\b.txt"), "B");
  EXPECT_EQ(volB.Content(u"\\c.txt"), "C");
  EXPECT_EQ(FileIoWriteFile(u"fs7:\\e.txt", "E", 1, 0), EFI_NOT_FOUND);
  // The log follows the shell's current directory onto fs1:.
  EXPECT_NE(volB.Content(u"\\EFI\\tools\\Debug.log").find("Failed to get devpath for path [fs7:\\e.txt]"),
            std::string::npos);
}

// The catalog replaces a file of that name; a file that stays when deleted (read-only: the
// warning EFI_WARN_DELETE_FAILURE) keeps its content, nothing written after it.
TEST_F(FileIoTest, CatalogReplacesAFileAndLeavesOneThatCannotGo) {
  Start();
  volA.AddFile(u"\\cat.xml", "old catalog");
  EXPECT_FALSE(PrintCatalog(&gModuleInfo, u"\\cat.xml"));
  std::string written = volA.Content(u"\\cat.xml");
  EXPECT_EQ(written.find("old catalog"), std::string::npos);
  EXPECT_NE(written.find(std::string("<\0D\0I\0A\0G\0", 10)), std::string::npos);

  volA.AddFile(u"\\kept.xml", "old catalog")->readOnly = true;
  EXPECT_FALSE(PrintCatalog(&gModuleInfo, u"\\kept.xml"));
  EXPECT_TRUE(volA.Content(u"\\kept.xml") == "old catalog") << "the kept file was written to";
}

} // namespace
