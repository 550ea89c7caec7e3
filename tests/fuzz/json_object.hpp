// The texts the targets check: a reply that is not one JSON object ends the
// run.
#pragma once

#include "check.hpp"
#include "foundation/json_owned.hpp"

namespace fuzz {

inline zeph::JsonPtr MustBeJsonObject(const std::string &text) {
  zeph::JsonPtr doc(cJSON_Parse(text.c_str()));
  Check(cJSON_IsObject(doc.get()));
  return doc;
}

}  // namespace fuzz
