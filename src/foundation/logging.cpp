// Debug records for the host's log callback and hex dumps to the daily file.
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "foundation/log.hpp"
#include "foundation/secure_bytes.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

// A plain slot (its address is handed out), accessed atomically so that a
// callback installed while the device monitor logs is no data race.
zeph_log_callback gLogCb = nullptr;

zeph_log_callback LoadCallback() { return std::atomic_ref<zeph_log_callback>(gLogCb).load(std::memory_order_acquire); }

std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm tm_now{};
  localtime_r(&now, &tm_now);
  return tm_now;
}

}  // namespace

namespace zeph {

bool LogEnabled() { return LoadCallback() != nullptr; }

}  // namespace zeph

extern "C" {

ZEPH_API zeph_log_callback *setLogCallback(zeph_log_callback callback) {
  std::atomic_ref<zeph_log_callback>(gLogCb).store(callback, std::memory_order_release);
  return &gLogCb;
}

ZEPH_API void zeph_logger_debug(const char *message, int64_t status, const char *source_file, int line) {
  const zeph_log_callback cb = LoadCallback();
  if (cb == nullptr) return;
  try {
    const std::tm t = LocalNow();
    char head[260];
    std::snprintf(head, sizeof head, "file:'%s',line:%d,time:'%04d-%02d-%02d %02d:%02d:%02d'",
                  source_file != nullptr ? source_file : "", line, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                  t.tm_min, t.tm_sec);
    char res[260];
    std::snprintf(res, sizeof res, ",res:%" PRId64, status);

    // One block, filled in place and wiped once the callback is done: a
    // message may hold a PIN (the PIN record, a logged request), so no copy
    // is left in freed memory, as a growing string would leave.
    const size_t head_len = std::strlen(head), res_len = std::strlen(res);
    const size_t msg_len = message != nullptr ? std::strlen(message) : 0;
    constexpr char kMsgOpen[] = ",msg:'", kMsgClose[] = "'";
    const size_t msg_part = message != nullptr ? sizeof kMsgOpen - 1 + msg_len + sizeof kMsgClose - 1 : 0;
    zeph::SecureBytes record(1 + head_len + msg_part + res_len + 2);
    char *p = reinterpret_cast<char *>(record.data());
    const auto put = [&p](const char *text, size_t n) {
      std::memcpy(p, text, n);
      p += n;
    };
    put("{", 1);
    put(head, head_len);
    if (message != nullptr) {
      put(kMsgOpen, sizeof kMsgOpen - 1);
      put(message, msg_len);
      put(kMsgClose, sizeof kMsgClose - 1);
    }
    put(res, res_len);
    put("}", 2);  // with the terminator
    cb(reinterpret_cast<const char *>(record.data()));
  } catch (...) {
    // The logger never reports failure.
  }
}

ZEPH_API int se_getTimeString(char *out) {
  if (out == nullptr) return static_cast<int>(ERR_INVALID_PARAMETER);
  const std::tm t = LocalNow();
  std::snprintf(out, 16, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
  return 0;
}

ZEPH_API int se_getLogPath(char *out) {
  if (out == nullptr) return 0;
  char date[16] = {0};
  se_getTimeString(date);
  char path[260];
  const int n = std::snprintf(path, sizeof path, "%s%s.log", "zeph_", date);
  std::memcpy(out, path, static_cast<size_t>(n));
  return 1;
}

ZEPH_API int zeph_logger_debugHex(const unsigned char *data, uint32_t length, const char *source_file, int line) {
  char path[260] = {0};
  if (se_getLogPath(path) != 1 || path[0] == '\0') return 0;
  if (data == nullptr) length = 0;
  std::FILE *f = std::fopen(path, "a+");
  if (f == nullptr) return 0;
  const std::tm t = LocalNow();
  std::fprintf(f, "$$$File: %s, Line:%d.[%04d-%02d-%02d %02d:%02d:%02d]\n", source_file != nullptr ? source_file : "",
               line, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  for (uint32_t i = 0; i < length; ++i) {
    std::fprintf(f, "%02X ", data[i]);
    if ((i + 1) % 16 == 0) std::fputc('\n', f);
  }
  std::fprintf(f, "\nHexSize:%x$$$\n", length);
  return std::fclose(f);
}

}  // extern "C"
