// The exported runtime: strings, code pages, bounded CRT functions, system information.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "runtime/charset.h"
#include "runtime/crt.h"
#include "runtime/string.h"
#include "runtime/system.h"
#include "tests/fixture/world.h"

namespace {

// Buffers grow to twice the length plus two, zero-filled behind the text.
TEST(BasicString, GrowsByOneRuleAndComparesByteWise) {
  const std::pair<const char*, int> capacities[] = {{"", 6}, {"abcd", 6}, {"abcde", 12}};
  for (const auto& row : capacities) EXPECT_EQ(row.second, CBasicString<char>(row.first, -1).GetCapacity()) << row.first;
  CBasicString<char> key;
  key.Format("h%02dc%d", 0, 0);
  EXPECT_EQ(12, key.GetCapacity()) << "grown for 5 characters, one more than its 6 bytes leave room for";
  const struct { const char *left, *right; int count, result; } rows[] = {
      {"b", "ab", -1, -1},    {"ab", "b", -1, 1},   {"abc", "abc", -1, 0},     {"ab", "abc", -1, -1},
      {"abc", "abd", -1, -1}, {"abc", "abd", 2, 0}, {nullptr, "", -1, -1},     {"abc", "ab", -1, 1},
      {"\xE9", "e", -1, -1}};  // bytes above 0x7F sort before ASCII
  for (const auto& row : rows) EXPECT_EQ(row.result, UnicodeStringCmp<char>(row.left, row.right, row.count)) << &row - rows;
}

using Units = std::vector<unsigned short>;

TEST(CodePages, ConvertBothWaysWithFallbacks) {
  for (const auto& row : fixture::Rows("rows/code_pages")) {
    SCOPED_TRACE(row[1]);
    const std::vector<char> bytes = fixture::Hex<char>(row[1]);
    Units units = fixture::Hex<unsigned short>(row[2]), wide(16, 0);
    const unsigned int codePage = static_cast<unsigned int>(fixture::Number(row[0]));
    if (row[3] != "-") {
      const std::string text(bytes.begin(), bytes.end());
      EXPECT_EQ(fixture::Number(row[3]), MultiByteToWideChar(codePage, 0, text.c_str(), -1, wide.data(), 16));
      EXPECT_EQ(units, Units(wide.begin(), wide.begin() + fixture::Number(row[3]) - 1));
    }
    if (row[4] == "-") continue;
    units.push_back(0);
    char text[16] = "";
    EXPECT_EQ(fixture::Number(row[4]), WideCharToMultiByte(codePage, 0, units.data(), -1, text, 16, nullptr, nullptr));
    if (row[4] != "0") {
      EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text);
    }
  }
}

// One call of tests/fixture/data/rows/bounded_calls.txt: its arguments and the buffers they name.
struct Call {
  std::vector<std::string> words;
  char text[64];
  unsigned short wide[64], source[64];
  long timer;
  bool Null(size_t i) const { return words.at(i) == "null"; }
  char* Buf(size_t i) { return Null(i) ? nullptr : text; }
  unsigned short* Wide(size_t i) { return Null(i) ? nullptr : wide; }
  const char* Str(size_t i) const { return Null(i) ? nullptr : words[i].c_str(); }
  const unsigned short* WideStr(size_t i) { return std::copy(Str(i), Str(i) + words[i].size() + 1, source), source; }
  unsigned int U(size_t i) const { return static_cast<unsigned int>(std::stoll(words.at(i), nullptr, 0)); }
  int I(size_t i) const { return static_cast<int>(U(i)); }
  const long* Timer(size_t i) { return Null(i) ? nullptr : &(timer = I(i)); }
};

