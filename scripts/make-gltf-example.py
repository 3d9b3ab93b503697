#!/usr/bin/env python3
"""Writes the glTF example scene scenes/gltf/: a gold teapot, a glass ball,
three clay marbles (one mesh placed three times), a glowing ball, a backdrop, a
softbox overhead and a checker floor whose texture repeats through KHR_texture_transform, lit by a sun and a
spot light in photometric units, seen through the file's camera.

usage: make-gltf-example.py TEAPOT_OBJ OUT_DIR
TEAPOT_OBJ is Martin Newell's teapot as a triangle OBJ (positions only)."""
import json
import math
import struct
import sys
import zlib
from pathlib import Path


def normalize(v):
    n = math.sqrt(sum(c * c for c in v)) or 1.0
    return [c / n for c in v]


def cross(a, b):
    return [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]]


def read_teapot(path):
    positions, faces = [], []
    for line in Path(path).read_text().splitlines():
        words = line.split()
        if words and words[0] == "v":
            positions.append([float(w) for w in words[1:4]])
        elif words and words[0] == "f":
            faces.append([int(w.split("/")[0]) - 1 for w in words[1:4]])
    # Smooth normals: the sum of the faces' normals at each vertex.
    normals = [[0.0, 0.0, 0.0] for _ in positions]
    for f in faces:
        a, b, c = (positions[i] for i in f)
        n = cross([b[k] - a[k] for k in range(3)], [c[k] - a[k] for k in range(3)])
        for i in f:
            normals[i] = [normals[i][k] + n[k] for k in range(3)]
    return positions, [normalize(n) for n in normals], [], faces


def sphere(radius, rings=24, segments=48):
    positions, normals, uvs, faces = [], [], [], []
    for r in range(rings + 1):
        theta = math.pi * r / rings
        for s in range(segments + 1):
            phi = 2 * math.pi * s / segments
            n = [math.sin(theta) * math.cos(phi), math.cos(theta), -math.sin(theta) * math.sin(phi)]
            positions.append([radius * c for c in n])
            normals.append(n)
            uvs.append([s / segments, r / rings])
    for r in range(rings):
        for s in range(segments):
            a, b = r * (segments + 1) + s, (r + 1) * (segments + 1) + s
            faces += [[a, b, a + 1], [a + 1, b, b + 1]]
    return positions, normals, uvs, faces


def rectangle(corners, normal):
    return corners, [normal] * 4, [[0, 1], [1, 1], [1, 0], [0, 0]], [[0, 1, 2], [0, 2, 3]]


def checker_png(size=8):
    rows = b""
    for y in range(size):
        row = b"\x00"
        for x in range(size):
            row += bytes([228, 222, 210] if (x + y) % 2 else [60, 64, 72])
        rows += row

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", size, size, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")


def look_at(eye, target):
    """The rotation quaternion (x, y, z, w) that turns -z towards the target, y up."""
    z = normalize([eye[k] - target[k] for k in range(3)])
    x = normalize(cross([0, 1, 0], z))
    y = cross(z, x)
    m = [[x[0], y[0], z[0]], [x[1], y[1], z[1]], [x[2], y[2], z[2]]]
    w = math.sqrt(max(0.0, 1 + m[0][0] + m[1][1] + m[2][2])) / 2
    return [(m[2][1] - m[1][2]) / (4 * w), (m[0][2] - m[2][0]) / (4 * w), (m[1][0] - m[0][1]) / (4 * w), w]


class Builder:
    def __init__(self):
        self.bin = bytearray()
        self.views, self.accessors, self.meshes = [], [], []

    def add(self, data, fmt, count, kind, component, target, bounds=None):
        while len(self.bin) % 4:
            self.bin.append(0)
        self.views.append({"buffer": 0, "byteOffset": len(self.bin), "byteLength": len(data), "target": target})
        self.bin += data
        accessor = {"bufferView": len(self.views) - 1, "componentType": component, "count": count, "type": kind}
        if bounds:
            accessor["min"], accessor["max"] = bounds
        self.accessors.append(accessor)
        return len(self.accessors) - 1

    def mesh(self, name, geometry, material):
        positions, normals, uvs, faces = geometry
        flat = lambda rows: [c for row in rows for c in row]
        bounds = ([min(p[k] for p in positions) for k in range(3)], [max(p[k] for p in positions) for k in range(3)])
        attributes = {
            "POSITION": self.add(struct.pack(f"<{3 * len(positions)}f", *flat(positions)), "f", len(positions), "VEC3", 5126, 34962, bounds),
            "NORMAL": self.add(struct.pack(f"<{3 * len(normals)}f", *flat(normals)), "f", len(normals), "VEC3", 5126, 34962),
        }
        if uvs:
            attributes["TEXCOORD_0"] = self.add(struct.pack(f"<{2 * len(uvs)}f", *flat(uvs)), "f", len(uvs), "VEC2", 5126, 34962)
        indices = self.add(struct.pack(f"<{3 * len(faces)}I", *flat(faces)), "I", 3 * len(faces), "SCALAR", 5125, 34963)
        self.meshes.append({"name": name, "primitives": [{"attributes": attributes, "indices": indices, "material": material}]})
        return len(self.meshes) - 1


