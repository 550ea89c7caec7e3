// Seals against the OpenSSL command line: every sample's picture as OpenSSL
// cuts it out, and its signatures get the same verdict there and here, all
// in one shell.
#include <optional>
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

size_t Offset(const Bytes &in, reader::Bytes part) { return static_cast<size_t>(part.data() - in.data()); }

TEST(SealInterop, SamplesGetOpenSslsPicturesAndVerdicts) {
  const zeph_test::TempDir dir;
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
    zeph_test::WriteBytes(dir.file("c" + n), checks[i].cert);
    zeph_test::WriteBytes(dir.file("d" + n), checks[i].data);
    zeph_test::WriteBytes(dir.file("s" + n), checks[i].sig);
    script += "; openssl x509 -inform DER -in c" + n + " -pubkey -noout > p" + n + "; if openssl pkeyutl -verify " +
              "-pubin -inkey p" + n + kSm2Opts + " -in d" + n + " -sigfile s" + n + "; then echo ok > v" + n +
              "; else echo bad > v" + n + "; fi";
  }
  zeph_test::Shell("cd '" + dir.path().string() + "' && ( " + script + " )");
  for (size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_EQ(zeph_test::ReadBytes(dir.file("pic" + std::to_string(i))), pictures[i].second) << pictures[i].first;
  }
  int failures = 0;
  for (size_t i = 0; i < checks.size(); ++i) {
    const Bytes verdict = zeph_test::ReadBytes(dir.file("v" + std::to_string(i)));
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
