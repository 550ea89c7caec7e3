// Seals against the OpenSSL command line: signatures made there verify here,
// pictures cut out there match, and every sample's signatures get the same
// verdict there and here. Each test runs OpenSSL in one shell.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "oracle.hpp"
#include "seal/seal_internal.hpp"
#include "seal/seal_reader.hpp"
#include "seal_test.hpp"
#include "zeph_c_status.h"

using namespace seal_test;
namespace reader = zeph::seal::reader;

namespace {

const std::string kSm2Opts = " -rawin -digest sm3 -pkeyopt distid:1234567812345678";

class SealInterop : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<zeph_test::TempDir>();
    ASSERT_EQ(Shell("openssl genpkey -algorithm SM2 -out key.pem && openssl req -new -x509 -key key.pem -sm3 "
                    "-sigopt distid:1234567812345678 -subj /CN=seal -days 2 -outform DER -out cert.der"),
              0);
  }
  static void TearDownTestSuite() { dir_.reset(); }

  static std::string Path(const std::string &name) { return dir_->file(name); }
  // Runs script in the folder: its exit code.
  static int Shell(const std::string &script) {
    return zeph_test::Shell("cd '" + dir_->path().string() + "' && ( " + script + " )");
  }

  static inline std::unique_ptr<zeph_test::TempDir> dir_;
};

std::string Report(const Bytes &sig, const Bytes &doc) {
  std::string out(1024, '\0');
  auto len = static_cast<uint32_t>(out.size());
  ZEPH_C_SealVerify(sig.data(), sig.size(), doc.data(), doc.size(), out.data(), &len);
  return out.substr(0, len);
}

size_t Offset(const Bytes &in, reader::Bytes part) { return static_cast<size_t>(part.data() - in.data()); }

TEST_F(SealInterop, SignaturesMadeByOpenSslVerifyHere) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes cert = zeph_test::ReadBytes(Path("cert.der"));
  const Bytes doc = Text("document");
  const Bytes hash = zeph_test::Sm3({doc});
  const Bytes gb_tbs = GbTbs(1, gb, "20210601000000Z", hash, "p");
  const Bytes ses_tbs = SesTbs(SesSeal(), Text("20210601000000Z"), hash, cert);
  zeph_test::WriteBytes(Path("gb.tbs"), gb_tbs);
  zeph_test::WriteBytes(Path("ses.tbs"), ses_tbs);
  // A value ending in 0x00 loses that octet in the seal's BIT STRING (kept
  // encoding rule) and no longer verifies: sign again until it does not.
  ASSERT_EQ(Shell("for f in gb ses; do while openssl pkeyutl -sign -inkey key.pem" + kSm2Opts +
                  " -in $f.tbs -out $f.sig || exit 1; [ \"$(tail -c 1 $f.sig | od -An -tx1)\" = ' 00' ]; do :; done; "
                  "done"),
            0);

  const Bytes gb_sig = GbSig(gb_tbs, zeph_test::ReadBytes(Path("gb.sig")), cert);
  const Bytes any = {1};
  EXPECT_EQ(ZEPH_C_VerifyGBSESSignature(gb.data(), gb.size(), any.data(), 1, any.data(), 1, any.data(), 1, any.data(),
                                        1, gb_sig.data(), gb_sig.size(), 0),
            0u);
  // The reader agrees; the OpenSSL certificate is not in the seal's list.
  EXPECT_EQ(Report(gb_sig, doc),
            R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":false,)"
            R"("documentHash":true,"timeStamp":false,"valid":false})");
  // The rebuilt SES seal no longer carries a valid maker signature.
  const Bytes ses_sig = SesSig(ses_tbs, zeph_test::ReadBytes(Path("ses.sig")));
  EXPECT_EQ(Report(ses_sig, doc).substr(0, 41), R"({"makerSignature":false,"signature":true,)");
}

