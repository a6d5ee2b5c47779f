// CUtil and its neighbours, one table per helper: what each returns for the
// inputs whose answers are surprising and part of the contract. What the fuzz
// targets check as properties (the memory buffer against a model, IDN size
// queries and capacities, the scanners' invariants) is not repeated here.
#include <gtest/gtest.h>
#include <unistd.h>
#include <utf8cpp/utf8.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/global_memory.h"
#include "tests/common/temp_dir.h"
#include "util/mem_buffer.h"
#include "util/punycode.h"
#include "util/util.h"
#include "util/version.h"
#include "util/win_string.h"

namespace {

using qs_test::PathExists;
using qs_test::TempDir;
using qs_test::WriteFile;

TEST(CUtil, ScannersEditorsNumbersAndWideText) {
  const struct { const char* text; const char* pattern; long from; unsigned to; signed char cs; int pos; } finds[] = {
      {"aaab", "aab", 0, 4, 1, -1},    // the search restarts at the mismatching character
      {"aab", "ab", 0, 3, 1, 1},
      {"ABC", "abc", 0, 3, 1, -1}, {"ABC", "abc", 0, 3, 0, 0}, {"[]", "{}", 0, 2, 0, -1},  // only A-Z fold
      {"abc", "", 0, 3, 1, -1}, {"abcabc", "abc", 1, 5, 1, -1},  // the match must end before `to`
      {"abcabc", "a", 1, 1000, 1, 3},  // a range past the end stops at the terminator
  };
  for (const auto& f : finds) EXPECT_EQ(f.pos, CUtil::GetStringPos(f.text, f.pattern, f.from, f.to, f.cs)) << f.text;
  char text[] = " \t a-b \t ", path[] = "/opt/q/file.txt", sub[3][8] = {"zz", "zz", "zz"}, url[8];
  // UrlDecode reads either case of a hex digit; RemoveChar gives the length before removal.
  CUtil::Trim(text), CUtil::TrimWindowsFileName(path), CUtil::ReplaceChar(path, '/', '\\'), CUtil::UrlDecode("%4a+%3F", url);
  // A negative start copies nothing, not even the byte before.
  CUtil::SubString("abcdef", 2, 3, sub[0]), CUtil::SubString(&"xabc"[1], -1, 2, sub[1]), CUtil::SubString("a", 1, 0, sub[2]);
  std::string narrow = "xaxa", back, values, digitsOut;  // the search resumes after each inserted replacement
  std::wstring wide = L"xaxa", broken, cut = L"old", none = L"old";
  CUtil::find_and_replace(narrow, "a", "aa"), CUtil::find_and_replace(wide, L"xa", L"y");
  EXPECT_TRUE(narrow == "xaaxaa" && wide == L"yy") << narrow;
  unsigned char binary[2] = {9, 9};
  char hex[8] = "#######", trim[3][5] = {"ab--", "ab", "--"};  // terminators must come from the call
  const auto* digits = reinterpret_cast<const unsigned char*>("12a");
  const std::string abc = "abc", abd = "abd";  // two distinct buffers
  // An odd last hex digit is ignored, lower case decodes as 0 (kept); leading
  // minus signs that cancel end the number at once (kept).
  const std::pair<long, long> rows[] = {  // {expected, result}
      {3, CUtil::RemoveChar(text, '-')}, {3, CUtil::ReverseFindChar("a/b/c", '/')}, {3, CUtil::Find("abca", 'a', 1)},
      {-1, CUtil::Find(nullptr, 'a', 0)}, {-1, CUtil::Find("abc", 'a', -1)}, {-1, CUtil::Find("abc", 'a', 3)},
      {2, CUtil::FindFirstNumPos("ab0", 3)}, {2, CUtil::FindFirstNumPos("ab9", 9)}, {-1, CUtil::FindFirstNumPos("ab1", 2)},
      {-1, CUtil::FindFirstNumPos(0, 1)}, {0, CUtil::GetStringCount("", ',')}, {1, CUtil::GetStringPos("abc", "B", 0)},
      {0, CUtil::CountLine(nullptr)}, {2, CUtil::CountLine("a\r\n\r\nb")}, {1, CUtil::CountLine("a\r\n\r\n")},
      {1, CUtil::TrimRight(trim[0], '-')}, {0, strcmp(trim[0], "ab")}, {1, CUtil::TrimRight(trim[1], '-')},
      {-1, CUtil::TrimRight(trim[2], '-')}, {-1, CUtil::TrimRight(nullptr, '-')}, {0, CUtil::ReverseFindChar("/ab", '/')},
      {0, CUtil::AllIsNumber(nullptr, 1)}, {1, CUtil::AllIsNumber(digits, 2)}, {0, CUtil::AllIsNumber(digits, 3)},
      {1, CUtil::AllIsNumber(digits + 2, 0)}, {1, CUtil::CompareMemory(nullptr, "a", 0)}, {0, CUtil::IsWow64()},
      {1, CUtil::CompareMemory(abc.data(), abd.data(), 2)}, {0, CUtil::CompareMemory(abc.data(), abd.data(), 3)},
      {0, CUtil::CompareMemory(nullptr, "a", 1)}, {0, CUtil::CompareMemory("a", nullptr, 1)}, {0, CUtil::atol("x12")},
      {1, CUtil::ConvertHexStrToBinaryArray("1A2", binary)}, {0x1A, binary[0]}, {0, CUtil::atol("--12x")},
      {1, CUtil::ConvertHexStrToBinaryArray("ff", binary)}, {0, binary[0]}, {-12, CUtil::atol("-12x3")},
      {5, CUtil::ConvertBinaryArrayToHexStr(reinterpret_cast<const unsigned char*>("\x1A\xF0"), 2, hex)},
      {0, strcmp("1AF0", hex)}, {0, CUtil::ConvertBinaryArrayToHexStr(nullptr, 2, hex)}, {-7, CUtil::atol("-7")},
      {12, CUtil::atol("12x")}, {123, CUtil::atol("123")}, {0, CUtil::TransferSystemErrorCodeToFolivantErrorCode(0)},
      {-3002, CUtil::TransferSystemErrorCodeToFolivantErrorCode(2)}, {25, static_cast<long>(CUtil::atof("2.5") * 10)},
      {1, CUtil::GetLocalTime().wYear >= 2024}, {0, CUtil::GetLocalTime().wMilliseconds}};
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
  EXPECT_EQ("ab \\opt\\q\\ cde|| J ?", std::string(text) + " " + path + " " + sub[0] + "|" + sub[1] + "|" + sub[2] + " " + url);

  // Fields are blocks of their own (length + 1), an empty last field is not one.
  char** fields = nullptr;
  unsigned int count = 0;
  ASSERT_TRUE(CUtil::SplitString("a,,b,", ',', &fields, &count) && count == 3);
  EXPECT_EQ("a||b 2", std::string(fields[0]) + "|" + fields[1] + "|" + fields[2] + " " + std::to_string(GlobalSize(fields[0])));
  CUtil::FreeSplitStringRet(fields, count);
  EXPECT_FALSE(CUtil::SplitString(nullptr, ',', &fields, &count));
  std::string uuid(1024, 'z');  // the buffer is zeroed whole: 1024 bytes
  EXPECT_EQ((std::vector<size_t>{32, 32, 32}), (std::vector<size_t>{size_t(CUtil::CreateUUID(&uuid[0])),
                                                                    strspn(uuid.c_str(), "0123456789abcdef"), strlen(uuid.c_str())}));
  // The input's length decides the reading: M m p, MM m p, MM mm p, MM mm pp.
  for (const char* pair : {"123456=", "1234567=0102034567", "12345678=1203045678", "123456789=1234056789",
                           "1234567890=1234567890", "123456789012=1234569012"}) {
    char out[11] = "zzzzzzzzzz";
    const std::string input(pair, strchr(pair, '=')), expected = strchr(pair, '=') + 1;
    EXPECT_EQ(!expected.empty(), CUtil::NormalizeVersion(input.c_str(), out));
    EXPECT_EQ(expected, out);
  }
  for (char c : std::string("0123456789:ABCDEFaG")) values += "0123456789abcdef"[CUtil::ConvertHexToBinary(c)];
  EXPECT_EQ("01234567890abcdef00", values) << "lower case decodes as 0 (kept)";
  for (int v = 0; v <= 16; ++v) digitsOut += CUtil::ConvertBinaryToHex(static_cast<unsigned char>(v));
  EXPECT_EQ("0123456789ABCDEF0", digitsOut);
  CUtil::WaitForThreadDone(nullptr, 0);  // no thread: nothing to join
  const std::pair<std::string, int> sniffed[] = {
      {"\xFF\xD8..", 1}, {"\x89PNG", 3}, {"BM..", 0}, {std::string("MM\0*", 4), 2}, {std::string("II*\0", 4), 2},
      {"%PdF", 4}, {"GIF89a", 6}, {"GIF87a", 6}, {"GIF88a", -1}, {"GIF8", -1}, {"\xFF\xD8.", -1}, {"\x89PNx", -1},
      {"\x89xNG", -1}, {std::string("IIx\0", 4), -1}, {"II*x", -1}, {"%Pdx", -1}, {"%xDF", -1}, {"GIx89a", -1}};
  for (const auto& [bytes, type] : sniffed)
    EXPECT_EQ(type, CUtil::GetSupportedImageType(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
  // (Code points beyond the basic plane reach IdnToAscii's vectors.) Each byte
  // of a broken sequence, and a lone surrogate, becomes U+FFFD.
  CUtil::UTF8toUnicode("a\xFF" "b\xE4\xB8", broken);
  EXPECT_EQ((std::wstring{L'a', 0xFFFD, L'b', 0xFFFD, 0xFFFD}), broken);
  CUtil::UnicodeToUTF8(std::wstring{L'x', wchar_t(0xD800)}.c_str(), back);
  EXPECT_EQ("x\xEF\xBF\xBD", back);
  CUtil::UTF8toUnicode("ab\xC3\xBC" "c", 4, cut), CUtil::UTF8toUnicode(nullptr, 3, none);
  EXPECT_TRUE(cut == L"ab\u00FC" && none.empty()) << "the length cuts; the earlier text is replaced";
  // Blocks: a copy with its terminator, and 3 zeroed wide characters per byte.
  char* copy = CUtil::UTF8ToAscii("h\xC3\xA9");
  wchar_t* block = CUtil::ConvertUTF8toUnicode("a\xC3\xBC", 3);
  EXPECT_EQ(std::string("h\xC3\xA9", 4), std::string(copy, GlobalSize(copy)));
  EXPECT_EQ(std::wstring(L"a\u00FC\0", 3) + L"36", std::wstring(block, 3) + std::to_wstring(GlobalSize(block)));
  GlobalFree(copy), GlobalFree(block);
  EXPECT_TRUE(CUtil::ConvertUTF8toUnicode("a", 0) == nullptr && CUtil::UTF8ToAscii(nullptr) == nullptr);
  unsigned char bytes[8] = "zzzzzzz";  // count - 1 characters, nothing past count; also from unsigned text
  EXPECT_EQ(0, memcmp(lstrcpyn(bytes, "abcdef", 4), "abc\0z", 5));
  EXPECT_STREQ("xy", reinterpret_cast<char*>(lstrcpyn(bytes, reinterpret_cast<const unsigned char*>("xyz"), 3)));
}

TEST(CUtilFiles, FoldersCopiesAndCodes) {
  TempDir dir;
  EXPECT_TRUE(CUtil::CreateDirectory((dir / "a/b/c.txt").c_str())) << "the folders before the file name";
  EXPECT_TRUE(qs_test::IsFolder(dir / "a/b") && !PathExists(dir / "a/b/c.txt"));
  WriteFile(dir / "blocker", "x");
  EXPECT_FALSE(CUtil::CreateDirectory((dir / "blocker/sub/f").c_str()));
  // The copy goes through CopyFile, whose successful read writes nothing:
  // folders are made, no file is written, and it reports success.
  WriteFile(dir / "a/b/deep.txt", "deep");
  const long descriptors = qs_test::OpenDescriptors();
  const size_t blocks = gmapMemSize.size();
  EXPECT_TRUE(CUtil::CopyDirectoryFiles((dir / "a/").c_str(), (dir / "to").c_str(), 1));
  EXPECT_TRUE(qs_test::IsFolder(dir / "to/b") && !PathExists(dir / "to/b/deep.txt"));
  // Folders that cannot be made under a file, for a file and for a sub-folder.
  EXPECT_FALSE(CUtil::CopyDirectoryFiles((dir / "a/b").c_str(), (dir / "blocker/x").c_str(), 0) ||
               CUtil::CopyDirectoryFiles((dir / "a").c_str(), (dir / "blocker/x").c_str(), 1));
  for (const auto& [path, isFile, code] : std::vector<std::tuple<std::string, int, long>>{
           {"none", 1, -3002}, {"none", 0, -3003}, {"a", 1, -2418}, {"blocker", 0, -1017}, {"blocker", 1, 0}, {"a", 0, 0}})
    EXPECT_EQ(code, CUtil::FileFolderExists((dir / path).c_str(), isFile, 1)) << path << isFile;
  EXPECT_TRUE(CUtil::DeleteDirectory((dir / "a").c_str(), 1) && !PathExists(dir / "a"));
  EXPECT_FALSE(CUtil::DeleteDirectory((dir / "a").c_str(), 1) || CUtil::DeleteDirectory("/proc/self/task", 0))
      << "gone, or entries that cannot be removed";
  const unsigned char hello[] = {'h', 'e', 'l', 'l', 'o'};
  const std::string saved = dir / "new/f.bin";
  // An offset writes into the file, which must exist.
  EXPECT_EQ((std::vector<long>{0, 0, 16}), (std::vector<long>{CUtil::SaveDataToFileInner(saved.c_str(), hello, 5, 0),
                                                                CUtil::SaveDataToFileInner(saved.c_str(), hello, 2, 3),
                                                                CUtil::SaveDataToFileInner((dir / "absent").c_str(), hello, 5, 2)}));
  EXPECT_EQ("helhe", qs_test::ReadWholeFile(saved));
  EXPECT_EQ(0, CUtil::SaveDataToFileInner(saved.c_str(), hello + 3, 2, 0)) << "no offset: the file is replaced";
  unsigned int size = 99;
  long codes[3] = {99, 99, 99};  // loaded, missing, a folder (which cannot be read)
  unsigned char* loaded = CUtil::LoadFileToMemoryInner(saved.c_str(), &size, &codes[0]);
  EXPECT_EQ("lo", std::string(reinterpret_cast<char*>(loaded), size));
  GlobalFree(loaded), GlobalFree(CUtil::LoadFileToMemoryInner(saved.c_str(), nullptr, nullptr));
  EXPECT_TRUE(!CUtil::LoadFileToMemoryInner((dir / "none").c_str(), nullptr, &codes[1]) &&
              !CUtil::LoadFileToMemoryInner(dir.path().c_str(), nullptr, &codes[2]));
  EXPECT_EQ((std::vector<long>{0, 16, 16}), std::vector<long>(codes, codes + 3));
  EXPECT_EQ(blocks, gmapMemSize.size()) << "a failed read frees its block";
  EXPECT_EQ(descriptors, qs_test::OpenDescriptors()) << "every folder and file read is closed";
  char resources[1024];  // members kept for the shared interface: no application folder
  CUtil::GetResourcePath(resources);
  EXPECT_EQ("/Quintaris/ 0", std::string(resources) + " " +
                                 std::to_string(CUtil::GetAppliationFolder(resources, 0) + CUtil::GetFileSize(saved.c_str()) +
                                                CUtil::ReadFileByName(saved.c_str(), nullptr, nullptr) +
                                                CUtil::ReadFile(nullptr, nullptr, nullptr)));
}

// ---- The memory buffer -------------------------------------------------------------

// Records which virtual slots internal calls go through.
class Recording : public CMemBuffer {
 public:
  using CMemBuffer::CMemBuffer;
  ~Recording() override { Close(); }
  unsigned char* Alloc(unsigned int size) override { return calls += "A", CMemBuffer::Alloc(size); }
  unsigned char* Realloc(unsigned char* old, unsigned int size) override { return calls += "R", CMemBuffer::Realloc(old, size); }
  unsigned int Write(const void* buffer, unsigned int n) override { return calls += "W", CMemBuffer::Write(buffer, n); }
  unsigned int Read(void* buffer, unsigned int count) override { return calls += "r", CMemBuffer::Read(buffer, count); }
  std::vector<ptrdiff_t> Offsets() const {
    auto at = [this](const void* field) { return static_cast<const char*>(field) - reinterpret_cast<const char*>(this); };
    return {at(&m_nGrowBy), at(&m_nPosition), at(&m_nCapacity), at(&m_nLength), at(&m_pBuffer), at(&m_bAutoDelete),
            at(&m_hMemory)};
  }
  std::string calls;
};

TEST(MemBuffer, ExportedLayoutAndVirtualSlots) {
  EXPECT_EQ(48u, sizeof(CMemBuffer));
  Recording file(16);
  EXPECT_EQ((std::vector<ptrdiff_t>{8, 12, 16, 20, 24, 32, 40}), file.Offsets());
  EXPECT_TRUE(file.WriteString("abc") && file.WriteString("defghijklmnopqrstu"));
  EXPECT_EQ("WAWWWR", file.calls.substr(0, 6)) << "records go through Write, growth through Alloc and Realloc";
  // Records over a caller's block ("abc", "", a length of 9 with 2 bytes left):
  // without growth its bytes are the file, and Close frees it.
  auto* block = static_cast<unsigned char*>(GlobalAlloc(0, 17));
  memcpy(block, "\3\0\0\0abc\0\0\0\0\x09\0\0\0xy", 17);
  CMemBuffer view(block, 17, 1, 0);
  auto read = [&view](int at, bool allocate, int offset, int max) {
    char buffer[8] = "#######", *text = allocate ? nullptr : buffer;
    std::string out = std::to_string(view.Seek(at, 0) == static_cast<unsigned>(at) && view.ReadStringEx(&text, offset, max));
    out += text == nullptr ? " null" : " " + std::string(text) + (allocate ? "/" + std::to_string(GlobalSize(text)) : "");
    return GlobalFree(allocate ? text : nullptr), out + " @" + std::to_string(view.GetPosition());
  };
  // A new block only unbounded at offset 0; a bounded read leaves the rest unread
  // and terminates nothing; a length beyond the bytes left fails before any copy.
  const struct { int at; bool allocate; int offset, max; const char* result; } rows[] = {
      {0, 1, 0, -1, "1 abc/4 @7"}, {7, 1, 0, -1, "1 null @11"}, {0, 1, 1, -1, "0 null @4"}, {0, 1, 0, 2, "0 null @4"},
      {0, 0, 1, -1, "1 #abc### @7"}, {0, 0, 0, 2, "1 ab##### @6"}, {0, 0, 0, 9, "1 abc#### @7"},
      {7, 0, 0, 0, "1 ####### @11"}, {11, 0, 0, -1, "0 ####### @15"}, {11, 1, 0, -1, "0 null @15"},
      {0, 0, -1, -1, "0 ####### @0"}, {0, 0, 0, -2, "0 ####### @0"}};
  for (const auto& r : rows) EXPECT_EQ(r.result, read(r.at, r.allocate, r.offset, r.max)) << r.at << r.offset << r.max;
  view.Close();
  EXPECT_EQ(0u, gmapMemSize.count(block));
}

// ---- Punycode and IDN ------------------------------------------------------------------

int Length(const std::wstring& label) { return PunyCode::u_strToPunycode(label.c_str(), -1, nullptr, 0, nullptr, nullptr, nullptr); }

std::string Encode(const std::wstring& label, const signed char* flags = nullptr, int capacity = 4096) {
  std::vector<char> dest(static_cast<size_t>(capacity), '#');
  const int n = PunyCode::u_strToPunycode(label.c_str(), -1, dest.data(), capacity, flags, nullptr, nullptr);
  return std::string(dest.data(), static_cast<size_t>(n < capacity ? n : capacity));
}

std::string Idn(const std::string& host) {
  std::vector<char> out(8192, '#');
  const unsigned int length = CUtil::IdnToAscii(host.c_str(), out.data());
  return length == 0 ? "<fail>" : std::string(out.data(), length);
}

TEST(PunyCode, IndependentVectorsAlsoInsideIdnToAscii) {
  // RFC 3492 samples A-R and 300 random labels from Python's codec
  // (data/make_punycode_vectors.py): "<label as UTF-8 hex> <encoding>".
  std::ifstream file(QS_TEST_DATA_DIR "/punycode_vectors.txt");
  std::string line, hex, encoded;
  int count = 0;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream(line) >> hex >> encoded;
    std::string utf8;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) utf8 += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    std::wstring label;  // decoded by the library, not by the conversion under test in IdnToAscii
    utf8::utf8to32(utf8.begin(), utf8.end(), std::back_inserter(label));
    EXPECT_EQ(encoded, Encode(label)) << encoded;
    // IdnToAscii prefixes it, or fails when it is longer than its 1024-byte label buffer.
    EXPECT_EQ(encoded.size() > 1024 ? "<fail>" : "www.xn--" + encoded + ".Example", Idn("www." + utf8 + ".Example"));
    ++count;
  }
  EXPECT_EQ(318, count);
}

TEST(PunyCode, DelimiterCaseFlagsLimitsAndTheOverflowGuard) {
  // All basic: no trailing delimiter. Basic letters follow their flag, the
  // delta's only its final digit. A UTF-16 pair is the code point it stands for.
  // The first pass allows m - 128 up to 0x7FFFFDFF; one basic code point halves it.
  const signed char mixed[] = {1, 0, 1, 0, 1, 0}, second[] = {0, 1};
  EXPECT_EQ((std::vector<std::string>{"-> $1.00 <-", "a--yka", "AbC-9b", "a-ehA", Encode(L"x\U0001F600y"), "9p16146o",
                                      "a-9p16146o"}),
            (std::vector<std::string>{Encode(L"-> $1.00 <-"), Encode(L"a-\u00FC"), Encode(L"abC-9B", mixed),
                                      Encode(L"a\u00FC", second), Encode({L'x', wchar_t(0xD83D), wchar_t(0xDE00), L'y'}),
                                      Encode(std::wstring(1, wchar_t(0x7FFFFDFF + 128))),
                                      Encode({L'a', wchar_t(0x3FFFFEFF + 128)})}));
  // A lone surrogate fails; at most 512 code points, pairs counting once.
  std::wstring pairs;
  for (int i = 0; i < 511; ++i) pairs += {wchar_t(0xD83D), wchar_t(0xDE00)};
  EXPECT_EQ((std::vector<int>{0, 512, 0, 1, 0, 0, 0}),
            (std::vector<int>{Length({L'a', wchar_t(0xD800)}), Length(std::wstring(512, L'a')), Length(std::wstring(513, L'a')),
                              Length(pairs + L'a') != 0, Length(pairs + L"ab"), Length({wchar_t(0x7FFFFDFF + 129)}),
                              Length({L'a', wchar_t(0x3FFFFEFF + 129)})}));
}

TEST(IdnToAscii, LabelRulesAndThe1024ByteLabel) {
  const struct { const char* host; const char* ascii; } rows[] = {
      {"Example.COM", "Example.COM"}, {"example.com.", "example.com"}, {"www.B\xC3\xBC" "cher.de", "www.xn--Bcher-kva.de"},
      {"\xFF.com", "xn--zn7c.com"}, {"a..b", "<fail>"}, {".com", "<fail>"}};
  for (const auto& r : rows) EXPECT_EQ(r.ascii, Idn(r.host)) << r.host;
  EXPECT_EQ(12u, CUtil::IdnToAscii("xn--tda.com.", nullptr)) << "the size query counts the terminator";
  // "aa" + 344 ideographs encode to exactly 1024 bytes, 346 to 1025.
  for (const int ideographs : {344, 346}) {
    std::string utf8 = ideographs == 344 ? "aa" : "";
    for (int i = 0; i < ideographs; ++i) utf8::append(0x4E00 + i * 7919u % 20000u, std::back_inserter(utf8));
    EXPECT_EQ(ideographs == 344, Idn(utf8) != "<fail>") << ideographs;
  }
}

}  // namespace
