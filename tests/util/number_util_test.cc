#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <ctime>
#include <string>

#include "util/util.h"

namespace {

TEST(CUtilNumber, AtolSignPasses) {
  EXPECT_EQ(0, CUtil::atol("--12x")) << "cancelled minus signs end the second pass at once";
  EXPECT_EQ(0, CUtil::atol("x12"));
  EXPECT_EQ(-7, CUtil::atol("-7"));
  EXPECT_EQ(12, CUtil::atol("12x"));
  EXPECT_EQ(-12, CUtil::atol("-12"));
  EXPECT_EQ(-12, CUtil::atol("---12"));
  EXPECT_EQ(-12, CUtil::atol("-12-3")) << "the weight reaches 0, and 0 is not negative";
  EXPECT_EQ(1, CUtil::atol("1x2"));
  EXPECT_EQ(12, CUtil::atol("1234", 2));
  EXPECT_EQ(0, CUtil::atol("-"));
  EXPECT_EQ(0, CUtil::atol(nullptr));
  EXPECT_EQ(0, CUtil::atol("5", 0));
  EXPECT_EQ(5, CUtil::atol("5", 100)) << "the length stops at the terminator";
  EXPECT_DOUBLE_EQ(2.5, CUtil::atof("2.5x"));
}

TEST(CUtilNumber, HexDigitsDecodeOnlyUpperCase) {
  EXPECT_EQ(0, CUtil::ConvertHexToBinary('0'));
  EXPECT_EQ(9, CUtil::ConvertHexToBinary('9'));
  EXPECT_EQ(10, CUtil::ConvertHexToBinary('A'));
  EXPECT_EQ(15, CUtil::ConvertHexToBinary('F'));
  EXPECT_EQ(0, CUtil::ConvertHexToBinary('a')) << "lower case decodes as 0";
  EXPECT_EQ(0, CUtil::ConvertHexToBinary('f'));
  EXPECT_EQ(0, CUtil::ConvertHexToBinary(':'));
  EXPECT_EQ(0, CUtil::ConvertHexToBinary('G'));
  EXPECT_EQ(0, CUtil::ConvertHexToBinary('\xff'));
  EXPECT_EQ('0', CUtil::ConvertBinaryToHex(0));
  EXPECT_EQ('1', CUtil::ConvertBinaryToHex(1));
  EXPECT_EQ('F', CUtil::ConvertBinaryToHex(15));
  EXPECT_EQ('0', CUtil::ConvertBinaryToHex(16));
}

TEST(CUtilNumber, HexStringsAndByteArrays) {
  unsigned char out[4] = {9, 9, 9, 9};
  EXPECT_EQ(1, CUtil::ConvertHexStrToBinaryArray("ff", out));
  EXPECT_EQ(0, out[0]);
  EXPECT_EQ(1, CUtil::ConvertHexStrToBinaryArray("FF", out));
  EXPECT_EQ(0xFF, out[0]);
  out[1] = 9;
  EXPECT_EQ(1, CUtil::ConvertHexStrToBinaryArray("0A1", out)) << "an odd last character is ignored";
  EXPECT_EQ(0x0A, out[0]);
  EXPECT_EQ(9, out[1]);
  EXPECT_EQ(3, CUtil::ConvertHexStrToBinaryArray("123456", nullptr));
  EXPECT_EQ(0, CUtil::ConvertHexStrToBinaryArray(nullptr, out));

  const unsigned char bytes[] = {0x00, 0xAB, 0x10};
  char hex[8];
  memset(hex, 'z', sizeof(hex));
  EXPECT_EQ(7, CUtil::ConvertBinaryArrayToHexStr(bytes, 3, hex));
  EXPECT_STREQ("00AB10", hex);
  EXPECT_EQ(7, CUtil::ConvertBinaryArrayToHexStr(bytes, 3, nullptr));
  EXPECT_EQ(0, CUtil::ConvertBinaryArrayToHexStr(nullptr, 3, hex));
  EXPECT_TRUE(CUtil::CompareMemory("abc", "abd", 2));
  EXPECT_FALSE(CUtil::CompareMemory("abc", "abd", 3));
  EXPECT_TRUE(CUtil::CompareMemory(nullptr, "x", 0));
  EXPECT_FALSE(CUtil::CompareMemory(nullptr, "x", 1));
}

int Sniff(const std::string& bytes) {
  return CUtil::GetSupportedImageType(reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<unsigned int>(bytes.size()));
}

TEST(CUtilNumber, ImageTypeSniffing) {
  EXPECT_EQ(0, Sniff(std::string("BM\x10\x00", 4)));
  EXPECT_EQ(1, Sniff("\xFF\xD8\xFF\xE0"));
  EXPECT_EQ(2, Sniff(std::string("MM\x00\x2A", 4)));
  EXPECT_EQ(2, Sniff(std::string("II\x2A\x00", 4)));
  EXPECT_EQ(-1, Sniff(std::string("II\x00\x2A", 4)));
  EXPECT_EQ(3, Sniff("\x89PNG"));
  EXPECT_EQ(4, Sniff("%pDf"));
  EXPECT_EQ(4, Sniff("%PDF-1.7"));
  EXPECT_EQ(6, Sniff("GIF89a"));
  EXPECT_EQ(6, Sniff("GIF87a"));
  EXPECT_EQ(-1, Sniff("GIF88a"));
  EXPECT_EQ(-1, Sniff("GIF8")) << "too short for GIF";
  EXPECT_EQ(-1, Sniff("GIF89")) << "too short for GIF";
  EXPECT_EQ(-1, Sniff("BM\x10")) << "shorter than 4 bytes";
  EXPECT_EQ(-1, CUtil::GetSupportedImageType(nullptr, 10));
}

TEST(CUtilSystem, ErrorCodesTimeAndThreads) {
  EXPECT_EQ(0, CUtil::TransferSystemErrorCodeToFolivantErrorCode(0));
  EXPECT_EQ(-3002, CUtil::TransferSystemErrorCodeToFolivantErrorCode(2));
  EXPECT_EQ(-3013, CUtil::TransferSystemErrorCodeToFolivantErrorCode(13));
  EXPECT_FALSE(CUtil::IsWow64());

  time_t now = time(nullptr);
  _SYSTEMTIME st = CUtil::GetLocalTime();
  tm local{};
  localtime_r(&now, &local);
  EXPECT_EQ(local.tm_year + 1900, st.wYear);
  EXPECT_EQ(local.tm_mon + 1, st.wMonth);
  EXPECT_EQ(local.tm_mday, st.wDay);
  EXPECT_EQ(0, st.wDayOfWeek);
  EXPECT_EQ(0, st.wMilliseconds);

  static bool ran = false;
  pthread_t thread;
  pthread_create(&thread, nullptr, [](void*) -> void* { ran = true; return nullptr; }, nullptr);
  CUtil::WaitForThreadDone(&thread, 0);
  EXPECT_TRUE(ran);
  CUtil::WaitForThreadDone(nullptr, 0);
}

}  // namespace