// Every sample's picture as OpenSSL cuts it out, and its maker's and
// signer's signatures with OpenSSL's verdict.
TEST_F(SealInterop, SamplesGetOpenSslsPicturesAndVerdicts) {
  struct Check {
    std::string what;
    Bytes cert, data, sig;
  };
  std::vector<Check> checks;
  std::vector<std::pair<std::string, Bytes>> pictures;
  std::string script = "true";
  for (const char *file : {"ses-v1-user.esl", "gb-v4-user.esl", "gb-v4-seal-gif.der", "v5-user.esl",
                           "gb-v4-signature.dat", "v5-signature.dat"}) {
    const Bytes in = Sample(file);
    const auto sig = reader::ReadSignature(in);
    const auto seal = sig ? std::optional<reader::SealView>(sig->seal) : reader::ReadSeal(in);
    ASSERT_TRUE(seal) << file;
    const reader::Bytes pic = seal->pic_data;
    const size_t header = pic.size() < 0x80 ? 2 : pic.size() < 0x100 ? 3 : pic.size() < 0x10000 ? 4 : 5;
    const std::string out = "pic" + std::to_string(pictures.size());
    script += "; openssl asn1parse -inform DER -in '" + std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/" + file +
              "' -strparse " + std::to_string(Offset(in, pic) - header) + " -noout -out " + out;
    uint32_t len = 0;
    ASSERT_EQ(ZEPH_C_SealPicture(in.data(), in.size(), nullptr, &len), 0u);
    Bytes ours(len);
    ASSERT_EQ(ZEPH_C_SealPicture(in.data(), in.size(), ours.data(), &len), 0u);
    pictures.emplace_back(file, ours);

    const Bytes info(seal->info.whole.begin(), seal->info.whole.end());
    const Bytes tail(seal->maker_cert_and_alg.begin(), seal->maker_cert_and_alg.end());
    checks.push_back({std::string(file) + " maker", Bytes(seal->maker_cert.begin(), seal->maker_cert.end()),
                      seal->family == reader::Family::kGb ? info : Tlv(0x30, {info, tail}),
                      reader::SignatureDer(seal->maker_signature).der});
    if (sig) {
      checks.push_back({std::string(file) + " signer", Bytes(sig->signer_cert.begin(), sig->signer_cert.end()),
                        Bytes(sig->to_sign.whole.begin(), sig->to_sign.whole.end()),
                        reader::SignatureDer(sig->signature).der});
    }
  }
  for (size_t i = 0; i < checks.size(); ++i) {
    const std::string n = std::to_string(i);
    zeph_test::WriteBytes(Path("c" + n), checks[i].cert);
    zeph_test::WriteBytes(Path("d" + n), checks[i].data);
    zeph_test::WriteBytes(Path("s" + n), checks[i].sig);
    script += "; openssl x509 -inform DER -in c" + n + " -pubkey -noout > p" + n + "; if openssl pkeyutl -verify " +
              "-pubin -inkey p" + n + kSm2Opts + " -in d" + n + " -sigfile s" + n + "; then echo ok > v" + n +
              "; else echo bad > v" + n + "; fi";
  }
  Shell(script);
  for (size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_EQ(zeph_test::ReadBytes(Path("pic" + std::to_string(i))), pictures[i].second) << pictures[i].first;
  }
  int failures = 0;
  for (size_t i = 0; i < checks.size(); ++i) {
    const Bytes verdict = zeph_test::ReadBytes(Path("v" + std::to_string(i)));
    const bool openssl = verdict == Text("ok\n");
    ASSERT_TRUE(openssl || verdict == Text("bad\n")) << checks[i].what;
    const bool ours = zeph::seal::VerifySm2WithCert(checks[i].cert, {checks[i].data}, checks[i].sig) == 0;
    EXPECT_EQ(ours, openssl) << checks[i].what;
    failures += openssl ? 0 : 1;
  }
  EXPECT_EQ(checks.size(), 8u);
  EXPECT_EQ(failures, 1) << "only the GIF seal's maker signature is broken";
}

}  // namespace
