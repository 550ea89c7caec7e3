// Seals against the OpenSSL command line: signatures made there verify here,
// the builders' output parses there with every field where the reader finds
// it, pictures cut out there match, and every sample's signatures get the
// same verdict there and here. Each test runs OpenSSL once, in one shell.
#include <cstdio>
#include <map>
#include <sstream>
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

const char *const kSm2Sm3 = "1.2.156.10197.1.501";
const std::string kSm2Opts = " -rawin -digest sm3 -pkeyopt distid:1234567812345678";

class SealInterop : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new zeph_test::TempDir;
    ASSERT_EQ(Shell("openssl genpkey -algorithm SM2 -out key.pem && openssl req -new -x509 -key key.pem -sm3 "
                    "-sigopt distid:1234567812345678 -subj /CN=seal -days 2 -outform DER -out cert.der"),
              0);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }

  static std::string Path(const std::string &name) { return dir_->file(name); }
  static int Shell(const std::string &script) {
    return std::system(("cd '" + dir_->path().string() + "' && ( " + script + " ) >/dev/null 2>&1").c_str());
  }
  static std::string Capture(const std::string &command) {
    std::string out;
    zeph_test::Shell("( cd '" + dir_->path().string() + "' && " + command + " 2>/dev/null )", &out);
    return out;
  }
  // `len` by reference: it is read after the call that fills it.
  static Bytes Built(uint32_t status, const Bytes &buffer, const uint32_t &len) {
    EXPECT_EQ(status, 0u);
    return Bytes(buffer.begin(), buffer.begin() + (status == 0 ? len : 0));
  }

  static zeph_test::TempDir *dir_;
};

zeph_test::TempDir *SealInterop::dir_ = nullptr;

std::string Report(const Bytes &sig, const Bytes &doc) {
  std::string out(1024, '\0');
  auto len = static_cast<uint32_t>(out.size());
  ZEPH_C_SealVerify(sig.data(), sig.size(), doc.data(), doc.size(), out.data(), &len);
  return out.substr(0, len);
}

size_t Offset(const Bytes &in, reader::Bytes part) { return static_cast<size_t>(part.data() - in.data()); }

TEST_F(SealInterop, SignaturesMadeByOpenSslVerifyHere) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes ses = SesSeal();
  const Bytes cert = zeph_test::ReadBytes(Path("cert.der"));
  const Bytes doc = Text("document");
  const Bytes hash = zeph_test::Sm3({doc});
  Bytes buf(40000);
  auto len = static_cast<uint32_t>(buf.size());
  const Bytes gb_tbs = Built(
      ZEPH_C_GetGBTBSSignData(1, gb.data(), gb.size(), "20210601000000Z", 0, hash.data(), 32, "p", 1, buf.data(), &len),
      buf, len);
  len = static_cast<uint32_t>(buf.size());
  const Bytes when = Text("20210601000000Z");
  const Bytes ses_tbs = Built(ZEPH_C_GetTBSSignData(1, ses.data(), ses.size(), when.data(), when.size(), hash.data(),
                                                    32, "p", 1, cert.data(), cert.size(), kSm2Sm3, buf.data(), &len),
                              buf, len);
  zeph_test::WriteBytes(Path("gb.tbs"), gb_tbs);
  zeph_test::WriteBytes(Path("ses.tbs"), ses_tbs);
  // A value ending in 0x00 loses that octet in the seal's BIT STRING (kept
  // encoding rule) and no longer verifies: sign again until it does not.
  ASSERT_EQ(Shell("for f in gb ses; do while openssl pkeyutl -sign -inkey key.pem" + kSm2Opts +
                  " -in $f.tbs -out $f.sig || exit 1; [ \"$(tail -c 1 $f.sig | od -An -tx1)\" = ' 00' ]; do :; done; "
                  "done"),
            0);
  const Bytes gb_value = zeph_test::ReadBytes(Path("gb.sig"));
  const Bytes ses_value = zeph_test::ReadBytes(Path("ses.sig"));

  len = static_cast<uint32_t>(buf.size());
  const Bytes gb_sig = Built(ZEPH_C_GetGBSESSignature(gb_tbs.data(), gb_tbs.size(), gb_value.data(), gb_value.size(),
                                                      cert.data(), cert.size(), kSm2Sm3, buf.data(), &len),
                             buf, len);
  const Bytes any = {1};
  EXPECT_EQ(ZEPH_C_VerifyGBSESSignature(gb.data(), gb.size(), any.data(), 1, any.data(), 1, any.data(), 1, any.data(),
                                        1, gb_sig.data(), gb_sig.size(), 0),
            0u);
  // The reader agrees; the OpenSSL certificate is not in the seal's list.
  EXPECT_EQ(Report(gb_sig, doc),
            R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":false,)"
            R"("documentHash":true,"timeStamp":false,"valid":false})");

  len = static_cast<uint32_t>(buf.size());
  const Bytes ses_sig = Built(
      ZEPH_C_GetSESSignature(ses_tbs.data(), ses_tbs.size(), ses_value.data(), ses_value.size(), buf.data(), &len), buf,
      len);
  // The rebuilt SES seal no longer carries a valid maker signature.
  EXPECT_EQ(Report(ses_sig, doc).substr(0, 41), R"({"makerSignature":false,"signature":true,)");
}

// "offset:d=depth hl=header l=length prim|cons: TYPE ..." lines by offset.
struct Line {
  int depth = 0;
  size_t header = 0, length = 0;
  std::string type;
};

