#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "environment/port_registry.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "tests/common/temp_dir.h"
#include "util/win_string.h"

namespace {

using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;
using PortMap = std::map<std::string, int>;

// Points both configuration files and the log at a fresh folder; every global
// the registry touches is put back afterwards, so the cases run in any order.
class PortRegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    g_init_file = system_file();
    lstrcpyn(g_szIniFile, g_init_file.c_str(), sizeof(g_szIniFile));
    g_user_config_file = user_file();
    g_log_file = dir_ / "qss.log";
    g_mapSSLPortInMem.clear();
    g_mapNoSSLPortInMem.clear();
    SetIfServiceProcess(true);
    SetProgramMode(WorkModeService);
  }
  void TearDown() override {
    g_init_file = saved_init_;
    lstrcpyn(g_szIniFile, saved_ini_.c_str(), sizeof(g_szIniFile));
    g_user_config_file = saved_user_;
    g_log_file = saved_log_;
    SetIfServiceProcess(saved_service_);
    SetProgramMode(saved_mode_);
    g_mapSSLPortInMem = saved_ssl_;
    g_mapNoSSLPortInMem = saved_plain_;
  }

  std::string system_file() const { return dir_ / "QSConfiguration.ini"; }
  std::string user_file() const { return dir_ / "user_config.ini"; }

  // The "key=value" lines of a file, without their order.
  static std::set<std::string> Entries(const std::string& file) {
    std::set<std::string> entries;
    std::istringstream in(ReadWholeFile(file));
    for (std::string line; std::getline(in, line);) {
      if (line.find('=') != std::string::npos) entries.insert(line);
    }
    return entries;
  }

  TempDir dir_;

 private:
  std::string saved_init_ = g_init_file;
  std::string saved_ini_ = g_szIniFile;
  std::string saved_user_ = g_user_config_file;
  std::string saved_log_ = g_log_file;
  bool saved_service_ = GetIfServiceProcess();
  WorkMode saved_mode_ = GetProgramMode();
  PortMap saved_ssl_ = g_mapSSLPortInMem;
  PortMap saved_plain_ = g_mapNoSSLPortInMem;
};

// ---- Per-user ports ----------------------------------------------------------------

TEST_F(PortRegistryTest, PerUserPortsUseTheSectionAndTheSuffixedKeys) {
  WriteFile(user_file(), "[S-1]\nkxp=18625\nkxp_def=18993\nkxp_ssl=18626\nkxp_ssl_def=18994\nfvt=12abc\n[S-2]\nkxp_ssl=1\n");
  EXPECT_EQ(18625, GetPort("S-1", "kxp", false, false));
  EXPECT_EQ(18993, GetPort("S-1", "kxp", true, false));
  EXPECT_EQ(18626, GetPort("S-1", "kxp", false, true));
  EXPECT_EQ(18994, GetPort("S-1", "kxp", true, true));
  EXPECT_EQ(1, GetPort("S-2", "kxp", false, true));
  EXPECT_EQ(12, GetPort("S-1", "fvt", false, false));
  EXPECT_EQ(0, GetPort("S-1", "kxs", false, true));

  // Any process writes its own ports; the empty SID is the section "[]".
  SetIfServiceProcess(false);
  SavePort("S-1", "fvt", true, false, 18625);
  SavePort("", "kxp", false, true, 18994);
  const std::set<std::string> entries = Entries(user_file());
  EXPECT_EQ(1u, entries.count("fvt=18625"));
  EXPECT_EQ(1u, entries.count("fvt_def=18625"));
  EXPECT_EQ(1u, entries.count("kxp_ssl=18994"));
  EXPECT_EQ(0, GetPort("", "kxp", true, true)) << "no default without bDefault";
  EXPECT_EQ(18625, GetPort("S-1", "fvt", true, false));
  EXPECT_EQ(18994, GetPort("", "kxp", false, true));
  EXPECT_NE(std::string::npos, ReadWholeFile(user_file()).find("[]\n"));
  EXPECT_FALSE(qs_test::PathExists(system_file()));
}

TEST_F(PortRegistryTest, ReadUserSSLPortOnlyInTheUserProcessMode) {
  WriteFile(user_file(), "[]\nkxp=11\nkxp_ssl=30000\nfvt_ssl=0\nkxs_ssl=20000\n[S-1]\nfvt_ssl=40000\n");
  EXPECT_TRUE(ReadUserSSLPort().empty());
  SetProgramMode(WorkModeUserProcess);
  // Prefix order kxp, fvt, kxs; zeros and other sections left out.
  EXPECT_EQ((std::vector<int>{30000, 20000}), ReadUserSSLPort());
}

// ---- Named port lists --------------------------------------------------------------

