#include "model.hpp"

#include <new>

#include <openssl/rand.h>

namespace softkey {

namespace {

template <class V, class N>
auto FindIn(V &v, const N &member, std::string_view key) -> decltype(&v[0]) {
  for (auto &x : v)
    if (x.*member == key) return &x;
  return nullptr;
}

}  // namespace

File *Application::FindFile(std::string_view n) { return FindIn(files, &File::name, n); }
const File *Application::FindFile(std::string_view n) const { return FindIn(files, &File::name, n); }
Container *Application::FindContainer(std::string_view n) { return FindIn(containers, &Container::name, n); }
const Container *Application::FindContainer(std::string_view n) const {
  return FindIn(containers, &Container::name, n);
}
Container *Application::ContainerById(std::string_view i) { return FindIn(containers, &Container::id, i); }
const Container *Application::ContainerById(std::string_view i) const { return FindIn(containers, &Container::id, i); }
Application *Device::FindApp(std::string_view n) { return FindIn(apps, &Application::name, n); }
const Application *Device::FindApp(std::string_view n) const { return FindIn(apps, &Application::name, n); }
Application *Device::AppById(std::string_view i) { return FindIn(apps, &Application::id, i); }
const Application *Device::AppById(std::string_view i) const { return FindIn(apps, &Application::id, i); }

uint64_t Device::UsedSpace() const {
  uint64_t used = 0;
  for (const auto &a : apps)
    for (const auto &f : a.files) used += f.data.size();
  return used;
}

std::string RandomId() {
  static const char kDigits[] = "0123456789abcdef";
  uint8_t r[8];
  if (RAND_bytes(r, sizeof r) != 1) throw std::bad_alloc();
  std::string id(2 * sizeof r, '0');
  for (size_t i = 0; i < sizeof r; ++i) {
    id[2 * i] = kDigits[r[i] >> 4];
    id[2 * i + 1] = kDigits[r[i] & 15];
  }
  return id;
}

}  // namespace softkey
