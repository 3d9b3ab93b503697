// The `object` block of scene files and its `instance` sub-block.
#pragma once

#include <istream>

#include "geometry/object.h"

void readObjectBlock(Object& object, std::istream& file);
void readInstanceBlock(Instance& instance, std::istream& file);
