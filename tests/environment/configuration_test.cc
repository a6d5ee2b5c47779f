#include "environment/configuration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "tests/environment/service_folder.h"

namespace {

using qs_test::ServiceFolder;

TEST(Configuration, FlagsAreTrueOnlyForTrueInAnyCase) {
  ServiceFolder folder;
  EXPECT_TRUE(GetConfigurationfromInitFile("EnableCORSAll", "TRUE")) << "absent: the default";
  folder.SetConfiguration("[QS]\nEnableCORSAll=true\n");
  EXPECT_TRUE(GetConfigurationfromInitFile("EnableCORSAll", "TRUE"));
  folder.SetConfiguration("[qs]\nenablecorsall=tRuE\n");
  EXPECT_TRUE(GetConfigurationfromInitFile("EnableCORSAll", "FALSE")) << "names are case-blind";
  folder.SetConfiguration("[QS]\nEnableCORSAll=1\n");
  EXPECT_FALSE(GetConfigurationfromInitFile("EnableCORSAll", "TRUE"));
  folder.SetConfiguration("[QS]\nEnableCORSAll= TRUE\n");
  EXPECT_FALSE(GetConfigurationfromInitFile("EnableCORSAll", "TRUE")) << "values are not trimmed";
}

TEST(Configuration, EmptyValueWinsOverTheDefault) {
  ServiceFolder folder("[QS]\nServer=\n[Other]\nk=v\n");
  EXPECT_EQ("", GetConfigurationfromInitFile("Server", "127.0.0.1", nullptr));
  EXPECT_EQ("dflt", GetConfigurationfromInitFile("Missing", "dflt", nullptr));
  EXPECT_EQ("", GetConfigurationfromInitFile("Missing", nullptr, nullptr));
  EXPECT_EQ("v", GetConfigurationfromInitFile("k", "dflt", "Other"));
  EXPECT_EQ("dflt", GetConfigurationfromInitFile("k", "dflt", "Other", (folder.dir() / "none.ini").c_str()));
}

TEST(Configuration, LongValuesAndDefaultsAreCutTo2046) {
  ServiceFolder folder("[QS]\nLong=" + std::string(3000, 'v') + "\n");
  EXPECT_EQ(std::string(2046, 'v'), GetConfigurationfromInitFile("Long", nullptr, nullptr));
  EXPECT_EQ(std::string(2046, 'd'), GetConfigurationfromInitFile("Missing", std::string(3000, 'd').c_str(), nullptr));
}

TEST(Configuration, OnlyTheServiceProcessWrites) {
  ServiceFolder folder("#note\n[QS]\nLogLevel=6\n");
  SetIfServiceProcess(false);
  SetConfigurationToInitFile("LogLevel", 14, nullptr);
  EXPECT_EQ("#note\n[QS]\nLogLevel=6\n", folder.Configuration());
  SetIfServiceProcess(true);
  SetConfigurationToInitFile("LogLevel", 14, nullptr);
  SetConfigurationToInitFile("Name", std::string("x y"), "Extra");
  EXPECT_EQ("[Extra]\nName=x y\n[QS]\nLogLevel=14\n", folder.Configuration());
}

TEST(Configuration, SignedModuleSwitchIsReadOnEveryCall) {
  ServiceFolder folder;
  EXPECT_TRUE(GetIfOnlyLoadQuintarisSignedModule());
  folder.SetConfiguration("[QS]\nOnlyLoadQuintarisSignedModule=FALSE\n");
  EXPECT_FALSE(GetIfOnlyLoadQuintarisSignedModule());
}

TEST(Configuration, UserProcessExitFlag) {
  ServiceFolder folder;
  SetIfServiceProcess(false);
  EXPECT_FALSE(GetUserProcessExitFlag(""));
  EXPECT_TRUE(SetUserProcessExitFlag("", true)) << "any process may write it";
  EXPECT_TRUE(GetUserProcessExitFlag(""));
  EXPECT_EQ("[]\nExitFlag=TRUE\n", qs_test::ReadWholeFile(g_user_config_file));
  SetUserProcessExitFlag("S-1", false);
  EXPECT_FALSE(GetUserProcessExitFlag("S-1"));
  EXPECT_EQ("[]\nExitFlag=TRUE\n[S-1]\nExitFlag=FALSE\n", qs_test::ReadWholeFile(g_user_config_file));
}

TEST(MakeSureFileCanBeWritten, NumberedFallbackForUnwritableFolders) {
  qs_test::TempDir dir;
  std::string folder = dir.path() + "/";
  EXPECT_EQ(folder + "qss.log", MakeSureFileCanBeWritten(folder, "qss.log"));
  EXPECT_TRUE(qs_test::PathExists(folder + "qss.log")) << "opened for appending, so it now exists";
  std::string missing = dir.path() + "/ro/";
  EXPECT_TRUE(std::regex_match(MakeSureFileCanBeWritten(missing, "qss.log"),
                               std::regex(dir.path() + "/ro/qss\\(-?[0-9]+\\)\\.log")));
  EXPECT_TRUE(std::regex_match(MakeSureFileCanBeWritten(missing, "a.b.log"),
                               std::regex(dir.path() + "/ro/a\\.b\\(-?[0-9]+\\)\\.log")))
      << "the number goes before the last dot";
  EXPECT_EQ(missing + "LOGFILE", MakeSureFileCanBeWritten(missing, "LOGFILE"));
}

TEST(Configuration, StartUpValuesHaveTheirGlobalsDefaults) {
  EXPECT_TRUE(GetEnableCORSAll()) << "true even before start-up";
  EXPECT_FALSE(GetEnableMultipleUserEnhancedMode());
  EXPECT_FALSE(GetEnableScannerAccessAuth());
  EXPECT_STREQ("QS", appName);
}

}  // namespace
