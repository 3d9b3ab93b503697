// The thread count of the parallel loops, chosen by the host.
#include <omp.h>

#include <algorithm>

#include "frame/sampling.h"
#include "qz.h"

void qzSetRendererThreads(int threads) {
  // Per-thread tables hold maxThreads entries.
  if (threads > 0) omp_set_num_threads(std::min(threads, int(maxThreads)));
}
