#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/global_memory.h"
#include "tests/common/temp_dir.h"
#include "util/util.h"

namespace {

using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

TEST(CUtilFiles, CreateDirectoryMakesTheFoldersBeforeTheFileName) {
  TempDir dir;
  EXPECT_TRUE(CUtil::CreateDirectory((dir / "a/b/c.txt").c_str()));
  EXPECT_TRUE(IsFolder(dir / "a"));
  EXPECT_TRUE(IsFolder(dir / "a/b"));
  EXPECT_FALSE(PathExists(dir / "a/b/c.txt"));
  EXPECT_TRUE(CUtil::CreateDirectory((dir / "a/b/again").c_str())) << "existing folders";
  EXPECT_TRUE(CUtil::CreateDirectory("nofolder.txt"));
  EXPECT_TRUE(CUtil::CreateDirectory((dir / "x/y/").c_str()));
  EXPECT_TRUE(IsFolder(dir / "x/y"));

  WriteFile(dir / "blocker", "x");
  EXPECT_FALSE(CUtil::CreateDirectory((dir / "blocker/sub/f").c_str())) << "a file stands in the way";
  EXPECT_FALSE(CUtil::CreateDirectory(nullptr));
}

TEST(CUtilFiles, DeleteDirectoryRemovesTheTreeAndReportsProgress) {
  TempDir dir;
  std::string root = dir / "root";
  CUtil::CreateDirectory((root + "/sub/deeper/f").c_str());
  WriteFile(root + "/a", "1");
  WriteFile(root + "/sub/deeper/f", "2");
  testing::internal::CaptureStdout();
  EXPECT_TRUE(CUtil::DeleteDirectory(root.c_str(), 1));
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_FALSE(PathExists(root));
  EXPECT_NE(std::string::npos, printed.find(root + "/a file\n"));
  EXPECT_NE(std::string::npos, printed.find(root + "/sub directory\n"));
  EXPECT_NE(std::string::npos, printed.find(root + "/sub/deeper/f file\n"));

  mkdir(root.c_str(), 0777);
  WriteFile(root + "/a", "1");
  testing::internal::CaptureStdout();
  EXPECT_TRUE(CUtil::DeleteDirectory((root + "\\\\").c_str(), 0)) << "trailing backslashes are stripped";
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(IsFolder(root)) << "the folder itself stays";
  EXPECT_FALSE(PathExists(root + "/a"));

  EXPECT_TRUE(CUtil::DeleteDirectory((dir / "missing").c_str(), 0));
  EXPECT_FALSE(CUtil::DeleteDirectory((dir / "missing").c_str(), 1));
  WriteFile(dir / "plain", "x");
  EXPECT_TRUE(CUtil::DeleteDirectory((dir / "plain").c_str(), 1)) << "not a folder: removed as a file";
  EXPECT_FALSE(PathExists(dir / "plain"));
}

// The copy goes through CopyFile, whose successful read writes nothing: the
// destination folders are made, no file is written, and the copy reports
// success.
TEST(CUtilFiles, CopyDirectoryFilesMakesFoldersButWritesNoContents) {
  TempDir dir;
  std::string from = dir / "from";
  std::string to = dir / "to";
  CUtil::CreateDirectory((from + "/sub/inner/x").c_str());
  WriteFile(from + "/top.txt", "top");
  WriteFile(from + "/sub/inner/deep.txt", "deep");
  mkdir((from + "/empty").c_str(), 0777);

  EXPECT_TRUE(CUtil::CopyDirectoryFiles((from + "/").c_str(), to.c_str(), 1));
  EXPECT_TRUE(IsFolder(to));
  EXPECT_TRUE(IsFolder(to + "/sub/inner"));
  EXPECT_FALSE(PathExists(to + "/top.txt"));
  EXPECT_FALSE(PathExists(to + "/sub/inner/deep.txt"));
  EXPECT_FALSE(PathExists(to + "/empty")) << "a folder without files is not made";

  std::string flat = dir / "flat";
  EXPECT_TRUE(CUtil::CopyDirectoryFiles(from.c_str(), flat.c_str(), 0));
  EXPECT_TRUE(IsFolder(flat));
  EXPECT_FALSE(PathExists(flat + "/sub")) << "not recursive";

  EXPECT_TRUE(CUtil::CopyDirectoryFiles((dir / "missing").c_str(), to.c_str(), 1)) << "nothing to copy";
  WriteFile(dir / "blocker", "x");
  EXPECT_FALSE(CUtil::CopyDirectoryFiles(from.c_str(), (dir / "blocker/inside").c_str(), 1));
}

TEST(CUtilFiles, ExistenceCodes) {
  TempDir dir;
  WriteFile(dir / "f", "x");
  EXPECT_EQ(0, CUtil::FileFolderExists((dir / "f").c_str(), 1, 0));
  EXPECT_EQ(0, CUtil::FileFolderExists(dir.path().c_str(), 0, 1));
  EXPECT_EQ(-2418, CUtil::FileFolderExists(dir.path().c_str(), 1, 0));
  EXPECT_EQ(-1017, CUtil::FileFolderExists((dir / "f").c_str(), 0, 0));
  EXPECT_EQ(-3002, CUtil::FileFolderExists((dir / "missing").c_str(), 1, 0));
  EXPECT_EQ(-3003, CUtil::FileFolderExists((dir / "missing").c_str(), 0, 0));
  EXPECT_EQ(-3002, CUtil::FileFolderExists(nullptr, 1, 0));
  EXPECT_EQ(-3003, CUtil::FileFolderExists(nullptr, 0, 0));
  EXPECT_TRUE(CUtil::RemoveFileReadOnlyAttribute((dir / "f").c_str()));
  EXPECT_TRUE(CUtil::RemoveFileReadOnlyAttribute((dir / "missing").c_str()));
  EXPECT_FALSE(CUtil::RemoveFileReadOnlyAttribute(nullptr));
}

TEST(CUtilFiles, LoadFileToMemory) {
  TempDir dir;
  WriteFile(dir / "f", std::string("a\0b", 3));
  unsigned int size = 0;
  long error = -1;
  unsigned char* data = CUtil::LoadFileToMemoryInner((dir / "f").c_str(), &size, &error);
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(0, error);
  EXPECT_EQ(3u, size);
  EXPECT_EQ(3u, GlobalSize(data)) << "a tracked global block";
  EXPECT_EQ(0, memcmp(data, "a\0b", 3));
  GlobalFree(data);
  EXPECT_EQ(nullptr, CUtil::LoadFileToMemoryInner((dir / "missing").c_str(), &size, &error));
  EXPECT_EQ(16, error);
}

TEST(CUtilFiles, SaveDataToFile) {
  TempDir dir;
  std::string path = dir / "new/folder/f.bin";
  const unsigned char data[] = {'h', 'e', 'l', 'l', 'o'};
  EXPECT_EQ(0, CUtil::SaveDataToFileInner(path.c_str(), data, 5, 0));
  EXPECT_EQ("hello", ReadWholeFile(path));
  EXPECT_EQ(0, CUtil::SaveDataToFileInner(path.c_str(), data, 2, 3)) << "an offset writes into the file";
  EXPECT_EQ("helhe", ReadWholeFile(path));
  EXPECT_EQ(0, CUtil::SaveDataToFileInner(path.c_str(), data + 4, 1, 0)) << "offset 0 truncates";
  EXPECT_EQ("o", ReadWholeFile(path));
  EXPECT_EQ(16, CUtil::SaveDataToFileInner((dir / "absent").c_str(), data, 5, 2)) << "an offset needs the file";
  EXPECT_EQ(16, CUtil::SaveDataToFileInner(dir.path().c_str(), data, 5, 0)) << "a folder cannot be opened";
}

TEST(CUtilFiles, ModuleAndResourcePaths) {
  char exe[1025] = {0};
  ssize_t n = readlink("/proc/self/exe", exe, 1024);
  ASSERT_GT(n, 0);
  char module[1025];
  CUtil::GetModulePath(module);
  EXPECT_STREQ(exe, module);

  char folder[1024];
  memset(folder, 'z', sizeof(folder));
  CUtil::GetDllPath(folder);
  std::string expected(exe);
  expected.erase(expected.rfind('/') + 1);
  EXPECT_EQ(expected, folder);

  char app[8] = "keep";
  EXPECT_EQ(0, CUtil::GetAppliationFolder(app, 1));
  EXPECT_STREQ("keep", app);
  char resource[1024];
  CUtil::GetResourcePath(resource);
  EXPECT_STREQ("/Quintaris/", resource);
}

TEST(CUtilFiles, InterfaceKeepersDoNothing) {
  unsigned char* buffer = reinterpret_cast<unsigned char*>(0x10);
  int size = 7;
  EXPECT_EQ(0, CUtil::ReadFileByName("/etc/hostname", &buffer, &size));
  EXPECT_EQ(0, CUtil::ReadFile(stdin, &buffer, &size));
  EXPECT_EQ(reinterpret_cast<unsigned char*>(0x10), buffer);
  EXPECT_EQ(7, size);
  EXPECT_EQ(0u, CUtil::GetFileSize("/etc/hostname"));
  _FILETIME write{3, 4};
  CUtil::GetFileTime("/etc/hostname", nullptr, nullptr, &write);
  EXPECT_EQ(3u, write.dwLowDateTime);
}

}  // namespace
