// Debug records carry this source file's name and line.
#pragma once

#include "zeph_c_utils.h"

#define ZEPH_LOG(message, status) zeph_logger_debug((message), static_cast<int64_t>(status), __FILE_NAME__, __LINE__)

namespace zeph {

// Whether the host has installed a log callback: without one, a record
// (and what it is built from) goes nowhere.
bool LogEnabled();

}  // namespace zeph
