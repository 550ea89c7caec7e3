#include "store.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeph::cosign {

namespace {

// The schema a deployment moving the store elsewhere reproduces (docs/cosign.md).
constexpr const char *kSchema =
    "CREATE TABLE IF NOT EXISTS shares ("
    " container_id TEXT PRIMARY KEY NOT NULL,"
    " algorithm TEXT NOT NULL CHECK (algorithm IN ('SM2', 'RSA')),"
    " device_number TEXT NOT NULL,"
    " public_key BLOB NOT NULL,"
    " public_exponent BLOB,"
    " share BLOB NOT NULL,"
    " share_inverse BLOB,"
    " created INTEGER NOT NULL)";

// Scrubs statement bindings and results as soon as a step is done.
struct Resetter {
  sqlite3_stmt *stmt;
  ~Resetter() {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
};

void CopyBlob(sqlite3_stmt *stmt, int column, std::vector<uint8_t> *out) {
  const auto *p = static_cast<const uint8_t *>(sqlite3_column_blob(stmt, column));
  out->assign(p, p + sqlite3_column_bytes(stmt, column));
}

void CopySecret(sqlite3_stmt *stmt, int column, SecureBytes *out) {
  const auto *p = static_cast<const uint8_t *>(sqlite3_column_blob(stmt, column));
  *out = SecureBytes(p, static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
}

int BindBlob(sqlite3_stmt *stmt, int index, std::span<const uint8_t> bytes) {
  if (bytes.empty()) return sqlite3_bind_null(stmt, index);
  return sqlite3_bind_blob(stmt, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
}

}  // namespace

std::unique_ptr<ShareStore> ShareStore::Open(const std::string &path, std::string *why) {
  if (path != ":memory:") {
    // The file exists with mode 0600 before SQLite sees it; SQLite gives
    // its -wal and -shm files the same mode.
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || fchmod(fd, 0600) != 0) {
      *why = path + ": " + std::strerror(errno);
      if (fd >= 0) close(fd);
      return nullptr;
    }
    close(fd);
  }
  std::unique_ptr<ShareStore> store(new ShareStore);
  if (sqlite3_open_v2(path.c_str(), &store->db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    *why = path + ": " + (store->db_ != nullptr ? sqlite3_errmsg(store->db_) : "cannot open");
    return nullptr;
  }
  sqlite3_busy_timeout(store->db_, 5000);
  // WAL with a sync at every commit: an answered key survives a crash of
  // the process and of the machine. secure_delete overwrites freed pages.
  const char *setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA secure_delete=ON;";
  char *error = nullptr;
  if (sqlite3_exec(store->db_, setup, nullptr, nullptr, &error) != SQLITE_OK ||
      sqlite3_exec(store->db_, kSchema, nullptr, nullptr, &error) != SQLITE_OK) {
    *why = path + ": " + (error != nullptr ? error : "cannot set up");
    sqlite3_free(error);
    return nullptr;
  }
  if (!store->Prepare(why)) return nullptr;
  return store;
}

bool ShareStore::Prepare(std::string *why) {
  const char *insert =
      "INSERT INTO shares (container_id, algorithm, device_number, public_key, public_exponent, share,"
      " share_inverse, created) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
  const char *select =
      "SELECT algorithm, device_number, public_key, public_exponent, share, share_inverse FROM shares"
      " WHERE container_id = ?1";
  if (sqlite3_prepare_v2(db_, insert, -1, &insert_, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db_, select, -1, &select_, nullptr) != SQLITE_OK) {
    *why = sqlite3_errmsg(db_);
    return false;
  }
  return true;
}

ShareStore::~ShareStore() {
  sqlite3_finalize(insert_);
  sqlite3_finalize(select_);
  sqlite3_close(db_);
}

StoreResult ShareStore::Put(const std::string &container_id, const ShareRecord &record) {
  std::lock_guard lock(mutex_);
  Resetter reset{insert_};
  // One INSERT is one transaction of its own; SQLite commits (and, with
  // synchronous=FULL, syncs the WAL) before step returns.
  if (sqlite3_bind_text(insert_, 1, container_id.c_str(), -1, SQLITE_STATIC) != SQLITE_OK ||
      sqlite3_bind_text(insert_, 2, record.algorithm == Algorithm::kSm2 ? "SM2" : "RSA", -1, SQLITE_STATIC) !=
          SQLITE_OK ||
      sqlite3_bind_text(insert_, 3, record.device_number.c_str(), -1, SQLITE_STATIC) != SQLITE_OK ||
      BindBlob(insert_, 4, record.public_key) != SQLITE_OK ||
      BindBlob(insert_, 5, record.public_exponent) != SQLITE_OK ||
      BindBlob(insert_, 6, record.share.span()) != SQLITE_OK ||
      BindBlob(insert_, 7, record.share_inverse.span()) != SQLITE_OK ||
      sqlite3_bind_int64(insert_, 8, static_cast<sqlite3_int64>(std::time(nullptr))) != SQLITE_OK) {
    return StoreResult::kFailed;
  }
  const int rc = sqlite3_step(insert_);
  if (rc == SQLITE_DONE) return StoreResult::kOk;
  if (sqlite3_extended_errcode(db_) == SQLITE_CONSTRAINT_PRIMARYKEY) return StoreResult::kExists;
  return StoreResult::kFailed;
}

StoreResult ShareStore::Get(const std::string &container_id, ShareRecord *out) {
  std::lock_guard lock(mutex_);
  Resetter reset{select_};
  if (sqlite3_bind_text(select_, 1, container_id.c_str(), -1, SQLITE_STATIC) != SQLITE_OK) {
    return StoreResult::kFailed;
  }
  const int rc = sqlite3_step(select_);
  if (rc == SQLITE_DONE) return StoreResult::kMissing;
  if (rc != SQLITE_ROW) return StoreResult::kFailed;
  const auto *algorithm = reinterpret_cast<const char *>(sqlite3_column_text(select_, 0));
  out->algorithm = algorithm != nullptr && std::strcmp(algorithm, "RSA") == 0 ? Algorithm::kRsa : Algorithm::kSm2;
  const auto *device = reinterpret_cast<const char *>(sqlite3_column_text(select_, 1));
  out->device_number = device != nullptr ? device : "";
  CopyBlob(select_, 2, &out->public_key);
  CopyBlob(select_, 3, &out->public_exponent);
  CopySecret(select_, 4, &out->share);
  CopySecret(select_, 5, &out->share_inverse);
  return StoreResult::kOk;
}

}  // namespace zeph::cosign
