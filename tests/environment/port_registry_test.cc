// Per-user ports in the user file, named port lists in the system file, and
// the port text search.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "environment/port_registry.h"
#include "tests/environment/service_folder.h"

namespace {

using qs_test::ReadWholeFile;
using qs_test::WriteFile;
using PortMap = std::map<std::string, int>;

// Both configuration files in a fresh folder, running as the service with
// empty in-memory lists; the mode and the lists are put back afterwards.
class PortRegistryTest : public testing::Test {
 protected:
  PortRegistryTest() {
    g_mapSSLPortInMem.clear();
    g_mapNoSSLPortInMem.clear();
    SetIfServiceProcess(true);
    SetProgramMode(WorkModeService);
  }
  ~PortRegistryTest() override {
    SetProgramMode(savedMode_);
    g_mapSSLPortInMem = savedSsl_;
    g_mapNoSSLPortInMem = savedPlain_;
  }
  // The "key=value" lines of a file, without their order.
  static std::set<std::string> Entries(const std::string& file) {
    std::set<std::string> entries;
    std::istringstream in(ReadWholeFile(file));
    for (std::string line; std::getline(in, line);) {
      if (line.find('=') != std::string::npos) entries.insert(line);
    }
    return entries;
  }
  WorkMode savedMode_ = GetProgramMode();
  PortMap savedSsl_ = g_mapSSLPortInMem, savedPlain_ = g_mapNoSSLPortInMem;
  qs_test::ServiceFolder folder_;
};

TEST_F(PortRegistryTest, PerUserPortsUseTheSectionAndTheSuffixedKeys) {
  WriteFile(g_user_config_file,
            "[S-1]\nkxp=18625\nkxp_def=18993\nkxp_ssl=18626\nkxp_ssl_def=18994\nfvt=12abc\n[S-2]\nkxp_ssl=1\n");
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
  EXPECT_EQ(18625, GetPort("S-1", "fvt", false, false));
  EXPECT_EQ(18625, GetPort("S-1", "fvt", true, false));
  EXPECT_EQ(0, GetPort("", "kxp", true, true)) << "no default without bDefault";
  EXPECT_NE(std::string::npos, ReadWholeFile(g_user_config_file).find("[]\nkxp_ssl=18994\n"));
  EXPECT_FALSE(qs_test::PathExists(g_init_file));
}

TEST_F(PortRegistryTest, ReadUserSSLPortOnlyInTheUserProcessMode) {
  WriteFile(g_user_config_file, "[]\nkxp=11\nkxp_ssl=30000\nfvt_ssl=0\nkxs_ssl=20000\n[S-1]\nfvt_ssl=40000\n");
  EXPECT_TRUE(ReadUserSSLPort().empty());
  SetProgramMode(WorkModeUserProcess);
  // Prefix order kxp, fvt, kxs; zeros and other sections left out.
  EXPECT_EQ((std::vector<int>{30000, 20000}), ReadUserSSLPort());
}

TEST_F(PortRegistryTest, ReadPortHonoursTheCountOnlyWhenAsked) {
  WriteFile(g_init_file, "[QS]\nSSLPort=0\nSSLPort_mn_0=a\nSSLPort_mp_0=18626\nSSLPort_mn_1=b\nSSLPort_mp_1=18994\n");
  EXPECT_TRUE(ReadPort("SSLPort", true).empty());
  EXPECT_EQ((PortMap{{"a", 18626}, {"b", 18994}}), ReadSSLPort(false));
  EXPECT_TRUE(ReadNoSSLPort(false).empty());
  EXPECT_EQ(0, GetSSLPort("a", true));
  EXPECT_EQ(18994, GetSSLPort("b", false));
  g_mapSSLPortInMem["m"] = 5;
  EXPECT_EQ(0, GetSSLPort("m", false)) << "the in-memory list is never consulted";

  // Reading stops at the first empty name; a later duplicate name wins.
  WriteFile(g_init_file,
            "[QS]\nPort=5\nPort_mn_0=a\nPort_mp_0=1\nPort_mn_1=a\nPort_mp_1=2\nPort_mn_3=d\nPort_mp_3=4\n");
  EXPECT_EQ((PortMap{{"a", 2}}), ReadNoSSLPort(true));

  // Without the count at most ten entries are read.
  std::string text = "[QS]\nPort=20\n";
  for (int i = 0; i < 20; ++i) {
    text += "Port_mn_" + std::to_string(i) + "=p" + std::to_string(i) + "\n";
    text += "Port_mp_" + std::to_string(i) + "=" + std::to_string(1000 + i) + "\n";
  }
  WriteFile(g_init_file, text);
  const PortMap first10 = ReadPort("Port", false);
  EXPECT_EQ(10u, first10.size());
  EXPECT_EQ(1009, first10.at("p9"));
  EXPECT_EQ(0, GetNoSSLPort("p10", false));
  EXPECT_EQ(1019, GetNoSSLPort("p19", true));
}

TEST_F(PortRegistryTest, SetSSLPortWritesTheWholeListAndOnlyTheServiceWrites) {
  // Another process keeps the entry in memory only; the service's next write
  // carries it along.
  SetIfServiceProcess(false);
  SetSSLPort(18626, "a");
  EXPECT_FALSE(qs_test::PathExists(g_init_file));
  SetIfServiceProcess(true);
  SetSSLPort(18994, "b");
  EXPECT_EQ((std::set<std::string>{"SSLPort=2", "SSLPort_mn_0=a", "SSLPort_mp_0=18626", "SSLPort_mn_1=b",
                                   "SSLPort_mp_1=18994"}),
            Entries(g_init_file));
  EXPECT_EQ(0u, ReadWholeFile(g_init_file).find("[QS]\n"));
  SetNoSSLPort(18625, "kxp");
  EXPECT_EQ(8u, Entries(g_init_file).size()) << "the plain list adds its own three keys";
  EXPECT_EQ(18625, GetNoSSLPort("kxp", true));
}

TEST_F(PortRegistryTest, AShorterListLeavesStaleEntriesThatOnlyTheCountHides) {
  SavePort(PortMap{{"a", 1}, {"b", 2}, {"c", 3}}, "Port");
  SavePort(PortMap{{"z", 26}}, "Port");
  EXPECT_EQ((PortMap{{"z", 26}}), ReadPort("Port", true));
  EXPECT_EQ((PortMap{{"z", 26}, {"b", 2}, {"c", 3}}), ReadPort("Port", false));
  // An empty map writes nothing, not even the count.
  const std::string before = ReadWholeFile(g_init_file);
  SavePort(PortMap{}, "Port");
  EXPECT_EQ(before, ReadWholeFile(g_init_file));
}

TEST_F(PortRegistryTest, PortIsUsedIsASubstringTestUpToTheFirstZeroByte) {
  const std::string file = folder_.dir() / "ports.txt";
  WriteFile(file, std::string("listen 18625\n\0" "18994", 19));
  EXPECT_TRUE(PortIsUsed(file, 18625));
  EXPECT_TRUE(PortIsUsed(file, 8625));
  EXPECT_FALSE(PortIsUsed(file, 18626));
  EXPECT_FALSE(PortIsUsed(file, 18994)) << "a 0 byte ends the searched text";
  EXPECT_FALSE(PortIsUsed(folder_.dir() / "missing.txt", 1));
  EXPECT_FALSE(PortIsUsed(18625));
  // A folder or a FIFO at the path reads as no file, at once.
  EXPECT_FALSE(PortIsUsed(folder_.dir().path(), 1));
  const std::string fifo = folder_.dir() / "fifo";
  mkfifo(fifo.c_str(), 0666);
  EXPECT_FALSE(PortIsUsed(fifo, 1));
}

}  // namespace
