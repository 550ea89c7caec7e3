// A two-level CA run with `openssl ca`: a root, an intermediate that issues
// end entities, revocation and CRLs, and an `openssl ocsp` responder on a
// loopback port. RSA 2048 or SM2 (signatures with the default identity
// 1234567812345678). The root and intermediate are made once per build and
// shared by every test process; each TestCa works on its own copy of the
// intermediate's database.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "loopback.hpp"
#include "test_support.hpp"

namespace zeph_test {

class TestCa {
 public:
  enum class Alg { kRsa, kSm2 };

  // How to issue an end entity; the setters chain.
  struct LeafOptions {
    std::vector<std::string> crl_urls;  // CRL distribution points
    std::string ocsp_url;               // AIA OCSP
    std::string start, end;             // YYYYMMDDHHMMSSZ; default: now, one year
    std::string csr;                    // a request to sign (PEM, or DER as *.der) instead of a new key
    bool default_id = true;             // SM2: sign with 1234567812345678 (else OpenSSL's empty one)
    bool outside_database = false;      // issued with `openssl x509`: the responder does not know it

    LeafOptions &Crl(std::vector<std::string> urls) { return crl_urls = std::move(urls), *this; }
    LeafOptions &Ocsp(std::string url) { return ocsp_url = std::move(url), *this; }
    LeafOptions &Valid(std::string from, std::string to) { return start = std::move(from), end = std::move(to), *this; }
    LeafOptions &Request(std::string file) { return csr = std::move(file), *this; }
    LeafOptions &EmptyId() { return default_id = false, *this; }
    LeafOptions &Outside() { return outside_database = true, *this; }
  };

  explicit TestCa(Alg alg);
  Alg alg() const { return alg_; }
  std::string dir() const { return dir_.path().string(); }
  // PEM files.
  std::string root() const;
  std::string intermediate() const;

  // Issues an end-entity certificate; returns its PEM file (key beside it
  // as <name>.key unless a request was given; all such leaves share a key).
  std::string Issue(const std::string &name, const LeafOptions &options);
  std::string Issue(const std::string &name) { return Issue(name, LeafOptions()); }
  void Revoke(const std::string &name);
  // A fresh CRL of the intermediate, PEM bytes.
  std::string Crl();
  // `openssl ocsp` for the intermediate's database, on a port of its own
  // choosing (returned); reaped with the CA. It reads the database once:
  // issue and revoke first.
  int StartOcspResponder();
  // The responder's answer for one leaf, made offline (no nonce), DER.
  std::string OcspResponse(const std::string &name);

  static std::vector<uint8_t> Der(const std::string &pem_file);

 private:
  void Run(const std::string &command) const;
  std::string SignArgs() const;       // digest and identity options for signing
  std::string ResponderArgs() const;  // -index ... -rkey ... for `openssl ocsp`

  Alg alg_;
  std::string base_;
  TempDir dir_;
  std::unique_ptr<Child> responder_;
};

}  // namespace zeph_test
