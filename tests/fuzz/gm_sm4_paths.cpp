// Every vector SM4 engine and every SM3 build this CPU runs against the
// portable ones, on arbitrary keys, IVs and data: ECB both ways, CBC both
// ways (decryption in place), and the compression loop over whole blocks.

#include "check.hpp"
#include "gm/cpu_path.hpp"
#include "gm/gm_internal.hpp"
#include "gm/sm4_engine.hpp"

namespace {

namespace gm = zeph::gm;
using Bytes = std::vector<uint8_t>;

Bytes AllModes(const gm::Sm4Engine &engine, const uint8_t *key, const uint8_t *iv, const Bytes &data) {
  const size_t n = data.size() / 16;
  Bytes out(4 * data.size());
  uint8_t *ecb = out.data(), *back = ecb + data.size(), *cbc = back + data.size(), *cbc_back = cbc + data.size();
  const gm::Sm4Key enc(key, true, engine), dec(key, false, engine);
  enc.Ecb(data.data(), ecb, n);
  dec.Ecb(data.data(), back, n);
  enc.CbcEncrypt(iv, data.data(), cbc, n);
  if (!data.empty()) std::memcpy(cbc_back, data.data(), data.size());
  dec.CbcDecrypt(iv, cbc_back, cbc_back, n);
  return out;
}

// The SM3 state after the compression loop over the whole 64-byte blocks.
Bytes Sm3Blocks(gm::Sm3CompressFn compress, const Bytes &data) {
  uint32_t state[8];
  std::memcpy(state, gm::kSm3Iv, sizeof state);
  compress(state, data.data(), data.size() / 64);
  return Bytes(reinterpret_cast<uint8_t *>(state), reinterpret_cast<uint8_t *>(state) + sizeof state);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 32) return 0;
  const uint8_t *key = data, *iv = data + 16;
  const Bytes body(data + 32, data + 32 + (size - 32) / 16 * 16);
  static const gm::CpuFeatures cpu = gm::DetectCpuFeatures();

  const Bytes expected = AllModes(gm::kSm4Portable, key, iv, body);
  const Bytes reference = Sm3Blocks(gm::Sm3CompressPortable, body);
  for (gm::CpuPath path : {gm::CpuPath::kAesni, gm::CpuPath::kAvx2, gm::CpuPath::kAvx512}) {
    if (gm::ChooseCpuPath(cpu, gm::CpuPathName(path)) != path) continue;
    const gm::GmDispatch d = gm::DispatchFor(path, cpu);
    fuzz::Check(AllModes(*d.sm4, key, iv, body) == expected && Sm3Blocks(d.sm3, body) == reference);
  }
#if ZEPH_GM_X86
  // AES-NI on each half, which the avx2 path leaves aside where VAES or GFNI is present.
  fuzz::Check(!(cpu.avx2 && cpu.aesni) || AllModes(gm::kSm4Avx2, key, iv, body) == expected);
#endif
  return 0;
}
