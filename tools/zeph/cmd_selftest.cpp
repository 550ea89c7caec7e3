// zeph selftest: the known-answer self-tests of SM3, SM4 and SM2, one line
// each.
#include <cstdio>

#include "cli.hpp"
#include "zeph_c_sm2.h"

namespace {

int RunSelftest(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(selftest, "known-answer self-tests of SM3, SM4 and SM2", "selftest", RunSelftest, {});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("selftest"); }

int RunSelftest(const zeph_cli::Args &args) {
  if (!args.words.empty()) return zeph_cli::UsageError(Self(), "no arguments expected");
  // clang-format off
  const struct { const char *name; uint32_t (*run)(); } tests[] = {
      {"sm3_digest", BIVO_test_sm3_digest},
      {"sm3_digest_with_preprocess", BIVO_test_sm3_digest_with_preprocess},
      {"sm4_encrypt_and_decrypt", BIVO_test_sm4_encrypt_and_decrypt},
      {"sm4_million_encrypt", BIVO_test_sm4_million_encrypt},
      {"sm4_ecb_encrypt_and_decrypt_with_padding", BIVO_test_sm4_ecb_encrypt_and_decrypt_with_padding},
      {"sm4_cbc_encrypt_and_decrypt_with_padding", BIVO_test_sm4_cbc_encrypt_and_decrypt_with_padding},
      {"sm2_verify_signature", BIVO_test_sm2_verify_signature},
      {"sm2_encrypt", BIVO_test_sm2_encrypt},
      {"crypto_algorithm (all of the module's start-up tests)", BIVO_test_crypto_algorithm},
  };
  // clang-format on
  int failed = 0;
  for (const auto &t : tests) {
    const uint32_t rv = t.run();
    std::printf("%-56s %s", t.name, rv == 0 ? "ok\n" : "FAILED");
    if (rv != 0) std::printf(" (status %u)\n", rv), ++failed;
  }
  return failed == 0 ? zeph_cli::kOk : zeph_cli::kFailed;
}

}  // namespace
