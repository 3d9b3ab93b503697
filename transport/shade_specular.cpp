#include "shading/fresnel.h"
#include "transport/child_ray.h"
#include "transport/medium.h"
#include "transport/path.h"

void shadeSpecular(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  // Mirrors and glass split nothing and know no bounce limit: only the depth ends them.
  if (surface.specular_on[1]) {
    Ray child = childRay(ray, surface, specularTransmissionEvent, ray.cursor.index, 1);
    // Total internal reflection gives the zero direction, and that child is traced all the same.
    refractAtSurface(child.direction, ray.direction, surface);
    child.throughput = surface.specular[1] * ray.throughput;
    lobes.specular[1] += surface.specular[1] * traceChild(ray, child);
  }
  if (surface.specular_on[0]) {
    const Vec3f d = normalize(ray.direction + 2 * surface.cos_view * surface.normal);
    // A mirror direction below the geometric surface is dropped, with no replacement.
    if (dot(d, surface.geometric_normal) > 0) {
      Ray child = childRay(ray, surface, specularReflectionEvent, ray.cursor.index, 1);
      child.direction = d;
      child.throughput = surface.specular[0] * ray.throughput;
      lobes.specular[0] += surface.specular[0] * traceChild(ray, child);
    }
  }
  attenuateInMedium(lobes.specular, ray, shader);
}
