// The update package pipeline end to end. It works in the module's folder
// (the executable's) and its cache folder, so every scenario runs in a copy of
// this binary inside a folder of its own.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "FVASManager/ManagerClient.h"
#include "FVASManager/VirtualManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "environment/configuration.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "tests/common/own_folder.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::WriteFile;

std::string g_sent;

signed char Capture(SendBackCallback, int, void*, char const* text, void const*, unsigned int, char const*) {
  g_sent = text;
  return 1;
}

signed char Host(int, void*, char const*, void const*, unsigned int, char const*) { return 1; }

std::string Folder() { return std::string(getenv("QS_TEST_OWN_FOLDER")) + "/"; }

// Starts up in the test's own folder as the service process.
void StartService(const std::string& configuration = "") {
  if (!configuration.empty()) WriteFile(Folder() + "QSConfiguration.ini", configuration);
  SetIfServiceProcess(true);
  InitProgramInfo(false);
}

std::string Archives() {
  const std::string folder = Folder() + "archives";
  EXPECT_EQ(0, system(("python3 " QS_SOURCE_DIR "/tests/FVASManager/data/make_archives.py " + folder).c_str()));
  return folder + "/";
}

// Runs one update command directly on a ManagerClient and returns the result
// document as sent.
std::string RunCommand(HttpParamRequest* (ManagerClient::*command)(HttpParamRequest*), const std::string& cmd,
                const std::string& body = "") {
  unsigned char* copy = nullptr;
  if (!body.empty()) {
    copy = new unsigned char[body.size()];
    memcpy(copy, body.data(), body.size());
  }
  HttpParamRequest request(1, nullptr, cmd, 1, 3, "", Capture, Host, nullptr, nullptr, nullptr, copy,
                           static_cast<long>(body.size()), true);
  ManagerClient client;
  (client.*command)(&request);
  request.SendBackResult();
  return g_sent;
}

