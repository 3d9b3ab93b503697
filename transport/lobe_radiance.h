// The accumulators of one hit: radiance per lobe, each already multiplied by
// its lobe colour but not by the path's throughput. Their sum is the hit's value.
#pragma once

#include "frame/vec.h"

struct LobeRadiance {
  Color3f diffuse[2];  // 0 reflection, 1 transmission
  Color3f glossy[2];
  Color3f specular[2];
  Color3f emission;
  Color3f volume;
};
