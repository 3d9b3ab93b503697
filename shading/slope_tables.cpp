#include "shading/slope_tables.h"

#include <algorithm>
#include <cmath>
#include <vector>

SlopeTable beckmannSlopeX;
SlopeTable beckmannSlopeY;
SlopeTable ggxSlopeX;
SlopeTable ggxSlopeY;

namespace {
constexpr int n = slopeTableSize;
constexpr float halfPi = 1.5707964f;

// The slope grid of every row and of the inner sums: -16 to 16.
float slopeAt(int j) { return float(j) * 32.0f / 511.0f - 16.0f; }
float innerSlopeAt(int k) { return float(k) * 32.0f / 99.0f - 16.0f; }
float angleOfRow(int i) { return float(i) * halfPi / 511.0f; }

// Share of a microfacet of slope x that faces a viewer at incidence theta.
float projectedArea(float x, float cosTheta, float sinTheta) { return std::fmax(cosTheta - x * sinTheta, 0.0f); }

float beckmannWeight(float x, float y) { return std::exp(-(x * x + y * y)); }
float ggxWeight(float x, float y) {
  float d = 1 + x * x + y * y;
  return 1 / (d * d);
}

// Turns the running sums c of one row into the row's inverse distribution.
void invertRow(const float* p, float* c, float* row) {
  float total = c[n - 1];
  // Far rows of the Beckmann y table underflow to nothing; no visible slope reaches them.
  if (!(total > 0)) {
    std::fill(row, row + n, 0.0f);
    return;
  }
  for (int j = 1; j < n; ++j) c[j] /= total;
  int m = 0;
  for (int j = 0; j < n; ++j) {
    float u = float(j) * 0.9999998f / 511.0f + 1e-7f;
    while (m < n - 1 && c[m] <= u) ++m;
    float t = (c[m] - u) / (c[m] - c[m - 1]);
    row[j] = t * p[m - 1] + (1 - t) * p[m];
  }
}

// rowWeight(i, j) is the unnormalised density of slope p[j] in row i.
template <class RowWeight>
void buildTable(SlopeTable& table, RowWeight rowWeight) {
  float p[n], c[n];
  for (int j = 0; j < n; ++j) p[j] = slopeAt(j);
  for (int i = 0; i < n; ++i) {
    c[0] = 0;
    for (int j = 1; j < n; ++j) c[j] = c[j - 1] + rowWeight(i, j);
    invertRow(p, c, table.value[i]);
  }
}

// X tables: the marginal of slope x over the visible microfacets, summed over y.
template <class Weight>
void buildVisibleSlopeTable(SlopeTable& table, Weight weight) {
  constexpr int inner = 100;
  // The slope weights do not depend on the angle: tabulate them once for all rows.
  std::vector<float> w(n * inner);
  for (int j = 0; j < n; ++j)
    for (int k = 0; k < inner; ++k) w[j * inner + k] = weight(slopeAt(j), innerSlopeAt(k));
  buildTable(table, [&](int i, int j) {
    float theta = angleOfRow(i);
    float area = projectedArea(slopeAt(j), std::cos(theta), std::sin(theta));
    float sum = 0;
    if (area > 0)
      for (int k = 0; k < inner; ++k) sum += w[j * inner + k] * area;
    return sum;
  });
}

// Y tables: slope y given the row's slope x.
template <class Weight>
void buildConditionalSlopeTable(SlopeTable& table, Weight weight) {
  buildTable(table, [&](int i, int j) { return weight(slopeAt(i), slopeAt(j)); });
}

// Bilinear read at fractional row a and column b, both in table units.
float lookup(const SlopeTable& table, float a, float b) {
  // fmin/fmax also send a NaN to the border instead of a wild index.
  a = std::fmin(std::fmax(a, 0.0f), 511.0f);
  b = std::fmin(std::fmax(b, 0.0f), 511.0f);
  int i0 = int(a), j0 = int(b);
  int i1 = std::min(i0 + 1, n - 1), j1 = std::min(j0 + 1, n - 1);
  float fa = a - float(i0), fb = b - float(j0);
  const auto& v = table.value;
  return (1 - fa) * ((1 - fb) * v[i0][j0] + fb * v[i0][j1]) + fa * ((1 - fb) * v[i1][j0] + fb * v[i1][j1]);
}
}  // namespace

void buildSlopeTables() {
  buildVisibleSlopeTable(beckmannSlopeX, beckmannWeight);
  buildConditionalSlopeTable(beckmannSlopeY, beckmannWeight);
  buildVisibleSlopeTable(ggxSlopeX, ggxWeight);
  buildConditionalSlopeTable(ggxSlopeY, ggxWeight);
}

float lookupSlopeX(const SlopeTable& table, float theta, float u) {
  return lookup(table, theta / halfPi * 511.0f, u * 511.0f);
}

float lookupSlopeY(const SlopeTable& table, float x, float u) {
  return lookup(table, x * (1.0f / 32.0f) * 511.0f + 255.5f, u * 511.0f);
}
