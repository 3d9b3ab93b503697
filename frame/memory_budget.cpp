#include "frame/memory_budget.h"

#include <unistd.h>

namespace {
double physicalMemory() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
  // A system that will not say is given the benefit of the doubt.
  return pages > 0 && pageSize > 0 ? double(pages) * double(pageSize) : 1e300;
}
}  // namespace

bool fitsInMemory(double bytes) {
  static const double limit = physicalMemory();
  return bytes >= 0 && bytes <= limit;
}
