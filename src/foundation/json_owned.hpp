// Owners for cJSON trees and the texts cJSON prints.
#pragma once

#include <memory>

#include <cjson/cJSON.h>

#include "foundation/owned.hpp"

namespace zeph {

using JsonPtr = std::unique_ptr<cJSON, Free<cJSON_Delete>>;

inline void FreeJsonText(char *p) noexcept { cJSON_free(p); }
using JsonTextPtr = std::unique_ptr<char, Free<FreeJsonText>>;

}  // namespace zeph
