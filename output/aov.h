// Framebuffers: every output of a render is an AOV, a full-resolution image that
// collects one kind of term. Element 0 of a camera's list is the beauty image.
#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include "accel/ray.h"
#include "shading/image.h"

// The channel mask 4 by itself, compared for equality, means a user-data AOV.
constexpr uint32_t userDataChannel = 4;
constexpr uint32_t beautyChannel = 1;

struct CameraAOV {
  std::string shader_name;
  std::string user_data_name = "undefined";
  Image image;  // its name is the output file
  int shader = -1;
  int width = 0, height = 0;
  uint32_t channel = 0;
};

// What a first hit offers the AOVs, gathered by the path integrator from its
// surface and its lobe accumulators.
struct HitTerms {
  Vec3f normal, tangent, position;
  // diffuse[0], diffuse[1], glossy[0], glossy[1], specular[0], specular[1] of the surface
  Color3f colors[6];
  // radiance of the same six lobes, then emission
  Color3f radiance[7];
};

// The beauty AOV of a new camera, named by the local time of its creation.
CameraAOV makeBeautyAOV();
// Whether a name is of the form the beauty AOV is given by default.
bool isDefaultBeautyName(const std::string& name);
// The mask bits of a `type` word, or 0 for a word that is not a keyword.
uint32_t aovTypeBits(const std::string& word);
void readAOVBlock(std::istream& file, CameraAOV& aov);
// Clears the image and allocates it as float RGB at the owner's size.
void prepareAOV(CameraAOV& aov, int width, int height);
int64_t aovBytes(const CameraAOV& aov);
// Adds a first hit's terms to every AOV of the current camera at the ray's pixel.
void writeCameraAOVs(const Ray& ray, const HitTerms& terms);
// Writes the AOV's image; a framebuffer that could not be allocated is a file
// that cannot be written, and says so.
void saveAOV(const CameraAOV& aov);
// The layer name of an AOV in a multi-layer file: its type words, joined by
// '+', "beauty" for the beauty, or the name of its vertex data.
std::string aovLayerName(const CameraAOV& aov);
// The "avgerage" and "variance" rows of the finished image.
void reportAOV(const CameraAOV& aov);
