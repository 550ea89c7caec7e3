#include "test_support.hpp"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include <stdlib.h>
#include <sys/wait.h>

namespace zeph_test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "zeph-test-XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::vector<uint8_t> ReadBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteBytes(const std::string &path, const std::vector<uint8_t> &data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
}

void WriteText(const std::string &path, const std::string &text) { WriteBytes(path, {text.begin(), text.end()}); }

std::vector<uint8_t> FromHex(const std::string &hex) {
  std::vector<uint8_t> out;
  int hi = -1;
  for (char c : hex) {
    int v;
    if (c >= '0' && c <= '9')
      v = c - '0';
    else if (c >= 'a' && c <= 'f')
      v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      v = c - 'A' + 10;
    else
      continue;  // blanks and separators are ignored
    if (hi < 0) {
      hi = v;
    } else {
      out.push_back(static_cast<uint8_t>(hi << 4 | v));
      hi = -1;
    }
  }
  return out;
}

std::string ToHex(const uint8_t *data, size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string s;
  s.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    s.push_back(digits[data[i] >> 4]);
    s.push_back(digits[data[i] & 15]);
  }
  return s;
}

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::vector<uint8_t> v(n);
  for (auto &b : v) b = static_cast<uint8_t>(gen());
  return v;
}

int Shell(const std::string &command, std::string *out) {
  FILE *p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[4096];
  std::string text;
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) != 0;) text.append(buf, n);
  const int status = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void RunIn(const std::string &dir, const std::string &command) {
  std::string out;
  if (Shell("cd '" + dir + "' && { " + command + "; }", &out) != 0) throw std::runtime_error(command + "\n" + out);
}

std::string MadeOnce(const std::string &name,
                     const std::function<void(const std::string &work, const std::string &final_dir)> &make) {
  static TempDir own;
  const char *work = std::getenv("ZEPH_TEST_WORKDIR");
  const std::string root = work != nullptr ? std::string(work) : own.path().string(), made = root + "/" + name;
  if (!std::filesystem::exists(made + "/done")) {
    std::string tmp = made + "-XXXXXX";
    if (mkdtemp(tmp.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    make(tmp, made);
    WriteText(tmp + "/done", "");
    if (std::rename(tmp.c_str(), made.c_str()) != 0) std::filesystem::remove_all(tmp);  // another process was first
  }
  return made;
}

std::set<std::string> DynamicSymbols(const std::string &library) {
  std::set<std::string> names;
  FILE *p = popen(("nm -D --defined-only '" + library + "'").c_str(), "r");
  char line[1024], type[8], name[512];
  while (p != nullptr && std::fgets(line, sizeof line, p) != nullptr)  // "<address> <type> <name>[@version]"
    if (std::sscanf(line, "%*s %7s %511[^@\n]", type, name) == 2 && std::string(type) != "A") names.insert(name);
  if (p != nullptr) pclose(p);
  return names;
}

}  // namespace zeph_test
