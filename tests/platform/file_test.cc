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

TEST(CreateFile, DispositionDecidesTheFirstOpen) {
  TempDir dir;
  std::string missing = dir / "missing";
  EXPECT_EQ(nullptr, CreateFile(missing.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(PathExists(missing));

  FILE* created = CreateFile(missing.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  ASSERT_NE(nullptr, created) << "disposition 4 with the write bit creates the file";
  EXPECT_EQ(0u, GetFileSize(created, nullptr));
  unsigned int written = 0;
  EXPECT_TRUE(WriteFile(created, "abc", 3, &written, nullptr));
  EXPECT_EQ(3u, written);
  EXPECT_TRUE(QSCloseFile(created));
  EXPECT_EQ("abc", ReadWholeFile(missing));

  FILE* reopened = CreateFile(missing.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  char first = 0;
  unsigned int read = 0;
  EXPECT_TRUE(ReadFile(reopened, &first, 1, &read, nullptr));
  EXPECT_EQ('a', first) << "reopened r+b at the start, contents kept";
  QSCloseFile(reopened);
}

TEST(CreateFile, CreateAlwaysWithoutWriteTruncatesThenOpensReadOnly) {
  TempDir dir;
  std::string path = dir / "f";
  WriteFile(path, "contents");
  FILE* file = CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(0u, GetFileSize(file, nullptr));
  unsigned int written = 7;
  EXPECT_FALSE(WriteFile(file, "x", 1, &written, nullptr)) << "read-only stream";
  EXPECT_EQ(0u, written);
  EXPECT_TRUE(CloseFile(file));
  EXPECT_TRUE(QSCloseFile(nullptr));
  EXPECT_TRUE(CloseFile(nullptr));
}

TEST(StreamFunctions, SizeSeekReadWrite) {
  TempDir dir;
  std::string path = dir / "f";
  WriteFile(path, "0123456789");
  FILE* file = QSCreateFile(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(4u, SetFilePointer(file, 4, nullptr, FILE_BEGIN));
  unsigned int high = 77;
  EXPECT_EQ(10u, GetFileSize(file, &high));
  EXPECT_EQ(77u, high) << "the high part is not written";
  EXPECT_EQ(4u, static_cast<unsigned int>(ftell(file))) << "the position is restored";
  EXPECT_EQ(8u, SetFilePointer(file, -2, nullptr, FILE_END));
  char buffer[8] = {0};
  unsigned int read = 0;
  EXPECT_TRUE(ReadFile(file, buffer, 8, &read, nullptr)) << "a short read at the end is success";
  EXPECT_EQ(2u, read);
  EXPECT_STREQ("89", buffer);
  QSCloseFile(file);
}

TEST(StreamFunctions, ReadWholeFileInPieces) {
  TempDir dir;
  std::string path = dir / "big";
  std::string content(3 * 1024 * 1024, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 26);
  WriteFile(path, content);
  unsigned char* buffer = reinterpret_cast<unsigned char*>(1);
  int size = -1;
  EXPECT_EQ(0, ReadFileByName(path.c_str(), &buffer, &size));
  ASSERT_NE(nullptr, buffer);
  ASSERT_EQ(static_cast<int>(content.size()), size);
  EXPECT_EQ(0, memcmp(buffer, content.data(), content.size()));
  EXPECT_EQ(0, buffer[size]) << "terminated after the data";
  free(buffer);

  EXPECT_EQ(0, ReadFileByName((dir / "missing").c_str(), &buffer, &size)) << "cannot open: 0 as well";
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(0, size);
  EXPECT_EQ(1, ReadFile(nullptr, &buffer, &size)) << "a null stream";
  EXPECT_EQ(nullptr, buffer);
}

// ReadFileByName answers 0 for a successful read, and CopyFile writes only on
// a nonzero answer: a readable source leaves the destination unwritten.
TEST(CopyFile, SuccessfulReadLeavesTheDestinationUnwritten) {
  TempDir dir;
  std::string source = dir / "source";
  WriteFile(source, "payload");
  std::string target = dir / "target";
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
  EXPECT_EQ(0xFFFFFFFFu, GetFileAttributes(""));
  EXPECT_EQ(0xFFFFFFFFu, GetFileAttributes(nullptr));
  EXPECT_EQ(0xFFFFFFFFu, GetFileAttributes((dir / "missing").c_str()));
  EXPECT_TRUE(SetFileAttributes(file.c_str(), 128));
  EXPECT_EQ(0444u, [&] { struct stat st; stat(file.c_str(), &st); return st.st_mode & 0777u; }()) << "no effect";
  EXPECT_EQ(0, ImgChmodForLinux(file.c_str()));
  struct stat st;
  stat(file.c_str(), &st);
  EXPECT_EQ(0777u, st.st_mode & 0777u);
  EXPECT_TRUE(DeleteFile(file.c_str()));
  EXPECT_FALSE(DeleteFile(file.c_str()));
}

TEST(Directories, CreateDirectoryFailsForAnExistingPath) {
  TempDir dir;
  std::string sub = dir / "sub";
  EXPECT_TRUE(CreateDirectory(sub.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectory(sub.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectory((dir / "a/b").c_str(), nullptr)) << "only the last component is made";
}

TEST(Directories, GetFileTimeGivesSecondsInTheLowWord) {
  TempDir dir;
  std::string file = dir / "f";
  WriteFile(file, "x");
  utimbuf times{1000000000, 1234567890};
  utime(file.c_str(), &times);
  _FILETIME creation{5, 6}, access{7, 8}, write{0, 9};
  std::string mutablePath = file;
  EXPECT_TRUE(GetFileTime(&mutablePath[0], &creation, &access, &write));
  EXPECT_EQ(1234567890u, write.dwLowDateTime);
  EXPECT_EQ(9u, write.dwHighDateTime);
  EXPECT_EQ(5u, creation.dwLowDateTime);
  EXPECT_EQ(7u, access.dwLowDateTime);
}

// One call clears files up to and including the first sub-directory met.
TEST(RemoveDir, StopsAfterTheFirstRemovedSubDirectory) {
  TempDir dir;
  std::string root = dir / "root";
  mkdir(root.c_str(), 0777);
  mkdir((root + "/d1").c_str(), 0777);
  mkdir((root + "/d2").c_str(), 0777);
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
  EXPECT_TRUE(IsFolder(root));
  EXPECT_TRUE(RemoveDir(root.c_str())) << "the second call takes the other one";
  EXPECT_TRUE(RemoveDir(root.c_str())) << "the third removes the emptied folder";
  EXPECT_FALSE(PathExists(root));
  EXPECT_FALSE(RemoveDir(root.c_str()));
  EXPECT_FALSE(RemoveDir(nullptr));
}

TEST(RemoveDir, FilesOnlyFolderGoesInOneCall) {
  TempDir dir;
  std::string root = dir / "root";
  mkdir(root.c_str(), 0777);
  WriteFile(root + "/a", "1");
  WriteFile(root + "/b", "2");
  EXPECT_TRUE(RemoveDir(root.c_str()));
  EXPECT_FALSE(PathExists(root));
}

TEST(DeleteFileOrDir, FilesFoldersAndNothing) {
  TempDir dir;
  WriteFile(dir / "f", "x");
  DeleteFileOrDir((dir / "f").c_str());
  EXPECT_FALSE(PathExists(dir / "f"));
  mkdir((dir / "d").c_str(), 0777);
  DeleteFileOrDir((dir / "d").c_str());
  EXPECT_FALSE(PathExists(dir / "d"));
  DeleteFileOrDir("");
  DeleteFileOrDir(nullptr);
  DeleteFileOrDir((dir / "missing").c_str());
}

TEST(RemoveUndeletedDir, RemovesOldSiblingFoldersOnly) {
  TempDir dir;
  auto makeFolder = [&](const std::string& name, time_t mtime) {
    std::string path = dir / name;
    mkdir(path.c_str(), 0777);
    WriteFile(path + "/inside", "x");
    utimbuf times{mtime, mtime};
    utime(path.c_str(), &times);
  };
  const time_t now = time(nullptr);
  makeFolder("fresh", now);
  makeFolder("yearold", now - 400L * 86400);
  WriteFile(dir / "oldfile", "x");
  utimbuf old{now - 400L * 86400, now - 400L * 86400};
  utime((dir / "oldfile").c_str(), &old);

  EXPECT_EQ(1, RemoveUndeletedDir((dir / "fresh/").c_str()));
  EXPECT_TRUE(IsFolder(dir / "fresh"));
  EXPECT_FALSE(PathExists(dir / "yearold/inside")) << "an older folder is emptied (RemoveDir)";
  EXPECT_TRUE(PathExists(dir / "oldfile")) << "plain files stay";
  EXPECT_EQ(0, RemoveUndeletedDir("no-slash"));
  EXPECT_EQ(0, RemoveUndeletedDir(nullptr));
}

}  // namespace