std::map<size_t, Line> Asn1parse(const std::string &listing) {
  std::map<size_t, Line> lines;
  std::istringstream in(listing);
  for (std::string text; std::getline(in, text);) {
    size_t offset = 0;
    Line l;
    char kind[8] = {0};
    char type[32] = {0};
    if (std::sscanf(text.c_str(), " %zu:d=%d hl=%zu l=%zu %7[a-z]: %31[A-Z0-9 ]", &offset, &l.depth, &l.header,
                    &l.length, kind, type) == 6) {
      l.type = type;
      while (!l.type.empty() && l.type.back() == ' ') l.type.pop_back();
      lines[offset] = l;
    }
  }
  return lines;
}

TEST_F(SealInterop, BuildersOutputParsesWithFieldsWhereTheReaderFindsThem) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes hash(32, 0x42);
  Bytes buf(40000);
  auto len = static_cast<uint32_t>(buf.size());
  const Bytes tbs = Built(ZEPH_C_GetGBTBSSignData(2, gb.data(), gb.size(), "20210601000000Z", 0, hash.data(), 32,
                                                  "/Doc_0/Signature.xml", 20, buf.data(), &len),
                          buf, len);
  const Signer signer;
  const Bytes value = signer.Sign(tbs);
  len = static_cast<uint32_t>(buf.size());
  const Bytes sig = Built(ZEPH_C_GetGBSESSignature(tbs.data(), tbs.size(), value.data(), value.size(),
                                                   signer.cert.data(), signer.cert.size(), kSm2Sm3, buf.data(), &len),
                          buf, len);
  zeph_test::WriteBytes(Path("built.der"), sig);
  const auto lines = Asn1parse(Capture("openssl asn1parse -inform DER -in built.der"));
  ASSERT_FALSE(lines.empty());
  const auto view = reader::ReadSignature(sig);
  ASSERT_TRUE(view);

  // Each field the reader reports, as a whole TLV or as contents (BIT STRING
  // contents start past the unused-bits octet), is a value asn1parse lists.
  const auto expect = [&](const char *what, reader::Bytes part, const std::string &type, int depth) {
    const size_t at = Offset(sig, part);
    const size_t skip = type == "BIT STRING" ? 1 : 0;
    for (const auto &[offset, l] : lines) {
      const bool whole = offset == at && l.header + l.length == part.size();
      const bool content = offset + l.header + skip == at && l.length - skip == part.size();
      if ((whole || content) && l.type == type && l.depth == depth) return;
    }
    ADD_FAILURE() << what << " is no " << type << " at depth " << depth << " that asn1parse lists";
  };
  expect("toSign", view->to_sign.whole, "SEQUENCE", 1);
  expect("timeInfo", view->time_info.whole, "BIT STRING", 2);
  expect("seal information", view->seal.info.whole, "SEQUENCE", 3);
  expect("dataHash", view->data_hash, "BIT STRING", 2);
  expect("propertyInfo", view->property, "IA5STRING", 2);
  expect("signer certificate", view->signer_cert, "OCTET STRING", 1);
  expect("signature", view->signature, "BIT STRING", 1);
  expect("picture", view->seal.pic_data, "OCTET STRING", 5);
  expect("seal name", view->seal.name, "UTF8STRING", 5);
  EXPECT_EQ(Bytes(view->time_info.content.begin(), view->time_info.content.end()),
            Cat({{0x01}, Text("20210601000000Z")}));
  EXPECT_EQ(Bytes(view->signature.begin(), view->signature.end()), value);
  EXPECT_EQ(lines.rbegin()->second.type, "BIT STRING") << "no [0] time stamps after the signature";
}

TEST_F(SealInterop, PicturesCutOutByOpenSslMatch) {
  const char *const files[] = {"ses-v1-user.esl", "gb-v4-user.esl",      "gb-v4-seal-gif.der",
                               "v5-user.esl",     "gb-v4-signature.dat", "v5-signature.dat"};
  std::string script = "true";
  std::vector<Bytes> ours;
  for (size_t i = 0; i < std::size(files); ++i) {
    const Bytes in = Sample(files[i]);
    const auto seal = reader::ReadSeal(in);
    const auto sig = seal ? std::nullopt : reader::ReadSignature(in);
    ASSERT_TRUE(seal || sig) << files[i];
    const reader::Bytes pic = seal ? seal->pic_data : sig->seal.pic_data;
    const size_t header = pic.size() < 0x80 ? 2 : pic.size() < 0x100 ? 3 : pic.size() < 0x10000 ? 4 : 5;
    script += " && openssl asn1parse -inform DER -in '" + std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/" +
              files[i] + "' -strparse " + std::to_string(Offset(in, pic) - header) + " -noout -out pic" +
              std::to_string(i);
    uint32_t len = 0;
    ASSERT_EQ(ZEPH_C_SealPicture(in.data(), in.size(), nullptr, &len), 0u);
    Bytes out(len);
    ASSERT_EQ(ZEPH_C_SealPicture(in.data(), in.size(), out.data(), &len), 0u);
    ours.push_back(out);
  }
  ASSERT_EQ(Shell(script), 0);
  for (size_t i = 0; i < std::size(files); ++i) {
    EXPECT_EQ(zeph_test::ReadBytes(Path("pic" + std::to_string(i))), ours[i]) << files[i];
  }
}

TEST_F(SealInterop, SampleSignaturesGetOpenSslsVerdict) {
  struct Check {
    std::string what;
    Bytes cert, data, sig;
  };
  std::vector<Check> checks;
  for (const char *file : {"ses-v1-user.esl", "gb-v4-user.esl", "gb-v4-seal-gif.der", "v5-user.esl",
                           "gb-v4-signature.dat", "v5-signature.dat"}) {
    const Bytes in = Sample(file);
    const auto sig = reader::ReadSignature(in);
    const auto seal = sig ? std::optional<reader::SealView>(sig->seal) : reader::ReadSeal(in);
    ASSERT_TRUE(seal) << file;
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
  std::string script = "true";
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
