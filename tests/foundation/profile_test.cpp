// The INI readers: section and key rules, comments, blanks, line bounds.
#include <climits>
#include <cstring>

#include <gtest/gtest.h>

#include "scoped.hpp"

namespace {

class Profile : public testing::Test {
 protected:
  std::string Write(const std::string &text) {
    zeph_test::WriteBytes(dir_.file("cfg.ini"), {text.begin(), text.end()});
    return dir_.file("cfg.ini");
  }
  zeph_test::TempDir dir_;
};

TEST_F(Profile, TextValues) {
  const struct {
    const char *name;
    std::string ini;
    const char *section, *value;  // value nullptr: the default "dflt", length 0
  } cases[] = {
      {"plain", "[s]\nk=v\n", "s", "v"},
      {"blanks around key, equals and value", "[s]\n \t k \t=  \t v w \t\n", "s", "v w"},
      {"trailing comment and blanks", "[s]\nk = value   # note\n", "s", "value"},
      {"semicolon is no comment", "[s]\nk=a;b\n", "s", "a;b"},
      {"CRLF line ends", "[s]\r\nk=v\r\n", "s", "v"},
      {"no line end at end of file", "[s]\nk=v", "s", "v"},
      {"header with text after the bracket", "  [s] ; main\nk=v\n", "s", "v"},
      {"other keys and comments are skipped", "[s]\nother=1\n# k=2\nk=3\n", "s", "3"},
      {"first of two equal keys", "[s]\nk=1\nk=2\n", "s", "1"},
      {"only the first equals sign splits", "[s]\nk=a=b\n", "s", "a=b"},
      {"key before any section is ignored", "k=0\n[s]\nk=1\n", "s", "1"},
      {"key of another section is ignored", "[t]\nk=0\n[s]\nk=1\n", "s", "1"},
      {"key only in a later section", "[s]\na=1\n[t]\nk=2\n", "s", nullptr},
      {"next header ends the section even if it is the same", "[s]\n[s]\nk=1\n", "s", nullptr},
      {"longer key first ends the search", "[s]\nkk=1\nk=2\n", "s", nullptr},
      {"longer key after blanks too", "[s]\nk x=1\n", "s", nullptr},
      {"section name is not a prefix match", "[section]\nk=1\n", "sec", nullptr},
      {"missing section", "[t]\nk=1\n", "s", nullptr},
      {"empty file", "", "s", nullptr},
      {"empty value is found, length 0", "[s]\nk=   # nothing\n", "s", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = Write(c.ini);
    char out[64];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(GetPrivateProfileString(c.section, "k", "dflt", out, sizeof out, path.c_str()),
              c.value ? std::strlen(c.value) : 0u);
    EXPECT_STREQ(out, c.value ? c.value : "dflt");
  }
}

TEST_F(Profile, DefaultsCutsNullsAndLongLines) {
  const std::string path = Write("[s]\nk=abcdefgh\n"), none = dir_.file("none.ini");
  const struct {
    const char *section, *key, *dflt;
    size_t size;
    const std::string &file;
    uint32_t n;
    const char *out;
  } cases[] = {{"s", "k", "", 4, path, 3, "abc"},
               {"s", "x", "defaults", 4, path, 0, "def"},
               {"s", "k", "d0", 16, none, 0, "d0"},
               {nullptr, "k", "d1", 16, path, 0, "d1"},
               {"s", nullptr, "d2", 16, path, 0, "d2"},
               {"s", "x", nullptr, 16, path, 0, ""},
               {"s", "k", "", 0, path, 0, "XXXXXXXXXXXXXXXX"}};
  for (const auto &c : cases) {
    std::string out(16, 'X');
    EXPECT_EQ(GetPrivateProfileString(c.section, c.key, c.dflt, out.data(), c.size, c.file.c_str()), c.n);
    EXPECT_STREQ(out.c_str(), c.out);
    EXPECT_EQ(out.find_first_not_of('X', std::strlen(c.out) + 1), std::string::npos);  // nothing past the text
  }
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", nullptr, 16, path.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileInt("s", "k", 5, nullptr), 5);
  // Lines hold 4,095 characters: the rest of a longer line is dropped, not read as a line of its own.
  const std::string value(6000, 'v');
  const std::string long_path = Write("[s]\nk=" + value + "\n" + std::string(4095, ' ') + "j=tail\nz=1\n");
  std::string big(8192, 'X');
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", big.data(), big.size(), long_path.c_str()), 4093u);
  EXPECT_EQ(std::string(big.c_str()), value.substr(0, 4093));
  EXPECT_EQ(GetPrivateProfileString("s", "j", "dflt", big.data(), big.size(), long_path.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileString("s", "z", "", big.data(), big.size(), long_path.c_str()), 1u);
}

TEST_F(Profile, Integers) {
  const struct {
    std::string line;
    int32_t expected;
  } cases[] = {
      {"n=42", 42},
      {"n =  -17 # c", -17},
      {"n=12abc", 12},
      {"n=0x10", 0},
      {"n=abc", -99},
      {"n=", -99},
      {"nn=1", -99},
      {"n=99999999999", INT32_MAX},
      {"n=-99999999999", INT32_MIN},
      {"n=" + std::string(300, '0') + "5", 0},    // the number is read from the first 255 characters
      {"n=" + std::string(509, ' ') + "7", -99},  // lines are 511 characters for the integer reader
      {"n=" + std::string(508, ' ') + "7", 7},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(GetPrivateProfileInt("s", "n", -99, Write("[s]\n" + c.line + "\n").c_str()), c.expected) << c.line;
  }
}

}  // namespace
