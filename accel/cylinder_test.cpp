// A hair segment is a cubic Hermite curve; its eight chords, from P(k/8) to
// P((k+1)/8), are tested as eight thin cylinders in the lanes of one register.
#include <immintrin.h>

#include <cmath>
#include <cstring>

#include "accel/primitive_tests.h"

namespace {
// Weights of P(s) = a + (3s^2 - 2s^3)(b - a) + s(1 - s)^2 m0 - s^2(1 - s) m1 at
// the chord ends of each lane, and of the local tangent m0 + s (m1 - m0).
struct ChordWeights {
  float chord[8], tangent0[8], tangent1[8], s[8];
};

struct CurveTables {
  ChordWeights start, end;
  // Shares of the two end radii, in sevenths: lane 7 has exactly r_b.
  float radiusA[8], radiusB[8];
};

constexpr ChordWeights chordWeights(int offset) {
  ChordWeights w{};
  for (int k = 0; k < 8; ++k) {
    const float s = float(k + offset) / 8, r = 1 - s;
    w.chord[k] = 3 * s * s - 2 * s * s * s;
    w.tangent0[k] = s * r * r;
    w.tangent1[k] = -s * s * r;
    w.s[k] = s;
  }
  return w;
}

constexpr CurveTables makeCurveTables() {
  CurveTables tables{chordWeights(0), chordWeights(1), {}, {}};
  for (int k = 0; k < 8; ++k) {
    tables.radiusA[k] = 1 - float(k) / 7;
    tables.radiusB[k] = float(k) / 7;
  }
  return tables;
}

alignas(32) constexpr CurveTables curve = makeCurveTables();

struct Lanes3 {
  __m256 x, y, z;
};

inline __m256 splat(float v) { return _mm256_set1_ps(v); }
inline __m256 load(const float* p) { return _mm256_load_ps(p); }
inline __m256 madd(__m256 a, __m256 b, __m256 c) { return _mm256_add_ps(_mm256_mul_ps(a, b), c); }

inline Lanes3 splat3(Vec3f v) { return {splat(v.x), splat(v.y), splat(v.z)}; }
inline Lanes3 sub3(Lanes3 a, Lanes3 b) { return {_mm256_sub_ps(a.x, b.x), _mm256_sub_ps(a.y, b.y), _mm256_sub_ps(a.z, b.z)}; }
inline __m256 dot3(Lanes3 a, Lanes3 b) { return madd(a.x, b.x, madd(a.y, b.y, _mm256_mul_ps(a.z, b.z))); }
inline Lanes3 cross3(Lanes3 a, Lanes3 b) {
  return {_mm256_sub_ps(_mm256_mul_ps(a.y, b.z), _mm256_mul_ps(a.z, b.y)),
          _mm256_sub_ps(_mm256_mul_ps(a.z, b.x), _mm256_mul_ps(a.x, b.z)),
          _mm256_sub_ps(_mm256_mul_ps(a.x, b.y), _mm256_mul_ps(a.y, b.x))};
}
// p + s v, lane by lane.
inline Lanes3 along(Lanes3 p, __m256 s, Lanes3 v) { return {madd(s, v.x, p.x), madd(s, v.y, p.y), madd(s, v.z, p.z)}; }

// a + chord (b - a) + w0 m0 + w1 m1 for the weights of one end of every lane.
inline Lanes3 curvePoints(const ChordWeights& w, Vec3f a, Vec3f ba, Vec3f m0, Vec3f m1) {
  Lanes3 p = splat3(a);
  p = along(p, load(w.chord), splat3(ba));
  p = along(p, load(w.tangent0), splat3(m0));
  return along(p, load(w.tangent1), splat3(m1));
}

struct CurveHit {
  float t;
  float across;
  int lane;
};

// The candidate lanes pass the distance test; `shaderSeen` runs once some lane
// passes it, as substitution and visibility come before the distance.
template <typename ShaderSeen>
bool crossCurve(const CylinderSet& set, uint32_t index, const Ray& ray, ShaderSeen shaderSeen, CurveHit& hit) {
  const uint32_t first = set.indices[index].first;
  const Vec3f a = set.worldPositions[first], b = set.worldPositions[first + 1];
  const float chord = length(b - a);
  const Vec3f m0 = unpackUnitVector(set.tangents[first]) * chord;
  const Vec3f m1 = unpackUnitVector(set.tangents[first + 1]) * chord;
  const Lanes3 start = curvePoints(curve.start, a, b - a, m0, m1);
  const Lanes3 end = curvePoints(curve.end, a, b - a, m0, m1);

  const std::vector<float>& radii = set.scalarChannels[0].values;
  const __m256 r = madd(load(curve.radiusA), splat(radii[first]), _mm256_mul_ps(load(curve.radiusB), splat(radii[first + 1])));

  const Lanes3 d = splat3(ray.direction);
  const Lanes3 e = sub3(end, start), w = sub3(start, splat3(ray.origin));
  const Lanes3 n = cross3(d, e);
  const __m256 g = dot3(n, w), nn = dot3(n, n);
  const __m256 candidates = _mm256_cmp_ps(_mm256_mul_ps(g, g), _mm256_mul_ps(nn, _mm256_mul_ps(r, r)), _CMP_LT_OQ);
  if (_mm256_movemask_ps(candidates) == 0 || !shaderSeen()) return false;

  const Lanes3 en = cross3(e, n);
  const __m256 t = _mm256_div_ps(dot3(en, w), dot3(en, d));
  __m256 keep = _mm256_and_ps(candidates, _mm256_cmp_ps(t, splat(1e-6f), _CMP_GT_OQ));
  keep = _mm256_and_ps(keep, _mm256_cmp_ps(_mm256_add_ps(t, splat(1e-6f)), splat(ray.t), _CMP_LT_OQ));

  // End caps: the point must lie past the start's tangent plane and before the end's.
  const Lanes3 q = along(splat3(ray.origin), t, d);
  const Lanes3 dm = splat3(m1 - m0), m = splat3(m0);
  const Lanes3 tangent0 = along(m, load(curve.start.s), dm), tangent1 = along(m, load(curve.end.s), dm);
  keep = _mm256_and_ps(keep, _mm256_cmp_ps(dot3(sub3(q, start), tangent0), splat(0), _CMP_GE_OQ));
  keep = _mm256_and_ps(keep, _mm256_cmp_ps(dot3(sub3(q, end), tangent1), splat(0), _CMP_LT_OQ));
  int lanes = _mm256_movemask_ps(keep);
  if (lanes == 0) return false;

  alignas(32) float ts[8], gs[8], nns[8], rs[8];
  _mm256_store_ps(ts, t);
  hit.lane = -1;
  for (int k = 0; k < 8; ++k)
    if ((lanes >> k & 1) && (hit.lane < 0 || ts[k] < ts[hit.lane])) hit.lane = k;
  _mm256_store_ps(gs, g);
  _mm256_store_ps(nns, nn);
  _mm256_store_ps(rs, r);
  hit.t = ts[hit.lane];
  hit.across = gs[hit.lane] / (std::sqrt(nns[hit.lane]) * rs[hit.lane]);
  return true;
}
}  // namespace

bool closestCylinder(const Object& object, uint32_t index, Ray& ray) {
  if (isPreviousPrimitive(object, ray, kindCylinder, index)) return false;
  const CylinderSet& set = object.cylinders;
  uint32_t shader = 0;
  CurveHit hit;
  if (!crossCurve(set, index, ray, [&] { return visibleShader(ray, uint32_t(set.shader), shader); }, hit))
    return false;
  recordHit(object, ray, kindCylinder, index, shader, hit.t);
  // The first two coordinates carry the shader's bits and mean nothing.
  std::memcpy(&ray.coords[0], &shader, sizeof(float));
  std::memcpy(&ray.coords[1], &shader, sizeof(float));
  ray.coords[2] = float(hit.lane) * 0.125f + 0.0625f;
  ray.across = hit.across;
  return true;
}

bool shadowCylinder(const Object& object, uint32_t index, const Ray& ray) {
  const CylinderSet& set = object.cylinders;
  uint32_t shader;
  CurveHit hit;
  return crossCurve(set, index, ray, [&] { return visibleShader(ray, uint32_t(set.shader), shader); }, hit);
}
