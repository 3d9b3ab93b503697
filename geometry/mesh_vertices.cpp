#include "geometry/mesh_vertices.h"

namespace {

// Runs `visit(values of x, values of y)` on each channel of the two meshes, list by list.
template <typename MeshX, typename MeshY, typename Visit>
void forEachChannelPair(MeshX& x, MeshY& y, Visit visit) {
  for (size_t i = 0; i < x.vectorChannels.size() && i < y.vectorChannels.size(); ++i)
    visit(x.vectorChannels[i].values, y.vectorChannels[i].values);
  for (size_t i = 0; i < x.pairChannels.size() && i < y.pairChannels.size(); ++i)
    visit(x.pairChannels[i].values, y.pairChannels[i].values);
  for (size_t i = 0; i < x.scalarChannels.size() && i < y.scalarChannels.size(); ++i)
    visit(x.scalarChannels[i].values, y.scalarChannels[i].values);
}

template <typename T>
std::vector<VertexChannel<T>> namesOnly(const std::vector<VertexChannel<T>>& list) {
  std::vector<VertexChannel<T>> names;
  for (const VertexChannel<T>& channel : list) names.push_back({channel.name, {}});
  return names;
}

float blend(float x, float y, float z, const float b[3]) { return b[0] * x + b[1] * y + b[2] * z; }
Vec3f blend(Vec3f x, Vec3f y, Vec3f z, const float b[3]) { return b[0] * x + b[1] * y + b[2] * z; }
FloatPair blend(FloatPair x, FloatPair y, FloatPair z, const float b[3]) {
  return {blend(x.u, y.u, z.u, b), blend(x.v, y.v, z.v, b)};
}

bool sameValue(float a, float b) { return a == b; }
bool sameValue(Vec3f a, Vec3f b) { return a == b; }
bool sameValue(FloatPair a, FloatPair b) { return a.u == b.u && a.v == b.v; }

}  // namespace

Mesh vertexLayout(const Mesh& mesh) {
  Mesh layout;
  layout.vectorChannels = namesOnly(mesh.vectorChannels);
  layout.pairChannels = namesOnly(mesh.pairChannels);
  layout.scalarChannels = namesOnly(mesh.scalarChannels);
  return layout;
}

void appendChannelValues(Mesh& to, const Mesh& from, uint32_t v) {
  forEachChannelPair(to, from, [&](auto& out, const auto& in) {
    if (v < in.size()) out.push_back(in[v]);
  });
}

void appendBlendedValues(Mesh& to, const Mesh& from, const uint32_t v[3], const float b[3]) {
  forEachChannelPair(to, from, [&](auto& out, const auto& in) {
    if (v[0] >= in.size() || v[1] >= in.size() || v[2] >= in.size()) return;
    out.push_back(blend(in[v[0]], in[v[1]], in[v[2]], b));
  });
}

bool equalChannelValues(const Mesh& x, uint32_t a, const Mesh& y, uint32_t b) {
  bool equal = true;
  forEachChannelPair(x, y, [&](const auto& xs, const auto& ys) {
    if (a < xs.size() && b < ys.size() && !sameValue(xs[a], ys[b])) equal = false;
  });
  return equal;
}

void replaceVertices(Mesh& to, Mesh& from) {
  to.worldPositions = std::move(from.worldPositions);
  to.normals = std::move(from.normals);
  to.tangents = std::move(from.tangents);
  to.vectorChannels = std::move(from.vectorChannels);
  to.pairChannels = std::move(from.pairChannels);
  to.scalarChannels = std::move(from.scalarChannels);
}

void appendVertices(Mesh& to, const Mesh& from) {
  to.worldPositions.insert(to.worldPositions.end(), from.worldPositions.begin(), from.worldPositions.end());
  to.normals.insert(to.normals.end(), from.normals.begin(), from.normals.end());
  to.tangents.insert(to.tangents.end(), from.tangents.begin(), from.tangents.end());
  forEachChannelPair(to, from, [](auto& out, const auto& in) { out.insert(out.end(), in.begin(), in.end()); });
}
