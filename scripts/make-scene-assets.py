#!/usr/bin/env python3
"""Writes the meshes and the bump image of the example scenes that are made
rather than copied: the Cornell box, the ground planes, the spheres of the
materials scene and its bump map. Run from the repository root."""
import math
import struct
import zlib


def sub(a, b):
    return [a[i] - b[i] for i in range(3)]


def cross(a, b):
    return [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]]


def dot(a, b):
    return sum(a[i] * b[i] for i in range(3))


class Obj:
    def __init__(self, comment):
        self.lines = ["# " + comment]
        self.count = 0

    def material(self, name):
        self.lines.append("usemtl " + name)

    def quad(self, corners, facing):
        """A four-cornered face wound so that its front looks along `facing`."""
        normal = cross(sub(corners[2], corners[0]), sub(corners[3], corners[1]))
        if dot(normal, facing) < 0:
            corners = corners[::-1]
        for p in corners:
            self.lines.append("v %.6f %.6f %.6f" % tuple(p))
        self.lines.append("f %d %d %d %d" % tuple(range(self.count + 1, self.count + 5)))
        self.count += 4

    def save(self, path):
        with open(path, "w") as f:
            f.write("\n".join(self.lines) + "\n")


def box(obj, center, size, turn):
    """The top and four sides of a box turned about the vertical axis by `turn` degrees."""
    c, s = math.cos(math.radians(turn)), math.sin(math.radians(turn))

    def at(x, y, z):
        x, z = x * size[0] / 2, z * size[2] / 2
        return [center[0] + c * x + s * z, center[1] + y * size[1] / 2, center[2] - s * x + c * z]

    def outward(x, z):
        return [c * x + s * z, 0, -s * x + c * z]

    obj.quad([at(-1, 1, -1), at(1, 1, -1), at(1, 1, 1), at(-1, 1, 1)], [0, 1, 0])
    for x, z in ((1, 0), (-1, 0), (0, 1), (0, -1)):
        if x:
            corners = [at(x, -1, -1), at(x, -1, 1), at(x, 1, 1), at(x, 1, -1)]
        else:
            corners = [at(-1, -1, z), at(1, -1, z), at(1, 1, z), at(-1, 1, z)]
        obj.quad(corners, outward(x, z))


def cornell_box(path):
    obj = Obj("Cornell box: 2 units wide, open towards +z, y up")
    obj.material("white")
    obj.quad([[-1, 0, -1], [1, 0, -1], [1, 0, 1], [-1, 0, 1]], [0, 1, 0])
    obj.quad([[-1, 2, -1], [1, 2, -1], [1, 2, 1], [-1, 2, 1]], [0, -1, 0])
    obj.quad([[-1, 0, -1], [1, 0, -1], [1, 2, -1], [-1, 2, -1]], [0, 0, 1])
    obj.material("red")
    obj.quad([[-1, 0, -1], [-1, 0, 1], [-1, 2, 1], [-1, 2, -1]], [1, 0, 0])
    obj.material("green")
    obj.quad([[1, 0, -1], [1, 0, 1], [1, 2, 1], [1, 2, -1]], [-1, 0, 0])
    obj.material("lamp")
    obj.quad([[-0.3, 1.99, -0.3], [0.3, 1.99, -0.3], [0.3, 1.99, 0.3], [-0.3, 1.99, 0.3]], [0, -1, 0])
    obj.material("white")
    box(obj, [0.35, 0.3, 0.3], [0.6, 0.6, 0.6], -17)
    box(obj, [-0.35, 0.6, -0.35], [0.6, 1.2, 0.6], 17)
    obj.save(path)


def ground(path, half):
    obj = Obj("ground: a square of side %g at y = 0, facing up" % (2 * half))
    obj.material("ground")
    obj.quad([[-half, 0, -half], [half, 0, -half], [half, 0, half], [-half, 0, half]], [0, 1, 0])
    obj.save(path)


def sphere(path, material, columns, rows):
    """A unit latitude-longitude sphere with texture coordinates; the seam column is doubled."""
    lines = ["# unit sphere, %d by %d, uv around and down" % (columns, rows), "usemtl " + material]
    for r in range(rows + 1):
        theta = math.pi * r / rows
        for c in range(columns + 1):
            phi = 2 * math.pi * c / columns
            lines.append("v %.6f %.6f %.6f" % (math.sin(theta) * math.cos(phi), math.cos(theta),
                                               -math.sin(theta) * math.sin(phi)))
            lines.append("vt %.6f %.6f" % (c / columns, 1 - r / rows))
    for r in range(rows):
        for c in range(columns):
            a = r * (columns + 1) + c + 1
            b, d = a + columns + 1, a + 1
            corners = [a, b, b + 1, d]
            if r == 0:
                corners = [a, b, b + 1]
            elif r == rows - 1:
                corners = [a, b, d]
            lines.append("f " + " ".join("%d/%d" % (i, i) for i in corners))
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def bump_image(path, size):
    """Grey bumps, seamless in both directions: 0.5 is the surface itself."""
    rows = []
    for y in range(size):
        row = bytearray([0])
        for x in range(size):
            u, v = x / size, y / size
            h = 0.5 + 0.5 * math.sin(2 * math.pi * 12 * u) * math.sin(2 * math.pi * 6 * v)
            g = max(0, min(255, int(round(h * 255))))
            row += bytes([g, g, g])
        rows.append(bytes(row))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    png = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 8, 2, 0, 0, 0))
    png += chunk(b"IDAT", zlib.compress(b"".join(rows), 9)) + chunk(b"IEND", b"")
    with open(path, "wb") as f:
        f.write(png)


cornell_box("scenes/cornell-box/geometry/cornell-box.obj")
ground("scenes/bunny/geometry/ground.obj", 20)
ground("scenes/spot/geometry/ground.obj", 20)
ground("scenes/materials/geometry/ground.obj", 20)
sphere("scenes/materials/geometry/sphere.obj", "glass", 48, 24)
sphere("scenes/materials/geometry/bumpy-sphere.obj", "bumpy", 32, 16)
bump_image("scenes/materials/image/bumps.png", 256)
