// What a key's seal slot may hold, from arbitrary text: the slot readers'
// text path and the summary of a seal given as text. Each gives a status or
// texts that are JSON; nothing is read past the input or a decoded record.
#include "seal/seal_store.hpp"

#include "json_object.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text = fuzz::Text(data, size);
  std::string out;
  if (zeph::seal::l_parseSealInfo(text.c_str(), &out) == 0) fuzz::MustBeJsonObject(out);

  zeph::seal::SlotSeal seal;
  if (zeph::seal::ReadSlotText(text, &seal) != 0) return 0;
  if (seal.type == ZEPH_SEAL_TYPE_TEXT) fuzz::MustBeJsonObject(zeph::seal::SealText(seal));
  if (zeph::seal::SealSummary(seal, &out) == 0) fuzz::MustBeJsonObject(out);
  if (zeph::seal::SealDetail(seal, &out) == 0) fuzz::MustBeJsonObject(out);
  if (zeph::seal::SealStructure(seal, &out) == 0) fuzz::MustBeJsonObject(out);
  return 0;
}