const std::map<std::string, std::function<long(Call&)>> kCalls = {
    {"strcpy_s", [](Call& c) { return strcpy_s(c.Buf(0), c.U(1), c.Str(2)); }},
    {"strncpy_s", [](Call& c) { return strncpy_s(c.Buf(0), c.U(1), c.Str(2), c.U(3)); }},
    {"wcscpy_s", [](Call& c) { return wcscpy_s(c.Wide(0), c.U(1), c.WideStr(2)); }},
    {"wcsncpy_s", [](Call& c) { return wcsncpy_s(c.Wide(0), c.U(1), c.WideStr(2), c.U(3)); }},
    {"strcat_s", [](Call& c) { return strcat_s(c.Buf(0), c.U(1), c.Str(2)); }},
    {"strncat_s", [](Call& c) { return strncat_s(c.Buf(0), c.U(1), c.Str(2), c.U(3)); }},
    {"memcpy_s", [](Call& c) { return memcpy_s(c.Buf(0), c.U(1), c.Str(2), c.U(3)); }},
    {"wmemcpy_s", [](Call& c) { return wmemcpy_s(c.Wide(0), c.U(1), c.WideStr(2), c.U(3)); }},
    {"_strupr_s", [](Call& c) { return _strupr_s(c.Buf(0), c.U(1)); }},
    {"_strlwr_s", [](Call& c) { return _strlwr_s(c.Buf(0), c.U(1)); }},
    {"_itoa_s", [](Call& c) { return _itoa_s(c.I(0), c.Buf(1), c.U(2), c.I(3)); }},
    {"_itoa", [](Call& c) { return _itoa(c.I(0), c.text, c.I(2)) == c.text; }},
    {"_strrev", [](Call& c) { return _strrev(c.text) == c.text; }},
    {"ctime_s", [](Call& c) { return ctime_s(c.Buf(0), c.U(1), c.Timer(2)); }},
    {"sprintf_s", [](Call& c) { return sprintf_s(c.Buf(0), c.U(1), c.Str(2), c.Str(3)); }},
    {"_snprintf_s", [](Call& c) { return _snprintf_s(c.Buf(0), c.U(1), c.U(2), c.Str(3), c.Str(4)); }},
    {"localtime_s", [](Call& c) {  // the buffer shows the year, the day and the daylight flag
       tm t = {};
       const int result = localtime_s(c.Null(0) ? nullptr : &t, c.Timer(1));
       return c.Null(0) ? result : (snprintf(c.text, 64, "%d %d %d", t.tm_year, t.tm_mday, t.tm_isdst), result);
     }},
    {"sopen_s", [](Call& c) {  // the buffer shows the descriptor, closed again
       int fh = 7, result = sopen_s(&fh, c.Str(0), c.I(1), 0, c.I(2));
       if (fh >= 0) close(fh);
       return snprintf(c.text, 64, "%d", fh), result;
     }},
    {"strtok_s", [](Call& c) {  // over a copy of the first word; the buffer shows the tokens, each ended by '|'
       std::string tokens, input = c.words[0];
       char* context = nullptr;
       for (char* t = strtok_s(c.Null(0) ? nullptr : &input[0], c.Str(1), &context); t;
            t = strtok_s(nullptr, c.Str(1), &context))
         tokens += std::string(t) + "|";
       return strcpy(c.text, tokens.c_str()), std::count(tokens.begin(), tokens.end(), '|');
     }},
};

TEST(BoundedText, ResultErrnoAndTextOfEachCall) {
  const auto rows = fixture::Rows("rows/bounded_calls");
  EXPECT_GT(rows.size(), 50u);
  for (const auto& row : rows) {
    const size_t arrow = std::find(row.begin(), row.end(), "=>") - row.begin();
    Call call;
    call.words.assign(row.begin() + 2, row.begin() + arrow);
    memset(call.text, 0, sizeof call.text);
    memset(call.text, 'x', 8);
    strcpy(call.text, row[0].c_str());
    std::copy(call.text, call.text + sizeof call.text, call.wide);
    errno = 12345;
    const std::string what = row[1] + " " + (call.words.empty() ? "" : call.words[0]);
    EXPECT_EQ(fixture::Number(row.at(arrow + 1)), kCalls.at(row[1])(call)) << what;
    EXPECT_EQ(row[arrow + 2] == "-" ? 12345 : fixture::Number(row[arrow + 2]), errno) << what;
    if (row[1][0] == 'w') std::copy(call.wide, call.wide + sizeof call.text, call.text);
    EXPECT_EQ(row[arrow + 3], std::string(call.text, strnlen(call.text, sizeof call.text))) << what;
  }
}

// Each machine's name (lsb-release, else the first release file that opens, else the kernel type), version
// and its two numbers, and memory, as its "expect" lines say.
TEST(SystemInfo, NameVersionAndMemoryOfEachMachine) {
  for (const auto& machine : fixture::Rows("os/machines")) {
    fixture::FixtureWorld world;
    world.Load("os/" + machine[0]);
    unsigned int major = 9, minor = 9;
    CPortableSystem::GetOSVersion(major, minor);
    const std::string numbers = std::to_string(major) + " " + std::to_string(minor);
    const std::string memory = std::to_string(CPortableSystem::GetTotalPhysicalMemory()) + " " +
                               std::to_string(CPortableSystem::GetFreePhysicalMemory());
    std::map<std::string, std::string> found = {{"name", CPortableSystem::GetOSName().GetString()},
        {"version", std::string(CPortableSystem::GetOSVersion().GetString()) + " " + numbers},
        {"memory", memory + " " + std::to_string(CPortableSystem::GetMemoryLoad())}};
    for (const std::string& line : world.expected) {
      const std::string key = line.substr(0, line.find(' '));
      EXPECT_EQ(line, key + " " + found[key]) << machine[0];
    }
  }
  fixture::FixtureWorld world;  // sleeps in fake time: 2 s, then 500 ms
  for (int milliseconds : {2500, 0, -5}) CPortableSystem::PauseExecution(milliseconds);
  EXPECT_TRUE(world.slept == 2500000 && world.sleepCalls == 2) << world.slept;
}

}  // namespace
