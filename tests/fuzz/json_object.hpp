// The texts the seal targets check: a reply that is not one JSON object ends
// the run.
#pragma once

#include <cstdlib>
#include <string>

#include <cjson/cJSON.h>

namespace fuzz {

inline void MustBeJsonObject(const std::string &text) {
  cJSON *doc = cJSON_Parse(text.c_str());
  const bool ok = cJSON_IsObject(doc);
  cJSON_Delete(doc);
  if (!ok) std::abort();
}

}  // namespace fuzz
