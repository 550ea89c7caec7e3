// Known-answer self-tests of the module's own SM3, SM4 and SM2. The vectors
// are the GM/T 0002, 0003 and 0004 examples, except where a note says how a
// vector was made.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

#include "foundation/owned.hpp"
#include "foundation/sm2_params.hpp"
#include "gm/selftest_fault.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_sm2.h"

namespace {

using zeph::gm::selftest::Fault;
using zeph::gm::selftest::Spoil;
using Bytes = std::vector<uint8_t>;

Bytes Hex(std::string_view hex) {
  auto nibble = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  Bytes out(hex.size() / 2);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<uint8_t>(nibble(hex[2 * i]) << 4 | nibble(hex[2 * i + 1]));
  return out;
}

Bytes Text(std::string_view s) { return Bytes(s.begin(), s.end()); }
uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// GM/T 0003.5: the key d = 3945208F...C5B8 on the recommended curve.
constexpr std::string_view kSm2PublicKey =
    "04"
    "09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020"
    "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13";

// GM/T 0002 example: key and plaintext alike.
constexpr std::string_view kSm4Key = "0123456789ABCDEFFEDCBA9876543210";
constexpr std::string_view kSm4Iv = "000102030405060708090A0B0C0D0E0F";
constexpr std::string_view kPaddedMessage = "zeph SM4 padding self-test";
// Made once with OpenSSL 3.0:
//   printf 'zeph SM4 padding self-test' | openssl enc -sm4-ecb -K <kSm4Key> | xxd -p
//   printf 'zeph SM4 padding self-test' | openssl enc -sm4-cbc -K <kSm4Key> -iv <kSm4Iv> | xxd -p
constexpr std::string_view kPaddedEcb = "3EAA32B557A136525898F285C5DE8C92932619DAF0F61C52620A82B244CF951D";
constexpr std::string_view kPaddedCbc = "AC6197242C10266A75A5A6C2782B7CAC83455E580B5AD92841D1252D47F73BB1";

// Self-tests exclude each other: the SM2 encryption test replaces OpenSSL's
// process-wide random method while it runs.
std::mutex &SelftestMutex() {
  static std::mutex mu;
  return mu;
}

template <class Test>
uint32_t Exclusive(Test &&test) {
  const std::lock_guard<std::mutex> lock(SelftestMutex());
  return test();
}

uint32_t Sm3Digest() {
  const struct {
    Bytes msg;
    Bytes digest;
  } cases[] = {
      {Text("abc"), Hex("66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0")},
      {Text("abcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcd"),
       Hex("DEBE9FF92275B8A138604889C18E5A4D6FDB70E5387E5765293DCBA39C0C5732")},
  };
  for (const auto &c : cases) {
    uint8_t one_shot[32], streamed[32];
    BIVO_SM3_CTX *ctx = nullptr;
    // Streamed in two pieces, so that a block is completed across updates.
    const uint32_t cut = Len(c.msg) / 3;
    if (BIVO_sm3_digest(c.msg.data(), Len(c.msg), one_shot) != 0 || BIVO_sm3_digest_init(&ctx) != 0 ||
        BIVO_sm3_digest_update(ctx, c.msg.data(), cut) != 0 ||
        BIVO_sm3_digest_update(ctx, c.msg.data() + cut, Len(c.msg) - cut) != 0 ||
        BIVO_sm3_digest_final(ctx, streamed) != 0) {
      return BIVO_ERR_TEST_SM3;
    }
    Spoil(Fault::kSm3, one_shot, 32);
    Spoil(Fault::kSm3Streaming, streamed, 32);
    if (std::memcmp(one_shot, c.digest.data(), 32) != 0 || std::memcmp(streamed, c.digest.data(), 32) != 0) {
      return BIVO_ERR_TEST_SM3;
    }
  }
  return 0;
}

uint32_t Sm3DigestWithPreprocess() {
  const Bytes key = Hex(kSm2PublicKey), msg = Text("message digest");
  // Made once with OpenSSL 3.0: Z = `openssl dgst -sm3` over
  // ENTL || "1234567812345678" || a || b || xG || yG || xA || yA, then
  // e = `openssl dgst -sm3` over Z || "message digest". It is also the
  // e of the GM/T 0003.5 signature example.
  const Bytes expected = Hex("F0B43E94BA45ACCAACE692ED534382EB17E6AB5A19CE7B31F4486FDFC0D28640");
  uint8_t one_shot[32], streamed[32];
  BIVO_SM3_CTX *ctx = nullptr;
  if (BIVO_ComputePreprocessSm3Digest(zeph::kDefaultSm2Id, key.data(), Len(key), msg.data(), Len(msg), one_shot) != 0 ||
      BIVO_ComputePreprocessSm3Digest_init(zeph::kDefaultSm2Id, key.data(), Len(key), &ctx) != 0 ||
      BIVO_ComputePreprocessSm3Digest_update(ctx, msg.data(), 7) != 0 ||
      BIVO_ComputePreprocessSm3Digest_update(ctx, msg.data() + 7, Len(msg) - 7) != 0 ||
      BIVO_ComputePreprocessSm3Digest_final(ctx, streamed) != 0) {
    return BIVO_ERR_TEST_PREPROCESS;
  }
  Spoil(Fault::kPreprocess, one_shot, 32);
  Spoil(Fault::kPreprocessStreaming, streamed, 32);
  if (std::memcmp(one_shot, expected.data(), 32) != 0 || std::memcmp(streamed, expected.data(), 32) != 0) {
    return BIVO_ERR_TEST_PREPROCESS;
  }
  return 0;
}

uint32_t Sm4EncryptAndDecrypt() {
  const Bytes key = Hex(kSm4Key), expected = Hex("681EDF34D206965E86B3E94F536E4246");
  uint8_t cipher[16], plain[16];
  if (BIVO_sm4_encrypt(key.data(), 16, key.data(), cipher) != 0) return BIVO_ERR_TEST_SM4_ENCRYPT;
  Spoil(Fault::kSm4Encrypt, cipher, 16);
  if (std::memcmp(cipher, expected.data(), 16) != 0) return BIVO_ERR_TEST_SM4_ENCRYPT;
  if (BIVO_sm4_decrypt(cipher, 16, key.data(), plain) != 0) return BIVO_ERR_TEST_SM4_DECRYPT;
  Spoil(Fault::kSm4Decrypt, plain, 16);
  return std::memcmp(plain, key.data(), 16) == 0 ? 0 : BIVO_ERR_TEST_SM4_DECRYPT;
}

uint32_t Sm4MillionEncrypt() {
  const Bytes key = Hex(kSm4Key), expected = Hex("595298C7C6FD271F0402F804C33D3F66");
  uint32_t rk[32];
  uint8_t block[16];
  std::memcpy(block, key.data(), 16);
  if (SM4_set_key(key.data(), rk) != 1) return BIVO_ERR_TEST_SM4_ENCRYPT;
  for (int i = 0; i < 1000000; ++i) SM4_encrypt(block, block, rk);
  Spoil(Fault::kSm4Encrypt, block, 16);
  return std::memcmp(block, expected.data(), 16) == 0 ? 0 : BIVO_ERR_TEST_SM4_ENCRYPT;
}

// The padded modes: ECB when iv is empty.
uint32_t Sm4PaddedEncrypt(std::string_view iv_hex, std::string_view expected_hex, Fault fault) {
  const Bytes key = Hex(kSm4Key), iv = Hex(iv_hex), msg = Text(kPaddedMessage), expected = Hex(expected_hex);
  uint8_t cipher[32];
  const uint32_t rv = iv.empty()
                          ? BIVO_Sm4EncryptWithAutoPadding(msg.data(), Len(msg), key.data(), cipher)
                          : BIVO_Sm4CbcEncryptWithAutoPadding(msg.data(), Len(msg), iv.data(), key.data(), cipher);
  if (rv != 0 || BIVO_ComputeSm4EcbCipherLen(Len(msg)) != sizeof cipher) return BIVO_ERR_TEST_SM4_ENCRYPT;
  Spoil(fault, cipher, sizeof cipher);
  return std::memcmp(cipher, expected.data(), sizeof cipher) == 0 ? 0 : BIVO_ERR_TEST_SM4_ENCRYPT;
}

uint32_t Sm4PaddedDecrypt(std::string_view iv_hex, std::string_view cipher_hex, Fault fault) {
  const Bytes key = Hex(kSm4Key), iv = Hex(iv_hex), cipher = Hex(cipher_hex), msg = Text(kPaddedMessage);
  uint8_t plain[32];
  uint32_t plain_len = 0;
  const uint32_t rv =
      iv.empty() ? BIVO_Sm4DecryptWithAutoRemovePadding(cipher.data(), Len(cipher), key.data(), plain, &plain_len)
                 : BIVO_Sm4CbcDecryptWithAutoRemovePadding(cipher.data(), Len(cipher), iv.data(), key.data(), plain,
                                                           &plain_len);
  if (rv != 0 || plain_len != msg.size()) return BIVO_ERR_TEST_SM4_DECRYPT;
  Spoil(fault, plain, plain_len);
  return std::memcmp(plain, msg.data(), plain_len) == 0 ? 0 : BIVO_ERR_TEST_SM4_DECRYPT;
}

uint32_t Sm4EcbPadded() {
  const uint32_t rv = Sm4PaddedEncrypt("", kPaddedEcb, Fault::kSm4EcbPaddedEncrypt);
  return rv != 0 ? rv : Sm4PaddedDecrypt("", kPaddedEcb, Fault::kSm4EcbPaddedDecrypt);
}

uint32_t Sm4CbcPadded() {
  const uint32_t rv = Sm4PaddedEncrypt(kSm4Iv, kPaddedCbc, Fault::kSm4CbcPaddedEncrypt);
  return rv != 0 ? rv : Sm4PaddedDecrypt(kSm4Iv, kPaddedCbc, Fault::kSm4CbcPaddedDecrypt);
}

uint32_t Sm2VerifySignature() {
  const Bytes key = Hex(kSm2PublicKey), msg = Text("message digest");
  // GM/T 0003.5 signature example (r, s) as DER.
  Bytes sig =
      Hex("3046"
          "022100F5A03B0648D2C4630EEAC513E1BB81A15944DA3827D5B74143AC7EACEEE720B3"
          "022100B1B6AA29DF212FD8763182BC0D421CA1BB9038FD1F7F42D4840B69C485BBC1AA");
  Spoil(Fault::kSm2Verify, sig.data(), sig.size());
  return BIVO_VerifySm2SignatureWithPubKey(msg.data(), Len(msg), zeph::kDefaultSm2Id, key.data(), Len(key), sig.data(),
                                           Len(sig));
}

uint32_t Sm2Encrypt() {
  const Bytes key = Hex(kSm2PublicKey), msg = Text("encryption standard");
  // GM/T 0003.5 encryption example: C1 = k·G with the nonce below, C3, C2.
  const Bytes expected =
      Hex("307C"
          "022004EBFC718E8D1798620432268E77FEB6415E2EDE0E073C0F4F640ECD2E149A73"
          "022100E858F9D81E5430A57B36DAAB8F950A3C64E6EE6A63094D99283AFF767E124DF0"
          "042059983C18F809E262923C53AEC295D30383B54E39D609D160AFCB1908D0BD8766"
          "041321886CA989CA9C7D58087307CA93092D651EFA");
  uint32_t out_len = BIVO_ComputeSm2CiphertextEncodeLength(Len(msg));
  const zeph::MallocPtr<uint8_t> out(static_cast<uint8_t *>(std::malloc(out_len)));
  if (!out) return BIVO_ERR_NO_MEMORY;
  // The plain variant's first draw is k, through BN_rand_range.
  if (start_fake_rand("59276E27D506861A16680F3AD9C02DCCEF3CC1FA3CDBE4CE6D54B80DEAC1BC21") != 1) {
    return BIVO_ERR_TEST_SM2_ENCRYPT;
  }
  const uint32_t rv = BIVO_Sm2EncryptWithPubKey(msg.data(), Len(msg), key.data(), Len(key), out.get(), &out_len);
  restore_rand();
  if (rv != 0) return rv;
  Spoil(Fault::kSm2Encrypt, out.get(), out_len);
  return out_len == expected.size() && std::memcmp(out.get(), expected.data(), out_len) == 0
             ? 0
             : BIVO_ERR_TEST_SM2_ENCRYPT;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_test_crypto_algorithm(void) {
  return Exclusive([] {
    for (uint32_t (*test)() : {Sm3Digest, Sm3DigestWithPreprocess, Sm4EncryptAndDecrypt, Sm4EcbPadded, Sm4CbcPadded,
                               Sm2VerifySignature, Sm2Encrypt}) {
      if (const uint32_t rv = test(); rv != 0) return rv;
    }
    return 0u;
  });
}

ZEPH_API uint32_t BIVO_test_sm3_digest(void) { return Exclusive(Sm3Digest); }
ZEPH_API uint32_t BIVO_test_sm3_digest_with_preprocess(void) { return Exclusive(Sm3DigestWithPreprocess); }
ZEPH_API uint32_t BIVO_test_sm4_encrypt_and_decrypt(void) { return Exclusive(Sm4EncryptAndDecrypt); }
ZEPH_API uint32_t BIVO_test_sm4_million_encrypt(void) { return Exclusive(Sm4MillionEncrypt); }
ZEPH_API uint32_t BIVO_test_sm4_ecb_encrypt_and_decrypt_with_padding(void) { return Exclusive(Sm4EcbPadded); }
ZEPH_API uint32_t BIVO_test_sm4_cbc_encrypt_and_decrypt_with_padding(void) { return Exclusive(Sm4CbcPadded); }
ZEPH_API uint32_t BIVO_test_sm2_verify_signature(void) { return Exclusive(Sm2VerifySignature); }
ZEPH_API uint32_t BIVO_test_sm2_encrypt(void) { return Exclusive(Sm2Encrypt); }

ZEPH_API uint32_t BIVO_test_sm4_ecb_encrypt_with_padding(void) {
  return Exclusive([] { return Sm4PaddedEncrypt("", kPaddedEcb, Fault::kSm4EcbPaddedEncrypt); });
}
ZEPH_API uint32_t BIVO_test_sm4_ecb_decrypt_with_auto_removing_padding(void) {
  return Exclusive([] { return Sm4PaddedDecrypt("", kPaddedEcb, Fault::kSm4EcbPaddedDecrypt); });
}
ZEPH_API uint32_t BIVO_test_sm4_cbc_encrypt_with_padding(void) {
  return Exclusive([] { return Sm4PaddedEncrypt(kSm4Iv, kPaddedCbc, Fault::kSm4CbcPaddedEncrypt); });
}
ZEPH_API uint32_t BIVO_test_sm4_cbc_decrypt_with_auto_removing_padding(void) {
  return Exclusive([] { return Sm4PaddedDecrypt(kSm4Iv, kPaddedCbc, Fault::kSm4CbcPaddedDecrypt); });
}

}  // extern "C"
