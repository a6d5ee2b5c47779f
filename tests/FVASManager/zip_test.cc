// ZIP extraction on real archives: made at test time by Python's zipfile
// (tests/FVASManager/data/make_archives.py) and by Info-ZIP's zip.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "FVASManager/Compress.h"
#include "FVASManager/MiniUnzip.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

// Each test starts from a fresh folder of archives and gets its working
// directory back afterwards (extraction moves it into the target folder).
class ZipTest : public testing::Test {
 protected:
  void SetUp() override {
    char* cwd = getcwd(nullptr, 0);
    saved_ = cwd;
    free(cwd);
    const std::string command =
        "python3 " QS_SOURCE_DIR "/tests/FVASManager/data/make_archives.py " + archives_.path();
    ASSERT_EQ(0, system(command.c_str()));
  }
  void TearDown() override { ASSERT_EQ(0, chdir(saved_.c_str())); }

  std::string Archive(const std::string& name) const { return archives_ / name; }

  TempDir archives_;
  TempDir out_;
  std::string saved_;
};

TEST_F(ZipTest, InfoZipArchiveWithNestedEntries) {
  TempDir tree;
  ASSERT_EQ(0, system(("mkdir -p " + tree.path() + "/src/x/y && cd " + tree.path() +
                       "/src && printf 'one' > x/y/1.txt && printf '' > e.txt && head -c 300000 /dev/urandom > r.bin && "
                       "zip -q -r -D ../infozip.zip .")
                          .c_str()));
  Compress compress;
  ASSERT_TRUE(compress.Unzip((tree / "infozip.zip").c_str(), (out_.path() + "/").c_str()))
      << compress.GetErrorDescription();
  EXPECT_EQ("one", ReadWholeFile(out_ / "x/y/1.txt")) << "folders made without folder entries";
  EXPECT_EQ("", ReadWholeFile(out_ / "e.txt"));
  EXPECT_TRUE(PathExists(out_ / "e.txt"));
  EXPECT_EQ(ReadWholeFile(tree / "src/r.bin"), ReadWholeFile(out_ / "r.bin"));
  EXPECT_STREQ("", compress.GetErrorDescription()) << "success leaves the description empty";
}

TEST_F(ZipTest, PythonArchiveWithFolderEntryEmptyFileAndDates) {
  CMiniUnzip driver;
  ASSERT_TRUE(driver.unzip(Archive("nested.zip").c_str(), out_.path().c_str())) << driver.GetMessage();
  EXPECT_EQ(std::string(1000, 'x').size(), ReadWholeFile(out_ / "a/b/c.txt").size());
  EXPECT_TRUE(PathExists(out_ / "empty.txt"));
  EXPECT_EQ("", ReadWholeFile(out_ / "empty.txt"));
  EXPECT_TRUE(IsFolder(out_ / "folder"));
  EXPECT_STREQ(" extracting: dated.txt\r\n", driver.GetMessage()) << "the last message stays";

  struct stat st;
  ASSERT_EQ(0, stat((out_ / "dated.txt").c_str(), &st));
  tm local{};
  localtime_r(&st.st_mtime, &local);
  EXPECT_EQ(2021, local.tm_year + 1900);
  EXPECT_EQ(5, local.tm_mon);
  EXPECT_EQ(15, local.tm_mday);
  EXPECT_EQ(13, local.tm_hour);
  EXPECT_EQ(45, local.tm_min);
  EXPECT_EQ(30, local.tm_sec);
  EXPECT_EQ(st.st_mtime, st.st_atime);

  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  EXPECT_EQ(out_.path(), cwd) << "extraction leaves the process in the target folder";
}

TEST_F(ZipTest, CorruptEntryInTheMiddle) {
  Compress compress;
  EXPECT_FALSE(compress.Unzip(Archive("corrupt.zip").c_str(), (out_.path() + "/").c_str()));
  EXPECT_STREQ("Error -3 with zipfile in ReadCurrentFile\r\n", compress.GetErrorDescription());
  EXPECT_EQ(std::string("first entry ").size() * 200, ReadWholeFile(out_ / "first.txt").size())
      << "earlier entries stay extracted";
  EXPECT_FALSE(PathExists(out_ / "third.txt")) << "the walk stops";
}

TEST_F(ZipTest, LaterEntryOfTheSameNameWins) {
  CMiniUnzip driver;
  ASSERT_TRUE(driver.unzip(Archive("duplicate.zip").c_str(), out_.path().c_str()));
  EXPECT_EQ("newer", ReadWholeFile(out_ / "same.txt"));
}

