// The update package pipeline (behind -2200 for hosts, reached here through
// ManagerClient directly) on archives written at test time by
// tests/FVASManager/data/make_archives.py; what extraction does with any
// other archive is the unzip fuzz target's to find. The pipeline works in the
// module's folder, so each of its scenarios runs in a folder of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "FVASManager/Compress.h"
#include "FVASManager/ManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "environment/configuration.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "tests/common/own_folder.h"

namespace {

namespace fs = std::filesystem;
using qs_test::OwnFolder, qs_test::ReadWholeFile, qs_test::WriteFile;

std::string g_sent;
signed char Capture(SendBackCallback, int, void*, char const* text, void const*, unsigned int, char const*) {
  g_sent = text;
  return 1;
}
signed char Host(int, void*, char const*, void const*, unsigned int, char const*) { return 1; }

// Starts up in the test's own folder as the service process; returns the
// folder the test archives are written to.
std::string StartService(const std::string& configuration) {
  WriteFile(OwnFolder() + "QSConfiguration.ini", configuration);
  SetIfServiceProcess(true);
  InitProgramInfo(false);
  const std::string archives = OwnFolder() + "archives";
  EXPECT_EQ(0, system(("python3 " QS_SOURCE_DIR "/tests/FVASManager/data/make_archives.py " + archives).c_str()));
  return archives + "/";
}

// Runs one update command on a ManagerClient and returns the answer as sent.
std::string Run(const std::string& cmd, const std::string& body = "") {
  unsigned char* copy = body.empty() ? nullptr : new unsigned char[body.size()];
  if (copy != nullptr) memcpy(copy, body.data(), body.size());
  HttpParamRequest request(1, nullptr, cmd, 1, 3, "", Capture, Host, nullptr, nullptr, nullptr, copy,
                           static_cast<long>(body.size()), true);
  ManagerClient client;
  const bool check = cmd.find("CheckUpdateFile") != std::string::npos;
  check ? client.CheckUpdateFile(&request) : client.LoadZipFromBytes(&request);
  request.SendBackResult();
  return g_sent;
}

bool CacheIsEmpty() { return !fs::exists(GetCachePath()) || fs::is_empty(GetCachePath()); }

#define EXPECT_HAS(text, part) EXPECT_NE(std::string::npos, (text).find(part)) << (text)

// The version check compares the 32-bit cut of the candidate's leading digits
// with the installed version.
TEST_IN_OWN_FOLDER(UpdatePipeline, VersionCheckUpdateFlagAndUploads) {
  const std::string archives = StartService("[QS]\nQSVersion=13,0,0,0404\n");
  ManagerClient client;
  const struct { const char* candidate; bool installed; } rows[] = {
      {"13000404", true}, {"13000405", false}, {"13,0,0,0404", true}, {"abc", true},
      {"", false},        {"99999999999", false}, {"4294967296", true},
  };
  for (const auto& row : rows) EXPECT_EQ(row.installed, client.CheckIfAlreadyNewVersion(row.candidate)) << row.candidate;
  EXPECT_FALSE(client.ValidFileName(archives, "QSUpdate")) << "no file is ever examined";
  EXPECT_HAS(Run(R"({"id":"4","method":"LoadZipFromBytes","parameter":[1,"13000404"]})", "junk"),
             "\"result\" : [ 1, \"13000404\", true ],\n\t\"cmdId\" : \"\"\n}\n");
  // A body that is not an archive leaves nothing behind.
  EXPECT_HAS(Run(R"({"id":"7","method":"LoadZipFromBytes","parameter":[0,"1"]})", "not a zip"),
             "\"description\" : \"Failed to unzip file Cannot open ");
  // A module upload copies through CopyFile, which writes nothing after a
  // successful read: folders appear in the module folder, contents do not.
  EXPECT_HAS(Run(R"({"id":"1","method":"LoadZipFromBytes","parameter":[0,""]})", ReadWholeFile(archives + "nested.zip")),
             "\"result\" : [ 0, \"\", true ]");
  EXPECT_TRUE(fs::is_directory(OwnFolder() + "a/b"));
  EXPECT_FALSE(fs::exists(OwnFolder() + "a/b/c.txt"));
  // A service upload (here with an empty version) unpacks into a version
  // folder made afresh, and the copy writes no contents: the package it names
  // is never there, and the version folder goes.
  EXPECT_HAS(Run(R"({"id":"3","method":"LoadZipFromBytes","parameter":[1,""]})", ReadWholeFile(archives + "pkg.zip")),
             "file \\\"" + GetCachePath() + "Update_/Service_.zip\\\" 2\",\n   \"exception\" : -2405");
  // With an update under way every upload and check is refused at once.
  WriteFile(GetInitFile(), "[QS]\nifupdate=1\n");
  EXPECT_HAS(Run(R"({"id":"5","method":"LoadZipFromBytes","parameter":[1,"20000000"]})", "bytes"),
             "\"description\" : \"Quintaris Service is updating, please wait.\",\n   \"exception\" : -2373");
  EXPECT_HAS(Run(R"({"id":"6","method":"CheckUpdateFile","parameter":["7"]})"), "\"exception\" : -2373");
  EXPECT_TRUE(CacheIsEmpty());
}

// A service package beside the module is unpacked, deleted, and its updater
// started with the work folder and an empty environment; without an updater
// the update flag is reset; a broken package is deleted with its folder.
TEST_IN_OWN_FOLDER(UpdatePipeline, CheckUpdateFile) {
  const std::string archives = StartService("[QS]\nIfUpdate=0\nQSVersion=1\n");
  WriteFile(OwnFolder() + "Service_9.zip", ReadWholeFile(archives + "Service_9.zip"));
  EXPECT_HAS(Run(R"({"id":"9","method":"CheckUpdateFile","parameter":["9"]})"), "\"result\" : [ \"9\", true ]");
  EXPECT_FALSE(fs::exists(OwnFolder() + "Service_9.zip"));
  const std::string program = GetCachePath() + "QuintarisService/QSUpdate", marker = OwnFolder() + "updater_ran.txt";
  for (int i = 0; i < 500 && ReadWholeFile(marker).empty(); ++i) usleep(10000);
  const std::string ran = ReadWholeFile(marker);
  EXPECT_EQ(0u, ran.find(program + "|" + OwnFolder() + "|")) << ran;
  EXPECT_EQ(std::string::npos, ran.find("HOME=")) << ran;

  WriteFile(OwnFolder() + "Service_5.zip", ReadWholeFile(archives + "pkg.zip"));  // no QSUpdate inside
  EXPECT_HAS(Run(R"({"id":"10","method":"CheckUpdateFile","parameter":["5"]})"),
             "\"description\" : \"Create update progress failed.\",\n   \"exception\" : -2407");
  EXPECT_EQ("0", GetConfigurationfromInitFile("IfUpdate", "unset", nullptr));

  WriteFile(OwnFolder() + "Service_3.zip", "not a zip");
  EXPECT_HAS(Run(R"({"id":"11","method":"CheckUpdateFile","parameter":["3"]})"), "\"exception\" : -2405");
  EXPECT_FALSE(fs::exists(OwnFolder() + "Service_3.zip"));
  EXPECT_FALSE(fs::exists(GetCachePath() + "QuintarisService"));

  // The extraction facade's folder checks, and a target folder it cannot make.
  Compress compress;
  EXPECT_TRUE(compress.FolderExists(archives.c_str()) && !compress.FolderCanWrite(archives.c_str()) &&
              !compress.FolderExists("/no/such") && !compress.FolderExists((archives + "pkg.zip").c_str()));
  EXPECT_EQ("\"" + archives + "pkg.zip\" is not a folder", std::string(compress.GetErrorDescription()));
  EXPECT_FALSE(compress.Unzip((archives + "pkg.zip").c_str(), (archives + "pkg.zip/x/").c_str()));
  EXPECT_EQ("Error changing into " + archives + "pkg.zip/x/", std::string(compress.GetErrorDescription()));
}

}  // namespace
