// The sky's importance tables: cell colours resampled from the image, a
// cumulative table over the b of each row and one over the rows.
#include "lights/sky.h"

namespace {
constexpr float pi = 3.14159265f;
constexpr float tapOffsets[3] = {-0.33f, 0, 0.33f};

// Nine taps through the cube and the image, averaged.
Color3f resampleCell(int face, int a, int b, const TextureNode& lookup) {
  Color3f sum;
  for (float da : tapOffsets)
    for (float db : tapOffsets) {
      float u, v;
      skyImageCoordinates(skyCellDirection(face, float(a) + da, float(b) + db), u, v);
      sum += sampleImage(sky.image, u, v, lookup);
    }
  return sum * (1.0f / 9);
}

// Running sums of `values` turned into a table ending in 1; an all-zero run stays zero.
void cumulate(const double* values, int n, float* table, double& total) {
  total = 0;
  for (int i = 0; i < n; ++i) total += values[i];
  double running = 0;
  for (int i = 0; i < n; ++i) {
    running += values[i];
    table[i] = total > 0 ? float(running / total) : 0.0f;
  }
}

// An entry of a cumulative table minus the one before it.
float step(const float* table, int i) { return i == 0 ? table[0] : table[i] - table[i - 1]; }
}  // namespace

void buildSkyTables() {
  sky.cells.assign(skyCellCount, black);
  sky.rows.assign(skyRowCount, SkyRow());
  sky.row_cdf.assign(skyRowCount, 0);
  const TextureNode lookup;
  for (int face = 0; face < 6; ++face) {
#pragma omp parallel for
    for (int a = 0; a < skyFaceSize; ++a) {
      double values[skyFaceSize];
      for (int b = 0; b < skyFaceSize; ++b) {
        const Color3f c = resampleCell(face, a, b, lookup);
        sky.cells[skyCellIndex(face, a, b)] = c;
        values[b] = (c.r + c.g + c.b) / 3;
      }
      const int row = face * skyFaceSize + a;
      cumulate(values, skyFaceSize, sky.rows[row].cdf, sky.rows[row].sum);
      sky.row_cdf[row] = float(sky.rows[row].sum);
    }
  }
  const std::vector<double> weights(sky.row_cdf.begin(), sky.row_cdf.end());
  double total;
  cumulate(weights.data(), skyRowCount, sky.row_cdf.data(), total);
}

void sampleSkyCell(float u1, float u2, int& face, int& a, int& b, float& probability) {
  float pRow, pCell;
  const int row = selectFromCdf(sky.row_cdf.data(), skyRowCount, u1, pRow);
  b = selectFromCdf(sky.rows[row].cdf, skyFaceSize, u2, pCell);
  face = row / skyFaceSize;
  a = row % skyFaceSize;
  probability = pRow * pCell;
}

float skyDensity(Vec3f d) {
  if (sky.rows.empty()) return 0;
  int face, a, b;
  skyCell(d, face, a, b);
  const int row = face * skyFaceSize + a;
  // Every cell counts as the same solid angle, 4 pi / 393216.
  return step(sky.row_cdf.data(), row) * step(sky.rows[row].cdf, b) * float(skyCellCount) / (4 * pi);
}

Color3f skyCellColor(Vec3f d) {
  int face, a, b;
  skyCell(d, face, a, b);
  return sky.cells[skyCellIndex(face, a, b)];
}