TEST_F(PortRegistryTest, ReadPortHonoursTheCountOnlyWhenAsked) {
  WriteFile(system_file(), "[QS]\nSSLPort=0\nSSLPort_mn_0=a\nSSLPort_mp_0=18626\nSSLPort_mn_1=b\nSSLPort_mp_1=18994\n");
  EXPECT_TRUE(ReadPort("SSLPort", true).empty());
  EXPECT_EQ((PortMap{{"a", 18626}, {"b", 18994}}), ReadSSLPort(false));
  EXPECT_TRUE(ReadNoSSLPort(false).empty());
  EXPECT_EQ(0, GetSSLPort("a", true));
  EXPECT_EQ(18994, GetSSLPort("b", false));

  // Reading stops at the first empty name; a later duplicate name wins.
  WriteFile(system_file(), "[QS]\nPort=5\nPort_mn_0=a\nPort_mp_0=1\nPort_mn_1=a\nPort_mp_1=2\nPort_mn_3=d\nPort_mp_3=4\n");
  EXPECT_EQ((PortMap{{"a", 2}}), ReadNoSSLPort(true));
  EXPECT_EQ(0, GetNoSSLPort("d", false));

  // The in-memory maps are never consulted.
  g_mapSSLPortInMem["m"] = 5;
  EXPECT_EQ(0, GetSSLPort("m", false));
}

TEST_F(PortRegistryTest, ReadPortWithoutCountStopsAtTenEntries) {
  std::string text = "[QS]\nPort=20\n";
  for (int i = 0; i < 20; ++i) {
    text += "Port_mn_" + std::to_string(i) + "=p" + std::to_string(i) + "\n";
    text += "Port_mp_" + std::to_string(i) + "=" + std::to_string(1000 + i) + "\n";
  }
  WriteFile(system_file(), text);
  PortMap first10 = ReadPort("Port", false);
  EXPECT_EQ(10u, first10.size());
  EXPECT_EQ(1009, first10["p9"]);
  EXPECT_EQ(0u, first10.count("p10"));
  EXPECT_EQ(20u, ReadPort("Port", true).size());
  EXPECT_EQ(1019, GetNoSSLPort("p19", true));
}

TEST_F(PortRegistryTest, SetSSLPortWritesTheWholeMapWithCountAndEntries) {
  SetSSLPort(18626, "a");
  SetSSLPort(18994, "b");
  EXPECT_EQ((std::set<std::string>{"SSLPort=2", "SSLPort_mn_0=a", "SSLPort_mp_0=18626", "SSLPort_mn_1=b",
                                   "SSLPort_mp_1=18994"}),
            Entries(system_file()));
  EXPECT_EQ(0u, ReadWholeFile(system_file()).find("[QS]\n"));

  SetNoSSLPort(18625, "kxp");
  EXPECT_EQ(8u, Entries(system_file()).size()) << "the plain list adds its own three keys";
  EXPECT_EQ(18625, GetNoSSLPort("kxp", true));
}

TEST_F(PortRegistryTest, OnlyTheServiceProcessWritesTheLists) {
  SetIfServiceProcess(false);
  SetSSLPort(18626, "a");
  EXPECT_FALSE(qs_test::PathExists(system_file()));
  // The memory keeps the entry, so the service's next write carries it along.
  SetIfServiceProcess(true);
  SetSSLPort(18994, "b");
  EXPECT_EQ((PortMap{{"a", 18626}, {"b", 18994}}), ReadSSLPort(true));
}

TEST_F(PortRegistryTest, AShorterListLeavesStaleEntriesThatOnlyTheCountHides) {
  SavePort(PortMap{{"a", 1}, {"b", 2}, {"c", 3}}, "Port");
  SavePort(PortMap{{"z", 26}}, "Port");
  EXPECT_EQ((PortMap{{"z", 26}}), ReadPort("Port", true));
  EXPECT_EQ((PortMap{{"z", 26}, {"b", 2}, {"c", 3}}), ReadPort("Port", false));

  // An empty map writes nothing, not even the count.
  const std::string before = ReadWholeFile(system_file());
  SavePort(PortMap{}, "Port");
  EXPECT_EQ(before, ReadWholeFile(system_file()));
}

// ---- Port text search ------------------------------------------------------------

TEST_F(PortRegistryTest, PortIsUsedIsASubstringTestUpToTheFirstZeroByte) {
  const std::string file = dir_ / "ports.txt";
  WriteFile(file, std::string("listen 18625\n\0" "18994", 19));
  EXPECT_TRUE(PortIsUsed(file, 18625));
  EXPECT_TRUE(PortIsUsed(file, 8625));
  EXPECT_FALSE(PortIsUsed(file, 18626));
  EXPECT_FALSE(PortIsUsed(file, 18994)) << "a 0 byte ends the searched text";
  EXPECT_FALSE(PortIsUsed(dir_ / "missing.txt", 1));
  EXPECT_FALSE(PortIsUsed(18625));
}

}  // namespace
