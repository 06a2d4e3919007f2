#include "bench/bench_support.h"

#include <sched.h>

namespace event_service {

void StayOnOneCpu() {
  cpu_set_t cpus;
  sched_getaffinity(0, sizeof cpus, &cpus);
  int first = 0;
  while (first < CPU_SETSIZE - 1 && !CPU_ISSET(first, &cpus)) ++first;
  CPU_ZERO(&cpus);
  CPU_SET(first, &cpus);
  sched_setaffinity(0, sizeof cpus, &cpus);
}

}  // namespace event_service
