// Type detection (the exported checks and the one for seals read from a
// key), pictures and details on arbitrary bytes, with capacities
// the input picks: nothing is written past a stated capacity, and a picture
// that fits is the one the length query announced.
#include "check.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_seal.h"

namespace {

using PictureFn = uint32_t (*)(const unsigned char *, uint32_t, unsigned char *, uint32_t *, uint32_t *, uint32_t *);
constexpr PictureFn kPictures[] = {getSealPicDetailFromSMSealStructure, getSealPicDetailFromGBSealStructure,
                                   getSealPicDetailFromSMSESSignature, getSealPicDetailFromGBSESSignature};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto len = static_cast<uint32_t>(size);
  const int32_t type = chkSealType(data, len), type_ex = chkSealTypeEx(data, len);
  fuzz::Check((type != ZEPH_SEAL_TYPE_SES && type != ZEPH_SEAL_TYPE_GB) || type_ex == type);
  // Seals read from a key are typed by the in-place reader first: where the
  // structures decode the bytes, it must come to their answer.
  const int32_t stored = zeph::seal::DerSealType({data, size});
  fuzz::Check((type_ex != ZEPH_SEAL_TYPE_SES && type_ex != ZEPH_SEAL_TYPE_GB) || stored == type_ex);

  const uint32_t capacity = size == 0 ? 0 : data[size - 1] * 64u;
  for (const PictureFn picture : kPictures) {
    uint32_t need = 0, w = 0, h = 0;
    if (picture(data, len, nullptr, &need, &w, &h) != 0) continue;
    fuzz::Guarded out(capacity);
    uint32_t got = capacity;
    const uint32_t rv = picture(data, len, out.data(), &got, &w, &h);
    fuzz::Check(out.Intact() && got == need && fuzz::OneOf(rv, {0, ERR_BUFFER_TOO_SMALL}) &&
                (rv == 0) == (need <= capacity));
  }

  const uint32_t small = size == 0 ? 0 : data[0] % 40;
  std::vector<fuzz::Guarded> outs(11, fuzz::Guarded(small));
  std::vector<uint32_t> lens(11, small);
  const auto b = [&](int i) { return outs[i].data(); };
  getSMSealDetail(data, len, b(0), &lens[0], b(1), &lens[1], b(2), &lens[2], b(3), &lens[3], b(4), &lens[4], b(5),
                  &lens[5], b(6), &lens[6], b(7), &lens[7], b(8), &lens[8], b(9), &lens[9]);
  lens.assign(11, small);
  getGBSealDetail(data, len, b(0), &lens[0], b(1), &lens[1], b(2), &lens[2], b(3), &lens[3], b(4), &lens[4], b(5),
                  &lens[5], b(6), &lens[6], b(7), &lens[7], b(8), &lens[8], b(9), &lens[9], b(10), &lens[10]);
  for (const fuzz::Guarded &g : outs) fuzz::Check(g.Intact());
  return 0;
}
