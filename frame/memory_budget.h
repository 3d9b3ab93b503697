// Requests sized by a file or a scene key are weighed against the machine
// before they are made: a typo or a lying header is refused with a message,
// where the allocation itself would end the process.
#pragma once

// True when `bytes` (a double, so that products of sizes cannot overflow) fit
// in the physical memory of the machine.
bool fitsInMemory(double bytes);