std::vector<std::string> CacheEntries() {
  std::vector<std::string> names;
  DIR* dir = opendir(GetCachePath().c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') names.push_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

std::string Answer(const std::string& members) { return "{\n" + members + ",\n\t\"cmdId\" : \"\"\n}\n"; }

// `expected` holds "<N>" once where the system error number stands.
::testing::AssertionResult MatchesWithErrorNumber(const std::string& expected, const std::string& actual) {
  const std::string::size_type mark = expected.find("<N>");
  const std::string before = expected.substr(0, mark);
  const std::string after = expected.substr(mark + 3);
  if (actual.size() > before.size() + after.size() && actual.compare(0, before.size(), before) == 0 &&
      actual.compare(actual.size() - after.size(), after.size(), after) == 0) {
    const std::string number = actual.substr(before.size(), actual.size() - before.size() - after.size());
    if (number.find_first_not_of("0123456789") == std::string::npos) return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "expected\n" << expected << "\nactual\n" << actual;
}

TEST_IN_OWN_FOLDER(UpdatePipeline, ModuleUploadMakesFoldersButWritesNoFileContents) {
  StartService();
  const std::string body = ReadWholeFile(Archives() + "nested.zip");
  EXPECT_EQ(Answer("   \"id\" : \"1\",\n"
                   "   \"method\" : \"LoadZipFromBytes\",\n"
                   "   \"result\" : [ 0, \"\", true ]"),
            RunCommand(&ManagerClient::LoadZipFromBytes, R"({"id":"1","method":"LoadZipFromBytes","parameter":[0,""]})",
                body));
  // The copy goes through CopyFile, which writes nothing after a successful
  // read: folders appear in the module folder, file contents do not.
  EXPECT_TRUE(IsFolder(Folder() + "a/b"));
  EXPECT_FALSE(PathExists(Folder() + "a/b/c.txt"));
  EXPECT_FALSE(PathExists(Folder() + "dated.txt"));
  EXPECT_TRUE(CacheEntries().empty()) << "no module_ file or Unzip_ folder is left";
}

// A service upload copies nothing into its version folder either, so the
// service package is not found there.
TEST_IN_OWN_FOLDER(UpdatePipeline, ServiceUploadFindsNoPackageInItsVersionFolder) {
  StartService("[QS]\nQSVersion=13,0,0,0404\n");
  const std::string body = ReadWholeFile(Archives() + "service.zip");
  const std::string package = GetCachePath() + "Update_13000405/Service_13000405.zip";
  EXPECT_TRUE(MatchesWithErrorNumber(
      Answer("   \"description\" : \"Failed to unzip file Cannot find the specified file \\\"" + package +
             "\\\" <N>\",\n"
             "   \"exception\" : -2405,\n"
             "   \"id\" : \"2\",\n"
             "   \"method\" : \"LoadZipFromBytes\",\n"
             "   \"result\" : [ 1, \"13000405\", false ]"),
      RunCommand(&ManagerClient::LoadZipFromBytes, R"({"id":"2","method":"LoadZipFromBytes","parameter":[1,"13000405"]})",
          body)));
  EXPECT_TRUE(CacheEntries().empty()) << "version, unpack and validation folders are all gone";

  // An empty version goes on to the upload with the name "Service_.zip".
  const std::string empty = RunCommand(&ManagerClient::LoadZipFromBytes,
                                R"({"id":"3","method":"LoadZipFromBytes","parameter":[1,""]})", body);
  EXPECT_NE(std::string::npos, empty.find("Update_/Service_.zip")) << empty;
}

TEST_IN_OWN_FOLDER(UpdatePipeline, VersionChecksAnswerAtOnce) {
  StartService("[QS]\nQSVersion=13,0,0,0404\n");
  const std::string upToDate = RunCommand(&ManagerClient::LoadZipFromBytes,
                                   R"({"id":"4","method":"LoadZipFromBytes","parameter":[1,"13000404"]})", "junk");
  EXPECT_EQ(Answer("   \"id\" : \"4\",\n   \"method\" : \"LoadZipFromBytes\",\n"
                   "   \"result\" : [ 1, \"13000404\", true ]"),
            upToDate);
  // The candidate keeps its commas: "13,0,0,0404" reads as 13.
  EXPECT_NE(std::string::npos, RunCommand(&ManagerClient::LoadZipFromBytes,
                                   R"({"id":"4","method":"LoadZipFromBytes","parameter":[1,"13,0,0,0404"]})", "junk")
                                   .find("\"result\" : [ 1, \"13,0,0,0404\", true ]"));
  EXPECT_TRUE(CacheEntries().empty()) << "nothing is saved";

  ManagerClient client;
  EXPECT_TRUE(client.CheckIfAlreadyNewVersion("13000404"));
  EXPECT_FALSE(client.CheckIfAlreadyNewVersion("13000405"));
  EXPECT_TRUE(client.CheckIfAlreadyNewVersion("13,0,0,0404"));
  EXPECT_TRUE(client.CheckIfAlreadyNewVersion("abc")) << "no digits: 0";
  EXPECT_FALSE(client.CheckIfAlreadyNewVersion(""));
  EXPECT_FALSE(client.CheckIfAlreadyNewVersion("99999999999")) << "cut to 32 bits: 1215752191";
  EXPECT_TRUE(client.CheckIfAlreadyNewVersion("4294967296")) << "cut to 32 bits: 0";
}

TEST_IN_OWN_FOLDER(UpdatePipeline, UpdateInProgressRefusesAndWritesNothing) {
  StartService("[QS]\nIfUpdate=1\n");
  const std::string refused = Answer("   \"description\" : \"Quintaris Service is updating, please wait.\",\n"
                                     "   \"exception\" : -2373,\n"
                                     "   \"id\" : \"5\",\n"
                                     "   \"method\" : \"LoadZipFromBytes\",\n"
                                     "   \"result\" : [ 1, \"20000000\", false ]");
  EXPECT_EQ(refused, RunCommand(&ManagerClient::LoadZipFromBytes,
                         R"({"id":"5","method":"LoadZipFromBytes","parameter":[1,"20000000"]})", "bytes"));
  EXPECT_TRUE(CacheEntries().empty());
  EXPECT_NE(std::string::npos,
            RunCommand(&ManagerClient::CheckUpdateFile, R"({"id":"6","method":"CheckUpdateFile","parameter":["7"]})")
                .find("\"exception\" : -2373"));

  ManagerClient client;
  WriteFile(GetInitFile(), "[QS]\nIfUpdate=01\n");
  EXPECT_FALSE(client.CheckIfUpdate());
  WriteFile(GetInitFile(), "[QS]\nIfUpdate= 1\n");
  EXPECT_FALSE(client.CheckIfUpdate());
  WriteFile(GetInitFile(), "[QS]\nifupdate=1\n");
  EXPECT_TRUE(client.CheckIfUpdate());
}

TEST_IN_OWN_FOLDER(UpdatePipeline, BodyThatIsNotAZipLeavesNothingBehind) {
  StartService();
  const std::string answer = RunCommand(&ManagerClient::LoadZipFromBytes,
                                 R"({"id":"7","method":"LoadZipFromBytes","parameter":[0,"1"]})", "not a zip");
  EXPECT_NE(std::string::npos, answer.find("\"exception\" : -2405")) << answer;
  EXPECT_NE(std::string::npos, answer.find("\"description\" : \"Failed to unzip file Cannot open ")) << answer;
  EXPECT_TRUE(CacheEntries().empty()) << "no module_ file or Unzip_ folder";
}

TEST_IN_OWN_FOLDER(UpdatePipeline, UnconvertibleParametersMeanTypeZeroAndNoVersion) {
  StartService("[QS]\nIfUpdate=1\n");
  // "x" is no number: type 0, so the update flag is not even looked at.
  const std::string answer = RunCommand(&ManagerClient::LoadZipFromBytes,
                                 R"({"id":"8","method":"LoadZipFromBytes","parameter":["x","9"]})",
                                 ReadWholeFile(Archives() + "pkg.zip"));
  EXPECT_NE(std::string::npos, answer.find("\"result\" : [ \"x\", \"9\", true ]")) << answer;
}

// A service package beside the module: unpacked into the validation folder,
// deleted, and its updater started with the work path and no environment.
TEST_IN_OWN_FOLDER(UpdatePipeline, CheckUpdateFileStartsTheUpdater) {
  StartService();
  const std::string archives = Archives();
  WriteFile(Folder() + "Service_9.zip", ReadWholeFile(archives + "Service_9.zip"));
  EXPECT_EQ(Answer("   \"id\" : \"9\",\n   \"method\" : \"CheckUpdateFile\",\n   \"result\" : [ \"9\", true ]"),
            RunCommand(&ManagerClient::CheckUpdateFile, R"({"id":"9","method":"CheckUpdateFile","parameter":["9"]})"));
  EXPECT_FALSE(PathExists(Folder() + "Service_9.zip")) << "the package is deleted";
  const std::string program = GetCachePath() + "QuintarisService/QSUpdate";
  EXPECT_TRUE(PathExists(program)) << "the validation folder stays for the updater";
  const std::string marker = Folder() + "updater_ran.txt";
  for (int i = 0; i < 500 && ReadWholeFile(marker).empty(); ++i) usleep(10000);
  const std::string ran = ReadWholeFile(marker);
  EXPECT_EQ(0u, ran.find(program + "|" + Folder() + "|")) << ran;
  // The environment was empty: only what the shell sets for itself appears.
  EXPECT_EQ(std::string::npos, ran.find("QS_TEST_OWN_FOLDER=")) << ran;
  EXPECT_EQ(std::string::npos, ran.find("HOME=")) << ran;
}

TEST_IN_OWN_FOLDER(UpdatePipeline, MissingUpdaterResetsTheUpdateFlag) {
  StartService("[QS]\nIfUpdate=0\nQSVersion=1\n");
  WriteFile(Folder() + "Service_5.zip", ReadWholeFile(Archives() + "pkg.zip"));  // no QSUpdate inside
  EXPECT_EQ(Answer("   \"description\" : \"Create update progress failed.\",\n"
                   "   \"exception\" : -2407,\n"
                   "   \"id\" : \"10\",\n"
                   "   \"method\" : \"CheckUpdateFile\",\n"
                   "   \"result\" : [ \"5\", false ]"),
            RunCommand(&ManagerClient::CheckUpdateFile, R"({"id":"10","method":"CheckUpdateFile","parameter":["5"]})"));
  EXPECT_EQ("0", GetConfigurationfromInitFile("IfUpdate", "unset", nullptr));
}

TEST_IN_OWN_FOLDER(UpdatePipeline, CheckUpdateFileDeletesABrokenPackageAndReadsOnlyStringVersions) {
  StartService();
  WriteFile(Folder() + "Service_3.zip", "not a zip");
  const std::string answer =
      RunCommand(&ManagerClient::CheckUpdateFile, R"({"id":"11","method":"CheckUpdateFile","parameter":["3"]})");
  EXPECT_NE(std::string::npos, answer.find("\"exception\" : -2405")) << answer;
  EXPECT_FALSE(PathExists(Folder() + "Service_3.zip"));
  EXPECT_FALSE(PathExists(GetCachePath() + "QuintarisService")) << "a failed validation removes its folder";

  const std::string numeric =
      RunCommand(&ManagerClient::CheckUpdateFile, R"({"id":"12","method":"CheckUpdateFile","parameter":[3]})");
  EXPECT_NE(std::string::npos, numeric.find("Service_.zip")) << "a number is not a version: " << numeric;
}

// Through the router the upload is a command the table does not hold: -2200,
// and nothing reaches the disk.
TEST_IN_OWN_FOLDER(UpdatePipeline, RouterAnswersUploadsWithFunctionNotFound) {
  StartService();
  const std::string body = ReadWholeFile(Archives() + "nested.zip");
  unsigned char* copy = new unsigned char[body.size()];
  memcpy(copy, body.data(), body.size());
  VirtualManagerClient::GetInstance()->DistributeHttpCommand(
      1, nullptr, "/kxp/LoadZipFromBytes?type=0&qsver=1&x", "", 1, Host, 3, "", copy,
      static_cast<long>(body.size()), nullptr, nullptr, nullptr);
  EXPECT_TRUE(CacheEntries().empty());
  EXPECT_FALSE(PathExists(Folder() + "a"));
  VirtualManagerClient::DeleteInstance();
}

TEST(UpdatePipeline, SignatureChecksAreNotWiredOnThisPlatform) {
  ManagerClient client;
  EXPECT_TRUE(client.ValidSigned("/any\\\\"));
  EXPECT_FALSE(client.ValidFileName("/any", "QSUpdate"));
  EXPECT_TRUE(client.ValidFiles("/any"));
}

}  // namespace
