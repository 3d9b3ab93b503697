#!/usr/bin/env python3
"""Reference values for the cellular noise tests, computed from the formulas
alone (Python integers and doubles, float32 rounding only where the renderer
stores a float). Run it to regenerate cellular_reference.txt:

    python3 cellular_reference.py > cellular_reference.txt

Line kinds:
  hash x y z seed w0 w1 w2 w3          the four 32-bit words
  cell px py pz seed d f0 f1 f2 f3 outer   distance, feature, 1 when the outer ring decided
  golden t x y z
  stone px py pz seed weathering density scale level rx ry rz
"""
import math
import random
import struct

M = 0xFFFFFFFF


def f32(x):
    return struct.unpack("f", struct.pack("f", x))[0]


def rotl(v, n):
    return ((v << n) | (v >> (32 - n))) & M


def rotr(v, n):
    return ((v >> n) | (v << (32 - n))) & M


def term(high, low):
    return ((0xFFFF - (high >> 16)) * (low & 0xFFFF)) & M


def hash_words(x, y, z, seed):
    a, b, c, d = x ^ 0x0124FDCE, y ^ 0x89AB57EA, z ^ 0xBA89370A, seed ^ 0xFEDC45EF
    e = rotr(d, 1) ^ rotl(c, 1) ^ term(b, a)
    f = rotl(d, 2) ^ rotr(a, 2) ^ term(c, b)
    g = rotr(b, 3) ^ rotl(a, 3) ^ term(d, c)
    h = rotr(c, 4) ^ rotl(b, 4) ^ term(a, d)
    A, B, C, D = e ^ 0x401AB257, f ^ 0xB7CD34E1, g ^ 0x76B3A27C, h ^ 0xF13C3ADF
    o = [A ^ 0xE12F23CD, B ^ 0xC5AB6789, C ^ 0xF1234567, D ^ 0x9A8BC7EF]
    for _ in range(4):
        A, B, C, D = (
            rotr(D, 1) ^ rotl(C, 1) ^ term(B, A) ^ 0x401AB257,
            rotr(A, 2) ^ rotl(D, 2) ^ term(C, B) ^ 0xB7CD34E1,
            rotr(B, 3) ^ rotl(A, 3) ^ term(D, C) ^ 0x76B3A27C,
            rotr(C, 4) ^ rotl(B, 4) ^ term(A, D) ^ 0xF13C3ADF,
        )
        o = [o[0] ^ A, o[1] ^ B, o[2] ^ C, o[3] ^ D]
    return o


def hash_floats(x, y, z, seed):
    return [f32(f32(w) * f32(2.3283064e-10)) for w in hash_words(x & M, y & M, z & M, seed)]


FACES = [(1, 0, 0), (-1, 0, 0), (0, 1, 0), (0, -1, 0), (0, 0, 1), (0, 0, -1)]
EDGES = [(1, 1, 0), (1, -1, 0), (-1, 1, 0), (-1, -1, 0), (0, 1, 1), (0, 1, -1), (0, -1, 1), (0, -1, -1),
         (1, 0, 1), (1, 0, -1), (-1, 0, 1), (-1, 0, -1)]
CORNERS = [(1, 1, 1), (-1, 1, 1), (1, -1, 1), (-1, -1, 1), (1, 1, -1), (-1, 1, -1), (1, -1, -1), (-1, -1, -1)]
NEIGHBOURS = FACES + EDGES + CORNERS


def outer_offsets():
    out = []
    for sign in (2, -2):
        out += [(x, y, sign) for y in (-1, 0, 1) for x in (-1, 0, 1)]   # z fixed, x fastest
        out += [(x, sign, z) for z in (-1, 0, 1) for x in (-1, 0, 1)]   # y fixed, x fastest
        out += [(sign, y, z) for z in (-1, 0, 1) for y in (-1, 0, 1)]   # x fixed, y fastest
    return out


