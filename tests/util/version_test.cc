#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "util/util.h"
#include "util/version.h"

namespace {

std::string Normalize(const char* input, bool* ok = nullptr) {
  char out[11];
  memset(out, 'z', sizeof(out));
  bool result = CUtil::NormalizeVersion(input, out);
  if (ok != nullptr) *ok = result;
  return out;
}

TEST(NormalizeVersion, ReadsTheInputByItsLength) {
  bool ok = true;
  EXPECT_EQ("", Normalize("123456", &ok));
  EXPECT_FALSE(ok);
  EXPECT_EQ("0102034567", Normalize("1234567", &ok));
  EXPECT_TRUE(ok);
  EXPECT_EQ("1203045678", Normalize("12345678"));
  EXPECT_EQ("1234056789", Normalize("123456789"));
  EXPECT_EQ("1234567890", Normalize("1234567890"));
  EXPECT_EQ("1234569012", Normalize("123456789012"));
  EXPECT_EQ("0108030509", Normalize("1830509"));
  EXPECT_EQ("1600030509", Normalize("16030509"));
  EXPECT_EQ("1610030509", Normalize("161030509"));
  EXPECT_EQ("0a0b0cdefg", Normalize("abcdefg")) << "characters are copied unchecked";
  EXPECT_EQ("", Normalize(nullptr, &ok));
  EXPECT_FALSE(ok);
}

TEST(Identifiers, HexPairsNeverReachFf) {
  for (int i = 0; i < 2000; ++i) ASSERT_LT(random_char(), 255u);
  std::string hex = generate_hex(5000);
  ASSERT_EQ(10000u, hex.size());
  for (size_t i = 0; i < hex.size(); i += 2) {
    ASSERT_NE("ff", hex.substr(i, 2));
  }
  EXPECT_EQ(std::string::npos, hex.find_first_not_of("0123456789abcdef"));
  EXPECT_EQ("", generate_hex(0));
}

TEST(Identifiers, CreateUUIDWrites32HexDigitsIntoAZeroedBuffer) {
  char out[1024];
  memset(out, 'z', sizeof(out));
  EXPECT_EQ(32, CUtil::CreateUUID(out));
  std::string id(out);
  EXPECT_EQ(32u, id.size());
  EXPECT_EQ(std::string::npos, id.find_first_not_of("0123456789abcdef"));
  for (int i = 32; i < 1024; ++i) ASSERT_EQ('\0', out[i]);
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    CUtil::CreateUUID(out);
    seen.insert(out);
  }
  EXPECT_EQ(100u, seen.size());
}

}  // namespace
