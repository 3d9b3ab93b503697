// Cellular noise with one hashed feature point per integer cell.
#pragma once

#include <cstdint>

#include "frame/vec.h"

// Four hashed 32-bit words of a cell and a seed.
void cellHashWords(uint32_t x, uint32_t y, uint32_t z, uint32_t seed, uint32_t out[4]);
// The same words scaled to [0, 1].
void cellHash(uint32_t x, uint32_t y, uint32_t z, uint32_t seed, float out[4]);

// A cell's hashed point: where it lies and the four hash values it carries.
struct FeaturePoint {
  Vec3f place;
  float hash[4];
};

// The feature points around the last cell that was asked for, kept per thread
// and layer so neighbouring lookups skip the hashing.
struct CellNoise {
  int32_t cell[3] = {0, 0, 0};
  uint32_t seed = 0;
  bool valid = false;
  bool outerValid = false;
  FeaturePoint inner[27];  // the cell, then its 26 neighbours
  FeaturePoint outer[54];  // the cells two steps away, hashed only when needed
};

// Distance from p to the nearest feature point, at most 1, with that point's four hash values.
float cellular(CellNoise& noise, Vec3f p, uint32_t seed, float feature[4]);
// Point t of a spiral of 1024 points on the unit sphere.
Vec3f goldenDirection(float t);
