// The co-signing service's share store: one SQLite file (WAL) holding the
// server share of every key by container identifier. A key creation is one
// transaction, committed before the service answers, so a killed service
// loses no key it has answered for. Shares read back live in SecureBytes.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "foundation/secure_bytes.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace zeph::cosign {

enum class Algorithm { kSm2, kRsa };

// One row. SM2: public_key = P (65 bytes), share = d2, share_inverse = d2^-1
// (32 bytes each). RSA: public_key = n, public_exponent = e, share = d2
// (modulus length), no share_inverse.
struct ShareRecord {
  Algorithm algorithm = Algorithm::kSm2;
  std::string device_number;
  std::vector<uint8_t> public_key;
  std::vector<uint8_t> public_exponent;
  SecureBytes share;
  SecureBytes share_inverse;
};

enum class StoreResult { kOk, kExists, kMissing, kFailed };

class ShareStore {
 public:
  // Opens or creates the store (file mode 0600; ":memory:" for a store that
  // lives with the process). Null with the reason in *why.
  static std::unique_ptr<ShareStore> Open(const std::string &path, std::string *why);
  ~ShareStore();
  ShareStore(const ShareStore &) = delete;
  ShareStore &operator=(const ShareStore &) = delete;

  // kOk once committed; kExists when the identifier is taken.
  StoreResult Put(const std::string &container_id, const ShareRecord &record);
  StoreResult Get(const std::string &container_id, ShareRecord *out);

 private:
  ShareStore() = default;
  bool Prepare(std::string *why);

  std::mutex mutex_;  // one connection, one statement of each kind: one caller at a time
  sqlite3 *db_ = nullptr;
  sqlite3_stmt *insert_ = nullptr;
  sqlite3_stmt *select_ = nullptr;
};

}  // namespace zeph::cosign
