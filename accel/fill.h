// Turning a closest hit into the geometric fields of a Surface: position,
// view, texture coordinates and the shading frame turned towards the viewer.
// The face and particle fills then hand over to the scattering setup.
#pragma once

#include "accel/ray.h"
#include "geometry/object.h"
#include "shading/shader.h"
#include "shading/surface.h"

// `ray` is the query's ray with its hit; the shader is that of `hit.shader`.
void fillTriangle(const Mesh& mesh, const Ray& ray, const Shader& shader, Surface& surface);
void fillTetragon(const Mesh& mesh, const Ray& ray, const Shader& shader, Surface& surface);
void fillParticle(const ParticleSet& set, const Ray& ray, const Shader& shader, Surface& surface);
// Sets the fibre's frame, turned about its axis by a random angle; the
// fibre's colours come from the hair shading, not from the scattering setup.
void fillCylinder(const CylinderSet& set, const Ray& ray, const Shader& shader, Surface& surface);