TEST_F(ZipTest, NameWithoutZipEndingIsRetried) {
  CMiniUnzip driver;
  EXPECT_TRUE(driver.unzip((archives_ / "pkg").c_str(), out_.path().c_str()));
  EXPECT_EQ("retried", ReadWholeFile(out_ / "inside.txt"));

  // Through the façade the given name must exist; here it is not an archive.
  WriteFile(archives_ / "pkg", "not an archive");
  TempDir other;
  Compress compress;
  EXPECT_TRUE(compress.Unzip((archives_ / "pkg").c_str(), (other.path() + "/").c_str()));
  EXPECT_TRUE(PathExists(other / "inside.txt"));
}

TEST_F(ZipTest, MissingArchiveFailsBeforeAnyFolderIsMade) {
  Compress compress;
  const std::string missing = archives_ / "missing.zip";
  const std::string target = out_ / "never/made/";
  EXPECT_FALSE(compress.Unzip(missing.c_str(), target.c_str()));
  EXPECT_EQ("Cannot find the specified file \"" + missing + "\"", std::string(compress.GetErrorDescription()));
  EXPECT_FALSE(PathExists(out_ / "never"));
}

TEST_F(ZipTest, BytesThatAreNotAnArchive) {
  const std::string path = archives_ / "garbage.bin";
  WriteFile(path, "definitely not a zip file");
  Compress compress;
  EXPECT_FALSE(compress.Unzip(path.c_str(), (out_.path() + "/").c_str()));
  EXPECT_EQ("Cannot open " + path + " or " + path + ".zip", std::string(compress.GetErrorDescription()));
}

TEST_F(ZipTest, TargetThatCannotBeEntered) {
  WriteFile(out_ / "file", "x");
  const std::string target = out_ / "file";
  CMiniUnzip driver;
  EXPECT_FALSE(driver.unzip(Archive("pkg.zip").c_str(), target.c_str()));
  EXPECT_EQ("Error changing into " + target, std::string(driver.GetMessage()));
}

TEST_F(ZipTest, FolderChecksAndHelpers) {
  Compress compress;
  EXPECT_TRUE(compress.FolderExists(out_.path().c_str()));
  EXPECT_FALSE(compress.FolderExists((out_ / "missing").c_str()));
  EXPECT_EQ("Cannot find the specified folder \"" + (out_ / "missing") + "\"",
            std::string(compress.GetErrorDescription()));
  WriteFile(out_ / "plain", "x");
  EXPECT_FALSE(compress.FolderExists((out_ / "plain").c_str()));
  EXPECT_EQ("\"" + (out_ / "plain") + "\" is not a folder", std::string(compress.GetErrorDescription()));
  EXPECT_FALSE(compress.FolderCanWrite(out_.path().c_str()));
  EXPECT_TRUE(compress.FileExists((out_ / "plain").c_str()));

  CMiniUnzip driver;
  EXPECT_EQ(0, driver.makedir(""));
  EXPECT_EQ(1, driver.makedir((out_ / "m/n/o/").c_str()));
  EXPECT_TRUE(IsFolder(out_ / "m/n/o"));
  EXPECT_EQ(1, driver.makedir((out_ / "m/n").c_str())) << "existing folders are passed over";
  mode_t old = umask(0);
  EXPECT_EQ(0, driver.mymkdir((out_ / "mode").c_str()));
  umask(old);
  struct stat st;
  stat((out_ / "mode").c_str(), &st);
  EXPECT_EQ(0775u, st.st_mode & 0777u);
}

TEST_F(ZipTest, OneFileListingAndUsage) {
  zlib_filefunc64_def functions;
  fill_fopen64_filefunc(&functions);
  unzFile archive = unzOpen2_64(Archive("nested.zip").c_str(), &functions);
  ASSERT_NE(nullptr, archive);
  ASSERT_EQ(0, chdir(out_.path().c_str()));
  CMiniUnzip driver;
  EXPECT_EQ(2, driver.do_extract_onefile(archive, "nothere.txt", 0, 1, nullptr));
  EXPECT_STREQ("File nothere.txt not found in the zipfile\r\n", driver.GetMessage());
  EXPECT_EQ(0, driver.do_extract_onefile(archive, "dated.txt", 0, 1, nullptr));
  EXPECT_EQ("dated", ReadWholeFile(out_ / "dated.txt"));

  unzGoToFirstFile(archive);
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, driver.do_list(archive));
  driver.do_help();
  const std::string printed = testing::internal::GetCapturedStdout();
  unzClose(archive);
  EXPECT_EQ(0u, printed.find("  Length  Method     Size Ratio   Date    Time   CRC-32     Name\r\n"));
  EXPECT_NE(std::string::npos, printed.find("a/b/c.txt\r\n"));
  EXPECT_NE(std::string::npos,
            printed.find("Usage : miniunz [-e] [-x] [-v] [-l] [-o] [-p password] file.zip [file_to_extr.] "
                         "[-d extractdir]\n\n"));
}

}  // namespace
