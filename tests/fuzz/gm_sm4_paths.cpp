// Every vector SM4 engine and every SM3 build this CPU runs against the
// portable ones, on arbitrary keys, IVs and data: ECB both ways, CBC both
// ways (decryption in place), and the compression loop over whole blocks.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gm/cpu_path.hpp"
#include "gm/gm_internal.hpp"
#include "gm/sm4_engine.hpp"

namespace {

using zeph::gm::CpuPath;
using Bytes = std::vector<uint8_t>;

Bytes AllModes(const zeph::gm::Sm4Engine &engine, const uint8_t *key, const uint8_t *iv, const Bytes &data) {
  const size_t n = data.size() / 16;
  Bytes out(4 * data.size());
  uint8_t *ecb = out.data(), *back = ecb + data.size(), *cbc = back + data.size(), *cbc_back = cbc + data.size();
  const zeph::gm::Sm4Key enc(key, true, engine), dec(key, false, engine);
  enc.Ecb(data.data(), ecb, n);
  dec.Ecb(data.data(), back, n);
  enc.CbcEncrypt(iv, data.data(), cbc, n);
  if (!data.empty()) std::memcpy(cbc_back, data.data(), data.size());
  dec.CbcDecrypt(iv, cbc_back, cbc_back, n);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 32) return 0;
  const uint8_t *key = data, *iv = data + 16;
  const Bytes body(data + 32, data + 32 + (size - 32) / 16 * 16);
  static const zeph::gm::CpuFeatures cpu = zeph::gm::DetectCpuFeatures();

  const Bytes expected = AllModes(zeph::gm::kSm4Portable, key, iv, body);
  uint32_t reference[8];
  std::memcpy(reference, zeph::gm::kSm3Iv, sizeof reference);
  zeph::gm::Sm3CompressPortable(reference, body.data(), body.size() / 64);
  for (CpuPath path : {CpuPath::kAesni, CpuPath::kAvx2, CpuPath::kAvx512}) {
    if (zeph::gm::ChooseCpuPath(cpu, zeph::gm::CpuPathName(path)) != path) continue;
    const zeph::gm::GmDispatch d = zeph::gm::DispatchFor(path, cpu);
    if (AllModes(*d.sm4, key, iv, body) != expected) abort();
    uint32_t state[8];
    std::memcpy(state, zeph::gm::kSm3Iv, sizeof state);
    d.sm3(state, body.data(), body.size() / 64);
    if (std::memcmp(state, reference, sizeof state) != 0) abort();
  }
#if ZEPH_GM_X86
  // AES-NI on each half, which the avx2 path leaves aside where VAES or GFNI is present.
  if (cpu.avx2 && cpu.aesni && AllModes(zeph::gm::kSm4Avx2, key, iv, body) != expected) abort();
#endif
  return 0;
}
