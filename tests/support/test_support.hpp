// Helpers shared by the test folders: temporary directories, file bytes, hex,
// shell commands and exported names. The OpenSSL references are in
// oracle.hpp, the software-key fixture in softkey_fixture.hpp.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace zeph_test {

using Bytes = std::vector<uint8_t>;

// A fresh directory under the system temp folder, removed with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::filesystem::path &path() const { return path_; }
  std::string file(const std::string &name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

std::vector<uint8_t> ReadBytes(const std::string &path);
void WriteBytes(const std::string &path, const std::vector<uint8_t> &data);
void WriteText(const std::string &path, const std::string &text);
std::vector<uint8_t> FromHex(const std::string &hex);
std::string ToHex(const uint8_t *data, size_t n);
inline std::string ToHex(const std::vector<uint8_t> &v) { return ToHex(v.data(), v.size()); }
std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed);

// Runs a shell command; its exit code (-1 if it did not exit), standard
// output (and error, folded in) into *out when given.
int Shell(const std::string &command, std::string *out = nullptr);
// The same in `dir`, throwing with the command and its words unless it
// succeeds.
void RunIn(const std::string &dir, const std::string &command);

// A folder made once and shared by every test process of a build (under
// ZEPH_TEST_WORKDIR, else in this process's own temporary folder):
// make(work, final) fills a fresh folder that becomes `final`; the first
// process to finish renames its copy into place.
std::string MadeOnce(const std::string &name,
                     const std::function<void(const std::string &work, const std::string &final_dir)> &make);

// The names a shared library exports (nm -D), without version suffixes and
// linker-defined absolute symbols.
std::set<std::string> DynamicSymbols(const std::string &library);

}  // namespace zeph_test