def cellular(p, seed):
    """Returns (distance, feature, outer ring decided, margin to the runner-up)."""
    cell = [math.floor(v) for v in p]

    def place(off):
        h = hash_floats(cell[0] + off[0], cell[1] + off[1], cell[2] + off[2], seed)
        return [f32(cell[k] + off[k]) + h[k] for k in range(3)], h

    def dist(q):
        return math.sqrt(sum((q[k] - p[k]) ** 2 for k in range(3)))

    q, h = place((0, 0, 0))
    distances = [dist(q)]
    best, feature, outer = distances[0], h, 0
    last = None
    for off in NEIGHBOURS:
        q, h = place(off)
        last = q
        dn = dist(q)
        distances.append(dn)
        if dn < best:
            best, feature = dn, h
    if best >= 1:
        running = list(last)
        for off in outer_offsets():
            q, h = place(off)
            running = [running[k] + q[k] for k in range(3)]
            dn = dist(running)
            distances.append(dn)
            if dn < best:
                best, feature, outer = dn, h, 1
    distances.sort()
    return min(best, 1.0), feature, outer, distances[1] - distances[0]


def golden(t):
    z = 1 - (2 * t + 1) / 1024
    # The renderer forms this product in float; at large t its rounding moves the angle.
    turns = f32(f32(f32(1.618034) * f32(t)) - 1)
    phi = 2 * math.pi * (turns - math.floor(turns))
    r = math.sqrt(max(1 - z * z, 0))
    return r * math.cos(phi), r * math.sin(phi), z


def stone(p, seed, weathering, density, scale, level):
    result = [0.0, 0.0, 0.0]
    for i in range(level):
        q = [f32(v) * 2 ** i / f32(scale) for v in p]
        d, feature, _, margin = cellular(q, seed)
        assert margin > 1e-3 and abs(d - density) > 1e-3, 'pick another stone point: near tie'
        if d < density:
            k = 2 ** ((1 - weathering) * -i)
            result[0] += k * feature[0]
            result[1] += k * feature[1]
            result[2] += k * feature[1]
    return result


def main():
    for x, y, z, seed in [(0, 0, 0, 0), (1, 2, 3, 4), (-1, -7, 12, 99), (0x7FFFFFFF, 0x80000000, 5, 0xFFFFFFFF),
                          (123456, -654321, 42, 7)]:
        print("hash", x, y, z, seed, *hash_words(x & M, y & M, z & M, seed))

    # Points near the origin where no inner cell lies within 1, found by a scan
    # of random points: three where the outer ring is searched but does not
    # win (distance 1), and two where a running sum of the outer ring wins.
    rare = [((-2.99172902, -1.86057234, -0.887610495), 820338745),
            ((-0.698718131, 0.349181741, -2.93238997), 2942612704),
            ((-0.365691096, 1.99128461, 0.202570722), 1035419377),
            ((2.98202658, 1.09029436, -1.38394344), 3636058672),
            ((0.238142341, 0.0172956008, -1.73203528), 310616497)]
    rng = random.Random(2024)
    common = [([rng.uniform(-20, 20) for _ in range(3)], rng.randrange(0, 1 << 32)) for _ in range(40)]
    printed = 0
    for p, seed in rare + common:
        p = [f32(v) for v in p]
        d, feature, decided_outside, margin = cellular(p, seed)
        # Near-ties could flip with float rounding; keep only clear winners.
        if margin < 1e-3 or (d < 1 and d > 1 - 1e-3):
            continue
        printed += 1
        if printed > 20:
            break
        print("cell", *("%.9g" % v for v in p), seed, "%.9g" % d, *("%.9g" % v for v in feature), decided_outside)

    for t in [0, 1, 17.5, 511.25, 1023.999]:
        print("golden", t, *("%.9g" % v for v in golden(t)))

    for p, seed, w, density, scale, level in [((0.3, 1.7, -2.2), 0, 0.5, 0.6, 0.5, 4),
                                              ((5.1, -0.4, 3.3), 77, 0.2, 0.9, 1.5, 6)]:
        print("stone", *p, seed, w, density, scale, level, *("%.9g" % v for v in stone(p, seed, w, density, scale, level)))


main()
