// What every light shares: the record of point and parallel lights, the
// shaders a light is linked to, and the pieces of direct lighting that the
// sky and the geometry light use as well.
#pragma once

#include <atomic>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "accel/ray.h"
#include "frame/scene_file.h"
#include "frame/vec.h"
#include "output/aov.h"
#include "shading/sampling_shapes.h"
#include "shading/surface.h"
#include "shading/texture_node.h"
#include "transport/lobe_radiance.h"

// Which shaders a light illuminates. The names come from a scene file and are
// turned into identifiers at preparation; no identifiers means every shader.
struct LightLink {
  std::vector<int> shaders;
  std::vector<std::string> names;
};

struct Light {
  virtual ~Light() = default;
  // Restores the defaults of the kind.
  virtual void reset() = 0;
  // Fills `ray` for photon `index`: its start, direction and flux (in `weight`).
  // The shaders its first segment may light are the light's own `link`.
  virtual void emit(Ray& ray, uint64_t index) const = 0;

  Frame frame{{1, 0, 0}, {0, 0, 1}, {0, -1, 0}};  // the third row is the axis
  Color3f color = white;
  Color3f power = white;  // total flux of the photons, derived at preparation
  int64_t photon = 0;
  float blur = 0;  // radius of a point light, half angle in degrees of a parallel light
  float ior = 1;   // index of refraction that photons start in
  int sample = 1;  // samples per shading point at the first bounce
  TextureNode image;  // kept for hosts that set it; nothing reads it
  LightLink link;
  std::vector<CameraAOV> aovs;
  float cos_max = 1;  // cosine of the cone of blur or of emission
  float offset = 0.1f;  // moves the terminator of the diffuse lobes
};

// Set by each photon emission: 1 while the sky casts, 0 for point and
// parallel lights. The photon store keeps no caustics from the sky. All
// threads of a cast write the same value, so relaxed stores do.
extern std::atomic<uint8_t> skyPhoton;

// The shader ids of the names, appended: an unknown name links shader 0.
void resolveLink(LightLink& link);
bool linkAllows(const LightLink& link, uint32_t shader);

// Appends a light's AOV as the exports and the `aov` block make it, named
// "undefined", and returns its index.
int addLightAOV(std::vector<CameraAOV>& aovs);
// The record of an identifier from a host, or null when it is out of range:
// such a call then changes nothing.
template <class T>
T* recordAt(std::vector<T>& records, int id) {
  return id >= 0 && size_t(id) < records.size() ? &records[size_t(id)] : nullptr;
}
void setLightAOVName(std::vector<CameraAOV>& aovs, int aov, const char* name);
// ORs into the mask, unlike the camera's setter, which replaces it.
void addLightAOVChannel(std::vector<CameraAOV>& aovs, int aov, int channel);
// The two sub-blocks of every light block, `aov` and `link` (lines
// `shader "name"`); false for any other key.
bool readAOVOrLinkKey(SceneLine& line, std::istream& file, std::vector<CameraAOV>& aovs, LightLink& link);
// Sizes every AOV as the rendered camera and clears it.
void prepareLightAOVs(std::vector<CameraAOV>& aovs);
// Passed for `shader` below by the lights whose AOVs take everything.
constexpr int anyShader = -2;
// Adds value times the ray's throughput over its sample count to each AOV
// that has any of `bits`; unless `shader` is anyShader, only to the AOVs that
// name that shader or none.
void addToLightAOVs(std::vector<CameraAOV>& aovs, uint32_t bits, Color3f value, const Ray& ray,
                    int shader = anyShader);
// The bit of a light AOV that takes what arrives along this ray: by the event
// that made it, and the emission bit on a path's first segment.
uint32_t lightAOVBits(const Ray& ray);

