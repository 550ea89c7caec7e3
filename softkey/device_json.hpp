// The JSON form of a device: the whole content of its device file. Binary
// members are hex (keys, PIN records) or base64 (files, certificates).
#pragma once

#include <string>
#include <string_view>

#include "model.hpp"

namespace softkey {

std::string Serialize(const Device &d);
// Rejects anything malformed, including shapes the entry points rely on.
bool Parse(std::string_view text, Device &out_device);

}  // namespace softkey
