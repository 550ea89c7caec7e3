// PINs kept out of the process list, where every local user can read a
// command's arguments: one per line on standard input (--pin-stdin), or typed
// at a prompt without echo when the PIN option is left out on a terminal.
#pragma once

#include <string>

namespace zeph_tools {

// The lines --help adds under the PIN options.
extern const char *const kPinHelp;

// A PIN the command line did not give (option names it in messages): the
// next line of standard input when from_stdin, else typed at `prompt` when
// standard input is a terminal. False with a message otherwise, or when the
// line is empty.
bool ReadPin(const std::string &option, const std::string &prompt, bool from_stdin, std::string *pin,
             std::string *error);

}  // namespace zeph_tools
