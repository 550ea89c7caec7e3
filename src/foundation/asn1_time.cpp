// ASN.1 times (UTCTime, GeneralizedTime) as 14-digit local time texts.
#include <cstdio>
#include <ctime>

#include "foundation/output.hpp"
#include "zeph_c_utils.h"

namespace {

// "%04d%02d%02d%02d%02d%02d"; an unnormalised hour may take a sign or a third
// digit, so the buffer leaves room.
size_t FormatLocal(const std::tm &t, char (&text)[32]) {
  const int n = std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                              t.tm_hour, t.tm_min, t.tm_sec);
  return n > 0 ? std::min(static_cast<size_t>(n), sizeof text - 1) : 0;
}

// Local offset from UTC in whole hours (half-hour zones lose their minutes).
int l_getLocalTimeZone() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  std::tm local{};
  gmtime_r(&now, &utc);
  localtime_r(&now, &local);
  const int hours = local.tm_hour - utc.tm_hour;
  int days = local.tm_year - utc.tm_year;
  if (days == 0) days = local.tm_yday - utc.tm_yday;
  return hours + 24 * days;
}

// The ASN.1 time's calendar fields read as local wall-clock time, as seconds
// since the epoch; 0 on failure. zeph_c_utils_getStandardTime adds the zone
// offset back, so the pair yields the local time of the ASN.1 instant.
time_t l_getTimeFromASN1(const ASN1_TIME *asn1_time) {
  if (asn1_time == nullptr) return 0;
  std::tm t{};
  if (ASN1_TIME_to_tm(asn1_time, &t) != 1) return 0;
  t.tm_isdst = -1;
  const std::time_t secs = std::mktime(&t);
  return secs == static_cast<std::time_t>(-1) ? 0 : secs;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t zeph_c_utils_getStandardTime(const ASN1_TIME *asn1_time, char *out, uint32_t *in_out_len) {
  if (asn1_time == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  char text[32] = {0};
  size_t n = 0;
  const std::time_t secs = l_getTimeFromASN1(asn1_time);
  if (secs != 0) {
    std::tm t{};
    localtime_r(&secs, &t);
    t.tm_hour += l_getLocalTimeZone();
    std::time_t shifted = std::mktime(&t);
    if (shifted != static_cast<std::time_t>(-1) && localtime_r(&shifted, &t) != nullptr) n = FormatLocal(t, text);
  }
  // A time that does not convert gives the empty text.
  return zeph::PutText(text, n, out, in_out_len);
}

ZEPH_API uint32_t zeph_c_utils_GMTgetStandardTime(const ASN1_TIME *asn1_time, char *out, uint32_t *in_out_len) {
  if (asn1_time == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  char text[32] = {0};
  size_t n = 0;
  std::tm t{};
  if (ASN1_TIME_to_tm(asn1_time, &t) == 1) {
    // Compat: the hour is shifted but not normalised; 24 and above print as
    // they stand.
    t.tm_hour += l_getLocalTimeZone();
    n = FormatLocal(t, text);
  }
  return zeph::PutText(text, n, out, in_out_len);
}

}  // extern "C"
