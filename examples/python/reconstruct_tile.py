#!/usr/bin/env python3
"""Reconstructs a tile from 5/3 wavelet bands through the backend and writes it as a PNG.

The host side (this script) splits a 64x64 grey tile into a low and a high band of rows with
the reversible LeGall 5/3 lifting; the backend's "FilterFirIV53LeGall16" puts the rows back
together, "Filter1x16ToRGB8" turns the plane into RGBA pixels, and the result is compared
with the original before it is written.

    PYTHONPATH=build/python python3 examples/python/reconstruct_tile.py out/tile.png
"""

import struct
import sys
import zlib

import numpy as np

import quorvel

N = 64  # tile edge


def forward_rows(x):
    """One level of the forward 5/3 transform along axis 0, in the backend's band layout:
    L holds s(0..N/2) plus one pad row, H holds d(-1..N/2) (one leading coefficient)."""
    x = x.astype(np.int32)
    ext = np.pad(x, ((4, 4), (0, 0)), mode="reflect")  # whole-sample symmetric extension

    def at(i):
        return ext[i + 4]

    n = x.shape[0] // 2
    d = {k: at(2 * k + 1) - ((at(2 * k) + at(2 * k + 2)) >> 1) for k in range(-1, n + 1)}
    s = {k: at(2 * k) + ((d[k - 1] + d[k] + 2) >> 2) for k in range(0, n + 1)}
    low = np.stack([s[k] for k in range(n + 1)] + [np.zeros_like(s[0])])
    high = np.stack([d[k - 1] for k in range(n + 2)])
    return low.astype(np.int16), high.astype(np.int16)


def write_png(path, rgba):
    height, width, _ = rgba.shape
    raw = b"".join(b"\x00" + rgba[y].tobytes() for y in range(height))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
                chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "tile.png"
    y, x = np.mgrid[0:N, 0:N]
    tile = ((x * 3 + y * 2) % 200 + 40 * ((x // 8 + y // 8) % 2)).astype(np.int16)
    low, high = forward_rows(tile)

    context = quorvel.SoftwareRenderContext(N, N, 2)
    backend = quorvel.SoftwareRenderBackend(quorvel.ImageFormatType.WAVELET16, 1 << 20)
    inst = backend.create_instance(context)
    inst.set_tile(0, low)
    inst.set_tile(1, high)

    bands = low.shape[0]
    low_t = inst.create_target((N, bands), 16, True)
    high_t = inst.create_target((N, bands), 16, True)
    plane = inst.create_target((N, N), 16, True)
    rgba = inst.create_target((N, N), 32, False)

    blit = quorvel.Filter.point("BlitFilter1x16")
    # Vertical inverse: two sources, output twice as many rows as the bands hold.
    vertical = quorvel.Filter("FilterFirIV53LeGall16", 0, 0, 0, 0, 0, 1, 0, 1, 1, 1, 2, 1, 2,
                              16, 16, 1, 1, 1, 1, 1, 1, [True, True], True, 16)
    to_rgba = quorvel.Filter.point("Filter1x16ToRGB8")
    for f in (blit, vertical, to_rgba):
        f.instantiate(inst)

    for target, tile_id in ((low_t, 0), (high_t, 1)):
        inst.draw_tiles(target, blit, [0, N, 0, bands], [0, N, 0, bands], [N, bands], [[0, 0]],
                        [tile_id])
    inst.execute_filter(vertical, [quorvel.FilterSource(low_t), quorvel.FilterSource(high_t)],
                        N, bands, plane)
    inst.execute_filter(to_rgba, [quorvel.FilterSource(plane, whole=True)], N, N, rgba)
    inst.finalize_draw_sequence()

    restored = inst.get_pixels(plane, [0, N, 0, N])
    assert (restored == tile).all(), "reconstruction differs from the original"
    pixels = inst.get_pixels(rgba, [0, N, 0, N])
    write_png(out, pixels)
    print(f"reconstructed {N}x{N} tile exactly; wrote {out}")


if __name__ == "__main__":
    main()
