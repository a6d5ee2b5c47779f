#include "platform/file.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tests/common/temp_dir.h"

namespace {

using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

unsigned int Mode(const std::string& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return st.st_mode & 0777u;
}

TEST(CreateFile, DispositionDecidesTheFirstOpen) {
  TempDir dir;
  std::string path = dir / "f";
  EXPECT_EQ(nullptr, CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(PathExists(path));

  FILE* created = CreateFile(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  ASSERT_NE(nullptr, created) << "disposition 4 with the write bit creates the file";
  EXPECT_EQ(0u, GetFileSize(created, nullptr));
  unsigned int count = 0;
  EXPECT_TRUE(WriteFile(created, "abc", 3, &count, nullptr));
  EXPECT_EQ(3u, count);
  EXPECT_TRUE(QSCloseFile(created));
  FILE* reopened = CreateFile(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  char first = 0;
  EXPECT_TRUE(ReadFile(reopened, &first, 1, &count, nullptr));
  EXPECT_EQ('a', first) << "reopened r+b at the start, contents kept";
  QSCloseFile(reopened);

  FILE* truncated = CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(nullptr, truncated);
  EXPECT_EQ(0u, GetFileSize(truncated, nullptr)) << "disposition 2 without the write bit truncates";
  count = 7;
  EXPECT_FALSE(WriteFile(truncated, "x", 1, &count, nullptr)) << "and opens read-only";
  EXPECT_EQ(0u, count);
  EXPECT_TRUE(CloseFile(truncated));
  EXPECT_TRUE(QSCloseFile(nullptr) && CloseFile(nullptr));
}

TEST(StreamFunctions, SizeSeekAndShortRead) {
  TempDir dir;
  WriteFile(dir / "f", "0123456789");
  FILE* file = QSCreateFile((dir / "f").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(4u, SetFilePointer(file, 4, nullptr, FILE_BEGIN));
  unsigned int high = 77;
  EXPECT_EQ(10u, GetFileSize(file, &high));
  EXPECT_EQ(77u, high) << "the high part is not written";
  EXPECT_EQ(4, ftell(file)) << "the position is restored";
  EXPECT_EQ(8u, SetFilePointer(file, -2, nullptr, FILE_END));
  char buffer[8] = {0};
  unsigned int read = 0;
  EXPECT_TRUE(ReadFile(file, buffer, 8, &read, nullptr)) << "a short read at the end is success";
  EXPECT_STREQ("89", buffer);
  EXPECT_EQ(2u, read);
  QSCloseFile(file);
}

TEST(StreamFunctions, ReadWholeFileInPiecesAndTerminates) {
  TempDir dir;
  std::string content(3 * 1024 * 1024, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 26);
  WriteFile(dir / "big", content);
  unsigned char* buffer = reinterpret_cast<unsigned char*>(1);
  int size = -1;
  EXPECT_EQ(0, ReadFileByName((dir / "big").c_str(), &buffer, &size));
  ASSERT_EQ(static_cast<int>(content.size()), size);
  EXPECT_EQ(0, memcmp(buffer, content.data(), content.size()));
  EXPECT_EQ(0, buffer[size]);
  free(buffer);

  EXPECT_EQ(0, ReadFileByName((dir / "missing").c_str(), &buffer, &size)) << "cannot open: 0 as well";
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(0, size);
  EXPECT_EQ(1, ReadFile(nullptr, &buffer, &size)) << "a null stream";
}

// ReadFileByName answers 0 for a successful read, and CopyFile writes only on
// a nonzero answer: a readable source leaves the destination unwritten.
TEST(CopyFile, SuccessfulReadLeavesTheDestinationUnwritten) {
  TempDir dir;
  std::string source = dir / "source", target = dir / "target";
  WriteFile(source, "payload");
  EXPECT_TRUE(CopyFile(source.c_str(), target.c_str(), 1));
  EXPECT_FALSE(PathExists(target));
  WriteFile(target, "old");
  EXPECT_TRUE(CopyFile(source.c_str(), target.c_str(), 0));
  EXPECT_EQ("old", ReadWholeFile(target));
  EXPECT_TRUE(CopyFile((dir / "missing").c_str(), target.c_str(), 0)) << "an unopenable source reads as 0 too";
}

TEST(Attributes, OnlyDirectoryIsReported) {
  TempDir dir;
  std::string file = dir / "ro";
  WriteFile(file, "x");
  chmod(file.c_str(), 0444);
  EXPECT_EQ(0u, GetFileAttributes(file.c_str())) << "read-only is never reported";
  EXPECT_EQ(16u, GetFileAttributes(dir.path().c_str()));
  for (const char* missing : {"", static_cast<const char*>(nullptr), "/nonexistent/x"}) {
    EXPECT_EQ(0xFFFFFFFFu, GetFileAttributes(missing));
  }
  EXPECT_TRUE(SetFileAttributes(file.c_str(), 128));
  EXPECT_EQ(0444u, Mode(file)) << "SetFileAttributes has no effect";
  EXPECT_EQ(0, ImgChmodForLinux(file.c_str()));
  EXPECT_EQ(0777u, Mode(file));
  EXPECT_TRUE(DeleteFile(file.c_str()));
  EXPECT_FALSE(DeleteFile(file.c_str()));
}

TEST(Directories, CreateDirectoryAndGetFileTime) {
  TempDir dir;
  std::string sub = dir / "sub";
  EXPECT_TRUE(CreateDirectory(sub.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectory(sub.c_str(), nullptr)) << "an existing path fails";
  EXPECT_FALSE(CreateDirectory((dir / "a/b").c_str(), nullptr)) << "only the last component is made";

  utimbuf times{1000000000, 1234567890};
  utime(sub.c_str(), &times);
  _FILETIME creation{5, 6}, access{7, 8}, write{0, 9};
  EXPECT_TRUE(GetFileTime(&sub[0], &creation, &access, &write));
  EXPECT_EQ(1234567890u, write.dwLowDateTime) << "seconds since the epoch in the low word";
  EXPECT_EQ(9u, write.dwHighDateTime);
  EXPECT_EQ(5u, creation.dwLowDateTime);
  EXPECT_EQ(7u, access.dwLowDateTime);
}

// One call clears files up to and including the first sub-directory met.
TEST(RemoveDir, StopsAfterTheFirstRemovedSubDirectory) {
  TempDir dir;
  std::string root = dir / "root";
  for (const char* sub : {"", "/d1", "/d2"}) mkdir((root + sub).c_str(), 0777);
  WriteFile(root + "/d1/x", "1");
  WriteFile(root + "/d2/y", "2");
  std::vector<std::string> order;
  DIR* d = opendir(root.c_str());
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') order.push_back(e->d_name);
  }
  closedir(d);
  ASSERT_EQ(2u, order.size());

  EXPECT_TRUE(RemoveDir(root.c_str()));
  EXPECT_FALSE(PathExists(root + "/" + order[0]));
  EXPECT_TRUE(IsFolder(root + "/" + order[1]));
  EXPECT_TRUE(RemoveDir(root.c_str())) << "the second call takes the other one";
  EXPECT_TRUE(RemoveDir(root.c_str())) << "the third removes the emptied folder";
  EXPECT_FALSE(PathExists(root));
  EXPECT_FALSE(RemoveDir(root.c_str()));

  mkdir(root.c_str(), 0777);
  WriteFile(root + "/a", "1");
  WriteFile(root + "/b", "2");
  EXPECT_TRUE(RemoveDir(root.c_str())) << "a folder of files goes in one call";
  EXPECT_FALSE(PathExists(root));
}

TEST(DeleteFileOrDir, FilesFoldersAndNothing) {
  TempDir dir;
  WriteFile(dir / "f", "x");
  mkdir((dir / "d").c_str(), 0777);
  for (const char* path : {"f", "d"}) DeleteFileOrDir((dir / path).c_str());
  EXPECT_FALSE(PathExists(dir / "f") || PathExists(dir / "d"));
  DeleteFileOrDir("");
  DeleteFileOrDir(nullptr);
  DeleteFileOrDir((dir / "missing").c_str());
}

TEST(RemoveUndeletedDir, RemovesOldSiblingFoldersOnly) {
  TempDir dir;
  const time_t now = time(nullptr), old = now - 400L * 86400;
  for (const char* name : {"fresh", "yearold"}) {
    mkdir((dir / name).c_str(), 0777);
    WriteFile(dir / name + "/inside", "x");
  }
  WriteFile(dir / "oldfile", "x");
  utimbuf oldTimes{old, old};
  utime((dir / "yearold").c_str(), &oldTimes);
  utime((dir / "oldfile").c_str(), &oldTimes);

  EXPECT_EQ(1, RemoveUndeletedDir((dir / "fresh/").c_str()));
  EXPECT_TRUE(IsFolder(dir / "fresh"));
  EXPECT_FALSE(PathExists(dir / "yearold/inside")) << "an older folder is emptied (RemoveDir)";
  EXPECT_TRUE(PathExists(dir / "oldfile")) << "plain files stay";
  EXPECT_EQ(0, RemoveUndeletedDir("no-slash"));
}

}  // namespace
