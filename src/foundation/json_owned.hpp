// Owners for cJSON trees and the texts cJSON prints.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

#include "foundation/owned.hpp"

namespace zeph {

using JsonPtr = std::unique_ptr<cJSON, Free<cJSON_Delete>>;

inline void FreeJsonText(char *p) noexcept { cJSON_free(p); }
using JsonTextPtr = std::unique_ptr<char, Free<FreeJsonText>>;

// Wipes every string value of a tree: a parsed request carries PINs and keys,
// and cJSON frees its strings as they are.
inline void WipeJsonStrings(cJSON *root) {
  std::vector<cJSON *> pending;  // no recursion: the depth is the sender's choice
  if (root != nullptr) pending.push_back(root);
  while (!pending.empty()) {
    cJSON *node = pending.back();
    pending.pop_back();
    if (node->valuestring != nullptr) OPENSSL_cleanse(node->valuestring, std::strlen(node->valuestring));
    for (cJSON *child = node->child; child != nullptr; child = child->next) pending.push_back(child);
  }
}
inline void DeleteWipedJson(cJSON *p) noexcept {
  try {
    WipeJsonStrings(p);
  } catch (...) {
    // Out of memory for the walk: the tree is freed all the same.
  }
  cJSON_Delete(p);
}
using WipedJsonPtr = std::unique_ptr<cJSON, Free<DeleteWipedJson>>;

}  // namespace zeph
