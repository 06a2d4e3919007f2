/// As in main: a server that went away is a null reply, not the end of the process.
#include <csignal>

namespace {
[[maybe_unused]] const auto kPreviousHandler = std::signal(SIGPIPE, SIG_IGN);
}
