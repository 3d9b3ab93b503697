// Tabulated inverse distributions of microfacet slopes: sampling a visible
// normal becomes two bilinear lookups instead of a numerical inversion.
#pragma once

constexpr int slopeTableSize = 512;

// Row: incidence angle (X tables) or slope x (Y tables); column: cumulative
// probability; value: the slope with that probability.
struct SlopeTable {
  float value[slopeTableSize][slopeTableSize];
};

extern SlopeTable beckmannSlopeX;  // slope x of a visible normal, by incidence angle
extern SlopeTable beckmannSlopeY;  // slope y given slope x
// Built and kept like the Beckmann pair; no lobe reads them.
extern SlopeTable ggxSlopeX;
extern SlopeTable ggxSlopeY;

void buildSlopeTables();

// theta in [0, pi/2], u in [0, 1]; inputs outside read the table's border.
float lookupSlopeX(const SlopeTable& table, float theta, float u);
// x in [-16, 16], u in [0, 1].
float lookupSlopeY(const SlopeTable& table, float x, float u);
