#include "pin_input.hpp"

#include <cstdio>

#include <termios.h>
#include <unistd.h>

namespace zeph_tools {

const char *const kPinHelp =
    "A PIN given as an option is visible to other users in the process list; for anything but tests\n"
    "use --pin-stdin (PINs on standard input, one a line, in the order of the options above) or leave\n"
    "the PIN out on a terminal to be asked for it without echo.\n";

namespace {

// One line without its end; false at the end of input before any character.
bool ReadLine(std::string *line) {
  line->clear();
  int c;
  while ((c = std::getc(stdin)) != EOF && c != '\n') line->push_back(static_cast<char>(c));
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return c != EOF || !line->empty();
}

// Echo off for as long as it lives, restored on every way out.
class NoEcho {
 public:
  NoEcho() {
    if (tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHONL));
    quiet.c_lflag |= ICANON;
    on_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  ~NoEcho() {
    if (on_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
  }
  NoEcho(const NoEcho &) = delete;
  NoEcho &operator=(const NoEcho &) = delete;

 private:
  termios saved_{};
  bool on_ = false;
};

}  // namespace

bool ReadPin(const std::string &option, const std::string &prompt, bool from_stdin, std::string *pin,
             std::string *error) {
  bool got = false;
  if (from_stdin) {
    got = ReadLine(pin);
  } else if (isatty(STDIN_FILENO) == 1) {
    std::fprintf(stderr, "%s: ", prompt.c_str());
    std::fflush(stderr);
    {
      NoEcho quiet;
      got = ReadLine(pin);
    }
    std::fputc('\n', stderr);
  } else {
    *error = option + " is required (or --pin-stdin, or a terminal to type it at)";
    return false;
  }
  if (!got || pin->empty()) {
    *error = "no " + prompt + " on " + (from_stdin ? "standard input" : "the terminal") + " for " + option;
    return false;
  }
  return true;
}

}  // namespace zeph_tools
