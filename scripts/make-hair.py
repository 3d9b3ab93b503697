#!/usr/bin/env python3
"""Writes binary hair files (signature "HAIR"): a fur ball of curly strands
grown from a sphere, or a patch of curly grass. The same seed gives the same
file, byte for byte.

    scripts/make-hair.py furball OUT.hair [--strands N] [--segments S] [--seed K]
    scripts/make-hair.py patch OUT.hair [--strands N] [--segments S] [--seed K]

The file holds the points and a thickness per point (flags 2 | 4); every
strand has the header's default segment count."""
import argparse
import math
import random
import struct


def normalize(v):
    s = math.sqrt(sum(c * c for c in v)) or 1.0
    return [c / s for c in v]


def cross(a, b):
    return [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]]


def basis(n):
    """Two unit vectors across n."""
    helper = [1.0, 0.0, 0.0] if abs(n[0]) < 0.9 else [0.0, 1.0, 0.0]
    t = normalize(cross(helper, n))
    return t, cross(n, t)


def curly_strand(rng, root, up, length, segments, curl_radius, turns, droop):
    """Points along `up` from `root`, wound round a helix whose radius grows
    from nothing at the root, and bent down the world's y axis towards the tip."""
    t, b = basis(up)
    phase = rng.uniform(0.0, 2.0 * math.pi)
    radius = curl_radius * rng.uniform(0.6, 1.4)
    spin = turns * rng.uniform(0.7, 1.3) * (1 if rng.random() < 0.5 else -1)
    lean = [rng.gauss(0.0, 0.25) for _ in range(2)]
    points = []
    for k in range(segments + 1):
        s = k / segments
        angle = phase + 2.0 * math.pi * spin * s
        r = radius * min(1.0, 3.0 * s)
        offset = [r * (math.cos(angle) * t[i] + math.sin(angle) * b[i]) for i in range(3)]
        along = [length * s * (up[i] + lean[0] * s * t[i] + lean[1] * s * b[i]) for i in range(3)]
        p = [root[i] + along[i] + offset[i] for i in range(3)]
        p[1] -= droop * length * s * s
        points.append(p)
    return points


def furball(rng, strands, segments):
    hairs = []
    for _ in range(strands):
        # Uniform on the unit sphere.
        z = rng.uniform(-1.0, 1.0)
        a = rng.uniform(0.0, 2.0 * math.pi)
        r = math.sqrt(1.0 - z * z)
        n = [r * math.cos(a), z, r * math.sin(a)]
        length = 0.45 * rng.uniform(0.8, 1.2)
        hairs.append(curly_strand(rng, n, n, length, segments, 0.035, 1.5, 0.25))
    return hairs


def patch(rng, strands, segments):
    hairs = []
    for _ in range(strands):
        root = [rng.uniform(-1.5, 1.5), 0.0, rng.uniform(-1.5, 1.5)]
        up = normalize([rng.gauss(0.0, 0.2), 1.0, rng.gauss(0.0, 0.2)])
        length = 0.5 * rng.uniform(0.6, 1.4)
        hairs.append(curly_strand(rng, root, up, length, segments, 0.03, 1.0, 0.15))
    return hairs


def write_hair(path, hairs, segments, root_thickness, tip_thickness):
    points = [p for hair in hairs for p in hair]
    header = b"HAIR" + struct.pack("<IIII", len(hairs), len(points), 2 | 4, segments)
    header += struct.pack("<fffff", 1.0, 0.0, 1.0, 1.0, 1.0)
    header += b"made by make-hair.py".ljust(88, b"\0")
    assert len(header) == 128
    thickness = []
    for _ in hairs:
        for k in range(segments + 1):
            s = k / segments
            thickness.append(root_thickness + (tip_thickness - root_thickness) * s)
    with open(path, "wb") as f:
        f.write(header)
        f.write(struct.pack("<%df" % (3 * len(points)), *[c for p in points for c in p]))
        f.write(struct.pack("<%df" % len(thickness), *thickness))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("shape", choices=["furball", "patch"])
    parser.add_argument("out")
    parser.add_argument("--strands", type=int, default=20000)
    parser.add_argument("--segments", type=int, default=7)
    parser.add_argument("--seed", type=int, default=14)
    args = parser.parse_args()
    rng = random.Random(args.seed)
    hairs = (furball if args.shape == "furball" else patch)(rng, args.strands, args.segments)
    write_hair(args.out, hairs, args.segments, 0.012, 0.003)


if __name__ == "__main__":
    main()