def main():
    teapot_path, out = sys.argv[1], Path(sys.argv[2])
    out.mkdir(parents=True, exist_ok=True)
    (out / "checker.png").write_bytes(checker_png())
    b = Builder()
    materials = [
        {"name": "gold", "pbrMetallicRoughness": {"baseColorFactor": [1.0, 0.74, 0.32, 1], "metallicFactor": 1, "roughnessFactor": 0.25}},
        {"name": "glass", "pbrMetallicRoughness": {"baseColorFactor": [0.92, 0.97, 1.0, 1], "metallicFactor": 0, "roughnessFactor": 0},
         "extensions": {"KHR_materials_transmission": {"transmissionFactor": 1}, "KHR_materials_ior": {"ior": 1.5}}},
        {"name": "clay", "pbrMetallicRoughness": {"baseColorFactor": [0.62, 0.16, 0.1, 1], "metallicFactor": 0, "roughnessFactor": 0.55}},
        {"name": "glow", "pbrMetallicRoughness": {"baseColorFactor": [0, 0, 0, 1], "metallicFactor": 0},
         "emissiveFactor": [1.0, 0.62, 0.3], "extensions": {"KHR_materials_emissive_strength": {"emissiveStrength": 12}}},
        {"name": "softbox", "pbrMetallicRoughness": {"baseColorFactor": [0, 0, 0, 1], "metallicFactor": 0},
         "emissiveFactor": [1, 1, 1], "extensions": {"KHR_materials_emissive_strength": {"emissiveStrength": 6}}},
        {"name": "backdrop", "pbrMetallicRoughness": {"baseColorFactor": [0.55, 0.6, 0.68, 1], "metallicFactor": 0, "roughnessFactor": 1}},
        {"name": "floor", "pbrMetallicRoughness": {"baseColorTexture": {"index": 0, "extensions": {"KHR_texture_transform": {"scale": [2, 2]}}},
                                                    "metallicFactor": 0, "roughnessFactor": 0.7}},
    ]
    teapot = b.mesh("teapot", read_teapot(teapot_path), 0)
    ball = b.mesh("glass-ball", sphere(1.2), 1)
    marble = b.mesh("marble", sphere(0.5), 2)
    lamp = b.mesh("lamp", sphere(0.3), 3)
    # Facing down: its corners wind clockwise seen from below.
    panel = b.mesh("softbox", rectangle([[-5, 11, -4], [5, 11, -4], [5, 11, 4], [-5, 11, 4]], [0, -1, 0]), 4)
    wall = b.mesh("backdrop", rectangle([[-20, 0, -9], [20, 0, -9], [20, 20, -9], [-20, 20, -9]], [0, 0, 1]), 5)
    ground = b.mesh("floor", rectangle([[-20, 0, 20], [20, 0, 20], [20, 0, -9], [-20, 0, -9]], [0, 1, 0]), 6)
    eye, target = [7.5, 5.5, 11.0], [0.3, 1.2, 0.8]
    nodes = [
        {"name": "teapot", "mesh": teapot, "rotation": [0, math.sin(math.radians(-15)), 0, math.cos(math.radians(-15))]},
        {"name": "glass ball", "mesh": ball, "translation": [4.6, 1.2, 2.0]},
        {"name": "marble 1", "mesh": marble, "translation": [-4.2, 0.5, 2.4]},
        {"name": "marble 2", "mesh": marble, "translation": [-3.0, 0.5, 3.6]},
        {"name": "marble 3", "mesh": marble, "translation": [-4.6, 0.5, 3.9]},
        {"name": "lamp", "mesh": lamp, "translation": [1.9, 0.3, 4.2]},
        {"name": "floor", "mesh": ground},
        # Something behind for the gold to reflect: the sky stays dark where lights are given.
        {"name": "backdrop", "mesh": wall},
        {"name": "softbox", "mesh": panel},
        {"name": "camera", "camera": 0, "translation": eye, "rotation": look_at(eye, target)},
        # The sun comes from the front left; the spot from above on the right.
        {"name": "sun", "extensions": {"KHR_lights_punctual": {"light": 0}}, "rotation": look_at([-7, 6, 5], [0, 0, 0])},
        {"name": "spot", "extensions": {"KHR_lights_punctual": {"light": 1}}, "translation": [5, 9, 5],
         "rotation": look_at([5, 9, 5], [0, 0, 0])},
    ]
    gltf = {
        "asset": {"version": "2.0", "generator": "quazel scripts/make-gltf-example.py"},
        "extensionsUsed": ["KHR_lights_punctual", "KHR_materials_transmission", "KHR_materials_ior",
                           "KHR_materials_emissive_strength", "KHR_texture_transform"],
        "scene": 0, "scenes": [{"nodes": list(range(len(nodes)))}], "nodes": nodes,
        "cameras": [{"name": "view", "type": "perspective", "perspective": {"yfov": 0.62, "aspectRatio": 16 / 9, "znear": 0.1}}],
        "extensions": {"KHR_lights_punctual": {"lights": [
            {"type": "directional", "color": [1.0, 0.9, 0.78], "intensity": 500},
            {"type": "spot", "color": [0.8, 0.88, 1.0], "intensity": 25000, "spot": {"innerConeAngle": 0.3, "outerConeAngle": 0.6}},
        ]}},
        "materials": materials, "meshes": b.meshes,
        "textures": [{"source": 0}], "images": [{"uri": "checker.png"}],
        "buffers": [{"uri": "still-life.bin", "byteLength": len(b.bin)}],
        "bufferViews": b.views, "accessors": b.accessors,
    }
    (out / "still-life.bin").write_bytes(bytes(b.bin))
    (out / "still-life.gltf").write_text(json.dumps(gltf, indent=1) + "\n")


if __name__ == "__main__":
    main()