// The pass count P of the rendered camera, at least 1.
int passCount();
// The bounce index: non-specular bounces so far.
inline uint32_t bounceIndex(const Ray& ray) { return ray.cursor.dimension / 2; }
// The samples a first hit takes in this pass, of N over all passes: `count` of
// them, the j-th with index first + j step. The random sampler deals the
// indices out round the passes (pass, pass + P, ...); the sobol sampler gives
// each pass the next run of its sequence, so that the first passes of a render
// are strata of one sequence.
struct PassShare {
  uint32_t first = 0, step = 1, count = 0;
  uint32_t index(uint32_t j) const { return first + j * step; }
};
PassShare passShare(int N);
// Mean colour of the lobes that are on: how much a light sample is worth here.
float lobeAverage(const Surface& surface);
// Samples a light takes at a first-bounce hit over all passes: scaled by the
// lobes and the throughput, at most `sample`, at least P, a multiple of P.
int firstBounceSampleCount(const Surface& surface, const Ray& ray, int sample);
// Transmittance from `origin` along `direction` to `distance` for the thread
// of `from`, passing over the primitive `leaving` that the ray starts on and
// over the primitive that it aims at, named by its kind and index.
Color3f shadowTransmittance(const Ray& from, const Hit& leaving, Vec3f origin, Vec3f direction, float distance,
                            uint8_t targetKind = 0, uint32_t targetPrimitive = uint32_t(-1));
// Diffuse jitter is used at hits on faces whose surface has all three radii.
bool jitterInForce(const Ray& ray, const Surface& surface);
// Probes for a nearby point of the hit's shader until one is found; false
// when none is found in a bounded number of tries (a shader that probes never find).
bool findJitteredSurface(const Ray& ray, const Surface& surface, Surface& jittered, Hit& jitteredHit,
                         Color3f& weight);
// The side of the surface whose lobes can see a light in direction l: 1 the
// front (reflection) lobes, -1 the back (transmission) lobes, 0 neither; the
// shading and the geometric normal must agree.
int lightSide(const Surface& surface, Vec3f l);
// How a light sample is weighed against the lobes' own samples: by the
// balance heuristic, with the sample counts on the first bounce.
struct LightBalance {
  bool first_bounce = false;
  float light_samples = 0;   // Ns: the light's `sample`
  float bounce_samples = 0;  // Nb: the renderer's sample count
};
// Adds radiance L arriving from l, whose light sampling has the density ps,
// to the accumulators of the lobes on `side`, each weighed against its own
// density; `diffuseWeight` scales the diffuse lobes only (jitter).
void addBalancedSample(Color3f accumulators[4], const Surface& surface, Vec3f l, int side, Color3f L,
                       Color3f diffuseWeight, float ps, const LightBalance& balance);
// The same at a fibre, which has no sides: its diffuse cylinder and each of
// its three glossy lobes, weighed against its own density.
void addBalancedFibreSample(Color3f accumulators[4], const Ray& ray, const Surface& surface, Vec3f l, Color3f L,
                            float ps, const LightBalance& balance);
// The density with which the lobe of `ray.hit.event` (3 to 6) at `ray.parent`
// chose the ray's direction; after a fibre, that of the fibre's lobe.
float bounceDensity(const Ray& ray);
// The last step of direct lighting: the four accumulators (diffuse and glossy,
// reflection and transmission) take their lobe colours and go to the
// integrator and to the light's AOVs; unless `shader` is anyShader, an AOV
// that names a shader takes only what comes from that one.
void finishDirectLight(Color3f accumulators[4], const Surface& surface, LobeRadiance& lobes,
                       std::vector<CameraAOV>& aovs, const Ray& ray, int shader = anyShader);
// The common start of a photon's first segment: from no primitive, event 2,
// white throughput, the sample `index` in `dimension`, scramble 0.
void startPhoton(Ray& ray, uint64_t index, uint32_t dimension, float ior);
// A point of the unit disk from two numbers in [0, 1], by the concentric map
// with the sectors split on |a| against |b|.
void diskPoint(float u1, float u2, float& x, float& y);
