// The 968-byte information record of a text-form seal, as a key stores it:
// little-endian fields at fixed offsets, everything else carried unread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zeph_test {

struct RecordTime {
  uint16_t year, month, day, hour, minute, second;
};

inline std::vector<uint8_t> SealInfoRecord(int16_t alg, uint32_t width, uint32_t height, const std::string &gbk_name,
                                           RecordTime created, RecordTime start, RecordTime end) {
  std::vector<uint8_t> r(968, 0xEE);  // bytes nobody reads
  const auto put16 = [&](size_t at, uint16_t v) {
    r[at] = static_cast<uint8_t>(v);
    r[at + 1] = static_cast<uint8_t>(v >> 8);
  };
  const auto put32 = [&](size_t at, uint32_t v) {
    put16(at, static_cast<uint16_t>(v));
    put16(at + 2, static_cast<uint16_t>(v >> 16));
  };
  put16(72, static_cast<uint16_t>(alg));
  put32(616, width);
  put32(620, height);
  for (size_t i = 0; i < 96; ++i) r[624 + i] = i < gbk_name.size() ? static_cast<uint8_t>(gbk_name[i]) : 0;
  size_t at = 720;
  for (const RecordTime &t : {created, start, end}) {
    // Day of week and milliseconds are never shown.
    const uint16_t words[8] = {t.year, t.month, 6, t.day, t.hour, t.minute, t.second, 999};
    for (const uint16_t w : words) put16((at += 2) - 2, w);
  }
  return r;
}

}  // namespace zeph_test
