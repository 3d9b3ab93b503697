// Small value records every module passes around: vectors, colours, matrices.
#pragma once

#include <cmath>

struct Vec3f {
  float x = 0, y = 0, z = 0;
  Vec3f() = default;
  constexpr Vec3f(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
  float operator[](int i) const { return (&x)[i]; }
  float& operator[](int i) { return (&x)[i]; }
};

struct Color3f {
  float r = 0, g = 0, b = 0;
  Color3f() = default;
  constexpr Color3f(float r_, float g_, float b_) : r(r_), g(g_), b(b_) {}
  float operator[](int i) const { return (&r)[i]; }
  float& operator[](int i) { return (&r)[i]; }
};

// Row-major, translation in the fourth column, points are column vectors.
struct Matrix4f {
  float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  float operator()(int row, int col) const { return m[row * 4 + col]; }
  float& operator()(int row, int col) { return m[row * 4 + col]; }
};

constexpr Color3f black{0, 0, 0};
constexpr Color3f white{1, 1, 1};
constexpr Vec3f zeroVector{0, 0, 0};

// The float with the bits 0x7F7FC99E: "infinity" for distances and clamps.
constexpr float infinity = 3.4e38f;

inline Vec3f operator+(Vec3f a, Vec3f b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec3f operator-(Vec3f a, Vec3f b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec3f operator-(Vec3f a) { return {-a.x, -a.y, -a.z}; }
inline Vec3f operator*(Vec3f a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline Vec3f operator*(float s, Vec3f a) { return {a.x * s, a.y * s, a.z * s}; }
inline Vec3f operator*(Vec3f a, Vec3f b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
inline Vec3f operator/(Vec3f a, float s) { return a * (1.0f / s); }
inline Vec3f& operator+=(Vec3f& a, Vec3f b) { return a = a + b; }
inline Vec3f& operator-=(Vec3f& a, Vec3f b) { return a = a - b; }
inline Vec3f& operator*=(Vec3f& a, float s) { return a = a * s; }
inline bool operator==(Vec3f a, Vec3f b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

inline float dot(Vec3f a, Vec3f b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3f cross(Vec3f a, Vec3f b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float lengthSquared(Vec3f a) { return dot(a, a); }
inline float length(Vec3f a) { return std::sqrt(dot(a, a)); }
inline Vec3f minimum(Vec3f a, Vec3f b) { return {std::fmin(a.x, b.x), std::fmin(a.y, b.y), std::fmin(a.z, b.z)}; }
inline Vec3f maximum(Vec3f a, Vec3f b) { return {std::fmax(a.x, b.x), std::fmax(a.y, b.y), std::fmax(a.z, b.z)}; }

// The zero vector comes back unchanged: its factor is 1, so no NaN appears.
inline Vec3f normalize(Vec3f a) {
  float s = dot(a, a);
  return a * (s == 0.0f ? 1.0f : 1.0f / std::sqrt(s));
}

inline Color3f operator+(Color3f a, Color3f b) { return {a.r + b.r, a.g + b.g, a.b + b.b}; }
inline Color3f operator-(Color3f a, Color3f b) { return {a.r - b.r, a.g - b.g, a.b - b.b}; }
inline Color3f operator*(Color3f a, Color3f b) { return {a.r * b.r, a.g * b.g, a.b * b.b}; }
inline Color3f operator*(Color3f a, float s) { return {a.r * s, a.g * s, a.b * s}; }
inline Color3f operator*(float s, Color3f a) { return {a.r * s, a.g * s, a.b * s}; }
inline Color3f operator/(Color3f a, float s) { return a * (1.0f / s); }
inline Color3f& operator+=(Color3f& a, Color3f b) { return a = a + b; }
inline Color3f& operator*=(Color3f& a, Color3f b) { return a = a * b; }
inline Color3f& operator*=(Color3f& a, float s) { return a = a * s; }
inline bool operator==(Color3f a, Color3f b) { return a.r == b.r && a.g == b.g && a.b == b.b; }
inline float maxComponent(Color3f c) { return std::fmax(c.r, std::fmax(c.g, c.b)); }
// A colour counts as on when any channel exceeds this threshold.
inline bool isOn(Color3f c) { return c.r > 1e-6f || c.g > 1e-6f || c.b > 1e-6f; }

// Points take the homogeneous divide; directions ignore translation and w.
inline Vec3f transformPoint(const Matrix4f& a, Vec3f p) {
  const float* m = a.m;
  float w = m[12] * p.x + m[13] * p.y + m[14] * p.z + m[15];
  return Vec3f{m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3], m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7],
               m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]} /
         w;
}
inline Vec3f transformVector(const Matrix4f& a, Vec3f v) {
  const float* m = a.m;
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[4] * v.x + m[5] * v.y + m[6] * v.z,
          m[8] * v.x + m[9] * v.y + m[10] * v.z};
}

Matrix4f operator*(const Matrix4f& a, const Matrix4f& b);
// General inverse by cofactors; a singular matrix yields infinities or NaNs.
Matrix4f inverse(const Matrix4f& a);
// C = A B for row-major 3 by 3 matrices.
void multiply3x3(const float* a, const float* b, float* c);
