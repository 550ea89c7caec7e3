// Owners for cJSON trees and the texts cJSON prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

#include "foundation/owned.hpp"

namespace zeph {

using JsonPtr = std::unique_ptr<cJSON, Free<cJSON_Delete>>;

inline void FreeJsonText(char *p) noexcept { cJSON_free(p); }
using JsonTextPtr = std::unique_ptr<char, Free<FreeJsonText>>;

// The length of the run at the start of `text` that a JSON string holds as
// it is: up to the first control character, '"' or '\\'. Base64 is one run
// from end to end. Eight bytes at a time with the word tricks of strlen:
// x - 0x20 in every byte borrows where a byte is below 0x20, and a byte
// equal to c is a zero byte of x ^ c; a word that shows one is searched
// byte by byte.
inline size_t PlainJsonRun(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101u, kHigh = 0x8080808080808080u;
  const auto any_below = [](uint64_t x, uint64_t n) { return (x - kOnes * n) & ~x & kHigh; };
  const auto plain = [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u >= 0x20 && u != '"' && u != '\\';
  };
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t x;
    std::memcpy(&x, text.data() + i, 8);
    if ((any_below(x, 0x20) | any_below(x ^ (kOnes * '"'), 1) | any_below(x ^ (kOnes * '\\'), 1)) != 0) break;
  }
  while (i < text.size() && plain(text[i])) ++i;
  return i;
}

// Wipes every string value of a tree: a parsed request carries PINs and keys,
// and cJSON frees its strings as they are.
inline void WipeJsonStrings(cJSON *root) {
  const auto wipe = [](cJSON *node) {
    if (node->valuestring != nullptr) OPENSSL_cleanse(node->valuestring, std::strlen(node->valuestring));
  };
  if (root == nullptr) return;
  wipe(root);
  // Containers still to visit, none for a flat object. No recursion: the
  // depth is the sender's choice.
  std::vector<cJSON *> pending;
  for (cJSON *node = root; node != nullptr;) {
    for (cJSON *child = node->child; child != nullptr; child = child->next) {
      wipe(child);
      if (child->child != nullptr) pending.push_back(child);
    }
    node = nullptr;
    if (!pending.empty()) {
      node = pending.back();
      pending.pop_back();
    }
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
