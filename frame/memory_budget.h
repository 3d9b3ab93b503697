// Requests sized by a file or a scene key are weighed against the machine
// before they are made: a typo or a lying header is refused with a message,
// where the allocation itself would end the process.
#pragma once

// True when `bytes` (a double, so that products of sizes cannot overflow) fit
// in the memory the process may have: the least of the machine's physical
// memory, its address space limit and its control group's limit.
bool fitsInMemory(double bytes);

// A further limit for a harness that runs many inputs in one process, each of
// which may only have a small share; none by default.
extern double memoryCeiling;
