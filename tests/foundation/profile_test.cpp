// The INI readers: section and key rules, comments, blanks, line bounds.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

class Profile : public testing::Test {
 protected:
  std::string Write(const std::string &text) {
    const std::string path = dir_.file("cfg.ini");
    zeph_test::WriteBytes(path, {text.begin(), text.end()});
    return path;
  }
  zeph_test::TempDir dir_;
};

TEST_F(Profile, TextValues) {
  struct Case {
    const char *name;
    std::string ini;
    const char *section;
    const char *key;
    const char *value;  // nullptr: the default ("dflt", return 0)
  } cases[] = {
      {"plain", "[s]\nk=v\n", "s", "k", "v"},
      {"blanks around key, equals and value", "[s]\n \t k \t=  \t v w \t\n", "s", "k", "v w"},
      {"trailing comment and blanks", "[s]\nk = value   # note\n", "s", "k", "value"},
      {"semicolon is no comment", "[s]\nk=a;b\n", "s", "k", "a;b"},
      {"CRLF line ends", "[s]\r\nk=v\r\n", "s", "k", "v"},
      {"no line end at end of file", "[s]\nk=v", "s", "k", "v"},
      {"header with text after the bracket", "  [s] ; main\nk=v\n", "s", "k", "v"},
      {"other keys are skipped", "[s]\nother=1\n# k=2\nk=3\n", "s", "k", "3"},
      {"first of two equal keys", "[s]\nk=1\nk=2\n", "s", "k", "1"},
      {"only the first equals sign splits", "[s]\nk=a=b\n", "s", "k", "a=b"},
      {"key before any section is ignored", "k=0\n[s]\nk=1\n", "s", "k", "1"},
      {"key of another section is ignored", "[t]\nk=0\n[s]\nk=1\n", "s", "k", "1"},
      {"key only in a later section", "[s]\na=1\n[t]\nk=2\n", "s", "k", nullptr},
      {"next header ends the section even if it is the same", "[s]\n[s]\nk=1\n", "s", "k", nullptr},
      {"longer key first ends the search", "[s]\nkey2=1\nkey=2\n", "s", "key", nullptr},
      {"longer key after blanks too", "[s]\nkey x=1\n", "s", "key", nullptr},
      {"section name is not a prefix match", "[section]\nk=1\n", "sec", "k", nullptr},
      {"missing section", "[t]\nk=1\n", "s", "k", nullptr},
      {"missing key", "[s]\na=1\n", "s", "k", nullptr},
      {"empty file", "", "s", "k", nullptr},
      {"empty value is found, length 0", "[s]\nk=   # nothing\n", "s", "k", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = Write(c.ini);
    char out[64];
    std::memset(out, 'X', sizeof out);
    const uint32_t n = GetPrivateProfileString(c.section, c.key, "dflt", out, sizeof out, path.c_str());
    if (c.value == nullptr) {
      EXPECT_EQ(n, 0u);
      EXPECT_STREQ(out, "dflt");
    } else {
      EXPECT_EQ(n, std::strlen(c.value));
      EXPECT_STREQ(out, c.value);
    }
  }
}

TEST_F(Profile, MissingFileAndNullArgumentsGiveTheDefault) {
  const std::string path = Write("[s]\nk=v\n");
  char out[16];
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d0", out, sizeof out, dir_.file("none.ini").c_str()), 0u);
  EXPECT_STREQ(out, "d0");
  EXPECT_EQ(GetPrivateProfileString(nullptr, "k", "d1", out, sizeof out, path.c_str()), 0u);
  EXPECT_STREQ(out, "d1");
  EXPECT_EQ(GetPrivateProfileString("s", nullptr, "d2", out, sizeof out, path.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileString("s", "x", nullptr, out, sizeof out, path.c_str()), 0u);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", nullptr, 16, path.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileInt("s", "k", 5, nullptr), 5);
}

TEST_F(Profile, OutputIsCutToItsSize) {
  const std::string path = Write("[s]\nk=abcdefgh\n");
  char out[8];
  std::memset(out, 'X', sizeof out);
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", out, 4, path.c_str()), 3u);
  EXPECT_STREQ(out, "abc");
  EXPECT_EQ(out[4], 'X');
  EXPECT_EQ(GetPrivateProfileString("s", "x", "defaults", out, 4, path.c_str()), 0u);
  EXPECT_STREQ(out, "def");
  out[0] = 'Y';
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", out, 0, path.c_str()), 0u);
  EXPECT_EQ(out[0], 'Y');
}

TEST_F(Profile, LongLinesAreCutNotSplit) {
  // A 4,095-character line: the rest of a longer line is dropped, not read
  // as a line of its own.
  const std::string value(6000, 'v');
  const std::string path = Write("[s]\nk=" + value + "\n" + std::string(4095, ' ') + "j=tail\nz=1\n");
  std::string out(8192, 'X');
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", out.data(), out.size(), path.c_str()), 4093u);
  EXPECT_EQ(std::string(out.c_str()), value.substr(0, 4093));
  EXPECT_EQ(GetPrivateProfileString("s", "j", "dflt", out.data(), out.size(), path.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileString("s", "z", "", out.data(), out.size(), path.c_str()), 1u);
}

TEST_F(Profile, Integers) {
  struct Case {
    const char *name;
    std::string line;
    int32_t expected;
  } cases[] = {
      {"plain", "n=42", 42},
      {"blanks and comment", "n =  -17 # c", -17},
      {"plus sign", "n=+5", 5},
      {"digits then text", "n=12abc", 12},
      {"hex is not read", "n=0x10", 0},
      {"not a number keeps the default", "n=abc", -99},
      {"empty keeps the default", "n=", -99},
      {"largest", "n=2147483647", INT32_MAX},
      {"smallest", "n=-2147483648", INT32_MIN},
      {"too large saturates", "n=99999999999", INT32_MAX},
      {"too small saturates", "n=-99999999999", INT32_MIN},
      // The number is read from the first 255 characters of the value.
      {"value cut at 255", "n=" + std::string(300, '0') + "5", 0},
      // Lines are 511 characters for the integer reader.
      {"line cut at 511", "n=" + std::string(509, ' ') + "7", -99},
      {"line just fits", "n=" + std::string(508, ' ') + "7", 7},
      {"longer key", "nn=1", -99},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = Write("[s]\n" + c.line + "\n");
    EXPECT_EQ(GetPrivateProfileInt("s", "n", -99, path.c_str()), c.expected);
  }
}

}  // namespace
