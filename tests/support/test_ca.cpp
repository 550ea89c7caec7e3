#include "test_ca.hpp"

#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509.h>

namespace zeph_test {
namespace {

namespace fs = std::filesystem;

constexpr char kSm2Sign[] = " -sm3 -sigopt distid:1234567812345678";
constexpr char kSm2Verify[] = " -vfyopt distid:1234567812345678";

std::string KeyCommand(TestCa::Alg alg, const std::string &file) {
  return alg == TestCa::Alg::kSm2 ? "openssl genpkey -algorithm SM2 -out " + file
                                  : "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + file;
}

const char kBaseConfig[] = R"([req]
distinguished_name = dn
[dn]
[v3_ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[v3_inter]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
)";

// Root and intermediate, made in `work`.
void MakeBase(TestCa::Alg alg, const std::string &work) {
  const std::string sign = alg == TestCa::Alg::kSm2 ? kSm2Sign : " -sha256";
  const std::string verify = alg == TestCa::Alg::kSm2 ? kSm2Verify : "";
  const std::string name = alg == TestCa::Alg::kSm2 ? "SM2" : "RSA";
  WriteText(work + "/base.cnf", kBaseConfig);
  RunIn(work,
        KeyCommand(alg, "root.key") + " && " + KeyCommand(alg, "inter.key") + " && " + KeyCommand(alg, "leaf.key"));
  RunIn(work, "openssl req -x509 -new -key root.key -subj '/C=CN/O=zeph test/CN=zeph test root " + name +
                  "' -days 3650 -config base.cnf -extensions v3_ca -out root.pem" + sign);
  RunIn(work, "openssl req -new -key inter.key -subj '/C=CN/O=zeph test/CN=zeph test issuing " + name +
                  "' -config base.cnf -out inter.csr" + sign);
  RunIn(work,
        "openssl x509 -req -in inter.csr -CA root.pem -CAkey root.key -set_serial 1 -days 3650 -extfile base.cnf "
        "-extensions v3_inter -out inter.pem" +
            sign + verify);
}

// Made once per build and shared by every test process.
std::string Base(TestCa::Alg alg) {
  return MadeOnce(alg == TestCa::Alg::kSm2 ? "test-ca-sm2-2" : "test-ca-rsa-2",
                  [alg](const std::string &work, const std::string &) { MakeBase(alg, work); });
}

}  // namespace

TestCa::TestCa(Alg alg) : alg_(alg), base_(Base(alg)) {
  const std::string d = dir();
  for (const char *f : {"root.pem", "inter.pem", "inter.key"}) fs::copy_file(base_ + "/" + f, d + "/" + f);
  fs::create_directory(d + "/newcerts");
  WriteText(d + "/index.txt", "");
  std::random_device rd;
  WriteText(d + "/serial", std::to_string(1000 + rd() % 8000) + "\n");
  WriteText(d + "/crlnumber", "01\n");
  WriteText(d + "/ca.cnf", "[ca]\ndefault_ca = issuing\n[issuing]\ndir = " + d +
                               "\ndatabase = $dir/index.txt\nnew_certs_dir = $dir/newcerts\nserial = $dir/serial\n"
                               "crlnumber = $dir/crlnumber\ncertificate = $dir/inter.pem\nprivate_key = "
                               "$dir/inter.key\ndefault_md = " +
                               std::string(alg == Alg::kSm2 ? "sm3" : "sha256") +
                               "\npolicy = any\nunique_subject = no\ndefault_days = 365\ndefault_crl_days = 7\n"
                               "[any]\ncommonName = supplied\norganizationName = optional\ncountryName = optional\n");
}

std::string TestCa::root() const { return dir() + "/root.pem"; }
std::string TestCa::intermediate() const { return dir() + "/inter.pem"; }

void TestCa::Run(const std::string &command) const { RunIn(dir(), command); }

std::string TestCa::SignArgs() const { return alg_ == Alg::kSm2 ? kSm2Sign : " -sha256"; }

std::string TestCa::Issue(const std::string &name, const LeafOptions &o) {
  const bool sm2 = alg_ == Alg::kSm2;
  std::string csr = o.csr;
  if (csr.empty()) {
    const std::string subject = "/CN=" + name + "/O=zeph test";
    // Every leaf shares one key made with the CA: key generation is what
    // would cost time here.
    fs::copy_file(base_ + "/leaf.key", dir() + "/" + name + ".key");
    Run("openssl req -new -key " + name + ".key -subj '" + subject + "' -out " + name + ".csr" + SignArgs());
    csr = name + ".csr";
  }
  std::string ext =
      "[leaf]\nbasicConstraints = CA:FALSE\nkeyUsage = critical, digitalSignature, nonRepudiation, "
      "keyEncipherment, dataEncipherment\nsubjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid\n";
  if (!o.crl_urls.empty()) {
    ext += "crlDistributionPoints = ";
    for (size_t i = 0; i < o.crl_urls.size(); ++i) ext += (i != 0 ? ", URI:" : "URI:") + o.crl_urls[i];
    ext += "\n";
  }
  if (!o.ocsp_url.empty()) ext += "authorityInfoAccess = OCSP;URI:" + o.ocsp_url + "\n";
  WriteText(dir() + "/" + name + ".ext", ext);
  const std::string verify = sm2 ? kSm2Verify : "";
  const std::string sign = sm2 ? (o.default_id ? " -sigopt distid:1234567812345678" : "") : "";
  const std::string csr_form = csr.size() > 4 && csr.substr(csr.size() - 4) == ".der" ? " -inform DER" : "";
  if (o.outside_database) {
    Run("openssl x509 -req -in '" + csr + "'" + csr_form + " -CA inter.pem -CAkey inter.key -set_serial 0x" +
        std::to_string(std::random_device()()) + " -days 365 -extfile " + name + ".ext -extensions leaf -out " + name +
        ".pem" + (sm2 ? " -sm3" : " -sha256") + sign + verify);
  } else {
    // openssl ca reads a request in PEM only.
    if (!csr_form.empty()) {
      Run("openssl req -inform DER -in '" + csr + "' -out " + name + ".csr.pem");
      csr = name + ".csr.pem";
    }
    const std::string dates =
        o.start.empty() ? std::string(" -days 365") : " -startdate " + o.start + " -enddate " + o.end;
    Run("openssl ca -batch -notext -config ca.cnf -in '" + csr + "' -out " + name + ".pem -extfile " + name +
        ".ext -extensions leaf" + dates + sign + verify);
  }
  return dir() + "/" + name + ".pem";
}

void TestCa::Revoke(const std::string &name) { Run("openssl ca -config ca.cnf -revoke " + name + ".pem"); }

std::string TestCa::Crl() {
  const std::string sign = alg_ == Alg::kSm2 ? " -sigopt distid:1234567812345678" : "";
  Run("openssl ca -config ca.cnf -gencrl -crldays 7 -out crl.pem" + sign);
  const auto bytes = ReadBytes(dir() + "/crl.pem");
  return {bytes.begin(), bytes.end()};
}

std::string TestCa::ResponderArgs() const {
  return " -index index.txt -CA inter.pem -rsigner inter.pem -rkey inter.key" +
         std::string(alg_ == Alg::kSm2 ? " -rmd sm3 -rsigopt distid:1234567812345678" : "");
}

int TestCa::StartOcspResponder() {
  std::vector<std::string> argv = {"sh", "-c", "cd '" + dir() + "' && exec openssl ocsp -port 0" + ResponderArgs()};
  responder_ = std::make_unique<Child>(argv, true);
  return ListeningPort(responder_->pid());
}

std::string TestCa::OcspResponse(const std::string &name) {
  Run("openssl ocsp -issuer inter.pem -cert " + name + ".pem -no_nonce -reqout " + name + ".ocq && openssl ocsp" +
      ResponderArgs() + " -reqin " + name + ".ocq -respout " + name + ".ocr");
  const auto bytes = ReadBytes(dir() + "/" + name + ".ocr");
  return {bytes.begin(), bytes.end()};
}

std::vector<uint8_t> TestCa::Der(const std::string &pem_file) {
  const std::vector<uint8_t> pem = ReadBytes(pem_file);
  BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509 *x = bio != nullptr ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  unsigned char *der = nullptr;
  const int len = x != nullptr ? i2d_X509(x, &der) : 0;
  X509_free(x);
  if (len <= 0) throw std::runtime_error("no certificate in " + pem_file);
  std::vector<uint8_t> out(der, der + len);
  OPENSSL_free(der);
  return out;
}

}  // namespace zeph_test
