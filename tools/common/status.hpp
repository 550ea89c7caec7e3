// Status texts for people at a shell. The names come from zeph_c_status.h
// itself (the build extracts them), so the two can never disagree.
#pragma once

#include <cstdint>
#include <string>

namespace zeph_tools {

// "ERR_DIGEST_FAILED", or null for a status the library does not name.
const char *StatusName(uint32_t status);
// "0x8208000E ERR_DIGEST_FAILED"; just "0x0A000024" without a name.
std::string StatusText(uint32_t status);

}  // namespace zeph_tools
