// The comparison peer's view of a mesh: one triangle geometry attached to a scene.
#pragma once

#if QZ_EMBREE_VERSION == 4
#include <embree4/rtcore.h>
#else
#include <embree3/rtcore.h>
#endif

#include <algorithm>

#include "geometry/object.h"

inline void attachEmbreeTriangles(RTCDevice device, RTCScene scene, const Mesh& mesh) {
  RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
  auto* vertices = static_cast<Vec3f*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                               sizeof(Vec3f), mesh.worldPositions.size()));
  std::copy(mesh.worldPositions.begin(), mesh.worldPositions.end(), vertices);
  auto* indices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                                                 3 * sizeof(unsigned), mesh.triangles.size()));
  for (size_t i = 0; i < mesh.triangles.size(); ++i) {
    indices[3 * i] = mesh.triangles[i].i0;
    indices[3 * i + 1] = mesh.triangles[i].i1;
    indices[3 * i + 2] = mesh.triangles[i].i2;
  }
  rtcCommitGeometry(geometry);
  rtcAttachGeometry(scene, geometry);
  rtcReleaseGeometry(geometry);
}
