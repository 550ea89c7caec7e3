// The byte transport under every HTTP exchange: a TCP connection, with TLS
// when asked, that never blocks past the exchange's deadline.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace zeph::http {

inline constexpr uint32_t kDefaultConnectMs = 10000;
inline constexpr uint32_t kDefaultTotalMs = 30000;

// The process-wide deadlines (0 restores a default).
void SetTimeouts(uint32_t connect_ms, uint32_t total_ms);

// The two instants an exchange must meet, fixed when it starts from the
// settings of that moment.
class Deadline {
 public:
  static Deadline Start();
  // Milliseconds left, at least 0, for establishing the connection (bounded
  // by the whole exchange too) and for the whole exchange.
  int ConnectLeftMs() const;
  int TotalLeftMs() const;
  uint32_t connect_ms() const { return connect_ms_; }
  uint32_t total_ms() const { return total_ms_; }

 private:
  using Clock = std::chrono::steady_clock;
  static int LeftMs(Clock::time_point until);
  Clock::time_point connect_by_, total_by_;
  uint32_t connect_ms_ = 0, total_ms_ = 0;
};

// TLS trust of every later HTTPS connection: no verification (null or
// empty path), or verification against the certificates of a PEM file.
// 0, or ERR_FILE_OPEN_FAILED leaving the setting as it was.
uint32_t SetTrustFile(const char *pem_path);

enum class Io {
  kOk,       // n bytes moved (n > 0)
  kClosed,   // the peer closed in order (reads)
  kFailed,   // the connection failed
  kExpired,  // the deadline passed
};

struct IoResult {
  Io io;
  size_t n = 0;
};

// A byte stream with the retry loops inside: Read and Write wait (up to the
// deadline) until they can move at least one byte.
class Stream {
 public:
  virtual ~Stream() = default;
  virtual IoResult Read(std::span<uint8_t> into) = 0;
  virtual IoResult Write(std::span<const uint8_t> from) = 0;
  // What went wrong last, for the log.
  virtual const std::string &why() const = 0;
};

// A connection to host:port, TLS on top when `tls`: connected and, for TLS,
// with the handshake done (and the server verified when trust is set).
// Null on failure, with the reason in *why.
std::unique_ptr<Stream> Connect(const std::string &host, int port, bool tls, const Deadline &deadline,
                                std::string *why);

}  // namespace zeph::http
