/// The composition root: makes the process what it is to be, reads the environment, and hands startup what lies above
/// it. The only file that knows every folder.
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "foundation/file_paths.h"
#include "requests/event_service/event_service_listener.h"
#include "requests/event_service/persistent_properties.h"
#include "requests/listener.h"
#include "service/settings.h"
#include "service/start_up.h"
#include "subscriptions/generated_destinations.h"
#include "subscriptions/subscriptions_listener.h"

namespace {

using namespace event_service;

// Recursion over data is bounded; this leaves it several times what it needs.
#ifdef __SANITIZE_THREAD__
constexpr size_t kStackSize = size_t{8} * 1024 * 1024;  // the sanitizer's bookkeeping lies there as well
#else
constexpr size_t kStackSize = size_t{256} * 1024;
#endif

/// Descriptor 0, 1 or 2 must not become a socket or file of ours: what is printed would go there.
void OccupyStandardStreams() {
  int file = 0;
  while (file >= 0 && file <= STDERR_FILENO) file = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (file > STDERR_FILENO) close(file);
}

/// Address space is scarce on the board: one heap for all threads, and small stacks.
void SaveMemory() {
  mallopt(M_ARENA_MAX, 1);
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return;
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}

}  // namespace

int main() {
  OccupyStandardStreams();
  umask(077);                     // whatever is created is the owner's alone
  std::signal(SIGPIPE, SIG_IGN);  // a server that went away is a missing reply
  std::signal(SIGHUP, SIG_IGN);   // a terminal that closes does not end a service
  std::signal(SIGCHLD, SIG_DFL);  // an inherited "ignore" would lose the exit status of shell commands
  SaveMemory();

  const char* root = std::getenv("EVENT_SERVICE_ROOT");
  std::optional<FilePaths> paths = MakeFilePaths(root != nullptr ? root : "");
  if (!paths) {
    std::fprintf(stderr, "EVENT_SERVICE_ROOT is refused: \"%s\" holds a character that needs quoting in a shell.\n",
                 root);
    return -1;
  }
  SetProcessPaths(*std::move(paths));

  ServiceSettings settings;
  SubscriptionsState subscriptions;
  SetProcessState(&settings, &subscriptions);
  const StartUpSteps steps{
      .restorePersistentProperties = RestorePersistentProperties,
      .eventServiceListener = EventServiceListenerThread,
      .subscriptionsListener = SubscriptionsListenerThread,
      .expectListeners = ExpectListeners,
      .awaitListeners = [](std::chrono::milliseconds patience) { return AwaitListeners(2, patience); },
      .createGeneratedDestinations = CreateGeneratedDestinations,
  };
  const int status = RunStartUp(steps, settings, subscriptions);
  if (status == 0) return 0;
  // A listener may be running: nothing that it uses is destroyed.
  std::fflush(nullptr);
  _exit(status);
}
