#include "frame/memory_budget.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

double memoryCeiling = 1e300;

namespace {
double physicalMemory() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
  // A system that will not say is given the benefit of the doubt.
  return pages > 0 && pageSize > 0 ? double(pages) * double(pageSize) : 1e300;
}

// The process's address space limit (ulimit -v).
double addressSpaceLimit() {
  rlimit limit{};
  return getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? double(limit.rlim_cur) : 1e300;
}

// The control group's limit, in the file of version 2 or of version 1; "max"
// or a missing file is no limit.
double controlGroupLimit() {
  double least = 1e300;
  for (const char* path : {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"}) {
    std::ifstream file(path);
    double bytes = 0;
    if (file >> bytes && bytes > 0) least = std::min(least, bytes);
  }
  return least;
}
}  // namespace

bool fitsInMemory(double bytes) {
  static const double limit = std::min({physicalMemory(), addressSpaceLimit(), controlGroupLimit()});
  return bytes >= 0 && bytes <= std::min(limit, memoryCeiling);
}
