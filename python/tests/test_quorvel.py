"""Tests of the Python binding: results, errors and threads."""

import os
import subprocess
import sys
import threading

import numpy as np
import pytest

import quorvel


def make_instance(threads=2, width=16, height=16):
    context = quorvel.SoftwareRenderContext(width, height, threads)
    backend = quorvel.SoftwareRenderBackend(quorvel.ImageFormatType.RGBA8, 1 << 20)
    return backend, backend.create_instance(context)


def pattern_tile(t):
    y, x = np.mgrid[0:24, 0:32]
    tile = np.empty((24, 32, 4), dtype=np.uint8)
    tile[..., 0] = (x * 7 + y * 13 + t * 29) & 255
    tile[..., 1] = (x * 3 + t * 50) & 255
    tile[..., 2] = (y * 11) & 255
    tile[..., 3] = 255
    return tile


def test_draw_sequence_matches_the_same_sequence_from_cpp():
    _, inst = make_instance()
    a = inst.create_target((64, 48), 32)
    b = inst.create_target((64, 48), 32)
    inst.clear(a, [10, 20, 30, 255])
    for t in range(3):
        inst.set_tile(t, pattern_tile(t))
    blit = quorvel.Filter.point("BlitFilter4x8")
    matrix = quorvel.Filter.point("Filter3x3Matrix8")
    blit.instantiate(inst)
    matrix.instantiate(inst)
    inst.draw_tiles(a, blit, [0, 64, 0, 48], [0, 64, 0, 48], [32, 24],
                    [[0, 0], [1, 0], [0, 1], [1, 1]], [0, 1, 2, 3])
    params = quorvel.Filter3x3MatrixParams()
    params.matrix = [900, 100, 24, 50, 950, 24, 0, 80, 944]
    params.scale = 1.1
    inst.execute_filter(matrix, [quorvel.FilterSource(a, whole=True)], 64, 48, b, params=params)
    inst.finalize_draw_sequence()
    pixels = inst.get_pixels(b, [0, 64, 0, 48])
    assert pixels.shape == (48, 64, 4) and pixels.dtype == np.uint8
    reference = subprocess.run([os.environ["QUORVEL_REFERENCE"]], check=True,
                               capture_output=True).stdout
    assert pixels.tobytes() == reference
    # The missing fourth tile is blanked, the others went through the matrix.
    assert (pixels[24:, 32:] == 0).all()
    assert (pixels[:24, :32] != 0).any()


@pytest.mark.parametrize("bits,signed,dtype,channels", [
    (8, False, np.uint8, 1), (8, True, np.int8, 1), (16, False, np.uint16, 1),
    (16, True, np.int16, 1), (24, False, np.uint8, 3), (32, True, np.int8, 4),
    (48, False, np.uint16, 3), (48, True, np.int16, 3)])
def test_get_pixels_is_typed_by_the_target(bits, signed, dtype, channels):
    _, inst = make_instance()
    t = inst.create_target((5, 3), bits, signed)
    inst.clear(t, [7] * (1 if channels == 1 else 3))
    pixels = inst.get_pixels(t, [1, 3, 1, 2])
    expected_shape = (2, 3) if channels == 1 else (2, 3, channels)
    assert pixels.dtype == dtype and pixels.shape == expected_shape
    assert (pixels.reshape(2, 3, -1)[..., 0] == 7).all()


def test_int16_tiles_round_trip_through_a_blit():
    _, inst = make_instance()
    t = inst.create_target((4, 2), 16, True)
    tile = np.array([[-1, 2, 3, -32768], [5, 6, 7, 32767]], dtype=np.int16)
    inst.set_tile(9, tile)
    blit = quorvel.Filter.point("BlitFilter1x16")
    blit.instantiate(inst)
    inst.draw_tiles(t, blit, [0, 4, 0, 2], [0, 4, 0, 2], [4, 2], [[0, 0]], [9])
    inst.finalize_draw_sequence()
    np.testing.assert_array_equal(inst.get_pixels(t, [0, 4, 0, 2]), tile)


def test_wrong_dtype_shape_and_layout_are_refused_before_the_library():
    _, inst = make_instance()
    for tile, error in [(np.zeros((4, 4), np.float32), TypeError),
                        (np.zeros((4, 4, 3), np.int32), TypeError),
                        (np.zeros((4, 4, 2), np.uint8), ValueError),
                        (np.zeros((4,), np.int16), ValueError),
                        (np.zeros((8, 8), np.int16)[:, ::2], ValueError)]:  # not contiguous
        with pytest.raises(error):
            inst.set_tile(0, tile)
            pytest.fail(f"a {tile.dtype} tile of shape {tile.shape} was taken")
    assert not inst.tile_set(0)
    t = inst.create_target((4, 4), 32)
    with pytest.raises(ValueError):
        inst.get_pixels(t, [0, 4, 0])


def test_library_errors_carry_the_system_texts():
    _, inst = make_instance()
    with pytest.raises(quorvel.QuorvelError) as error:
        inst.clear(99, [1])
    assert str(error.value) == (
        "Target does not exist\n  Location:     void SoftwareRenderBackend::Instance::clear("
        "size_t target, std::vector<size_t> const& color)")
    with pytest.raises(quorvel.QuorvelError, match="cannot instantiate a buffer"):
        inst.create_target((2, 2), 64)
    with pytest.raises(quorvel.QuorvelError, match="Filter <NoSuchFilter> not available"):
        quorvel.Filter.point("NoSuchFilter").instantiate(inst)
    t = inst.create_target((4, 4), 32)
    with pytest.raises(quorvel.QuorvelError, match="buffer too small|out of bounds"):
        inst.get_pixels(t, [2, 4, 0, 1])
    assert quorvel.format_exception_text("#Name:a#Location:b") == "a\n  Location:     b"


def test_staging_buffers_fill_on_other_threads():
    _, inst = make_instance()
    buffers = [inst.concurrent_staging_buffer(i, quorvel.BufferType.TILE, [16, 8, 4])
               for i in range(4)]
    def fill(i):
        buffers[i].set_pixels(np.full((8, 16, 4), i + 1, dtype=np.uint8))
    threads = [threading.Thread(target=fill, args=(i,)) for i in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for b in buffers:
        assert inst.synchronize_concurrent_staging_buffer(b)
    with pytest.raises(ValueError):
        inst.synchronize_concurrent_staging_buffer(buffers[0])
    t = inst.create_target((16, 8), 32)
    blit = quorvel.Filter.point("BlitFilter4x8")
    blit.instantiate(inst)
    inst.draw_tiles(t, blit, [0, 16, 0, 8], [0, 16, 0, 8], [16, 8], [[0, 0]], [2])
    inst.finalize_draw_sequence()
    assert (inst.get_pixels(t, [0, 16, 0, 8]) == 3).all()


def test_two_python_threads_with_separate_instances():
    backend = quorvel.SoftwareRenderBackend(quorvel.ImageFormatType.RGBA8, 1 << 22)
    context = quorvel.SoftwareRenderContext(8, 8, 2)
    instances = [backend.create_instance(context) for _ in range(2)]
    blit = quorvel.Filter.point("BlitFilter1x16")
    blit.instantiate(instances[0])
    failures = []

    def run(k):
        inst = instances[k]
        for round_ in range(30):
            t = inst.create_target((32, 32), 16, True)
            value = k * 1000 + round_
            inst.set_tile(1, np.full((32, 32), value, dtype=np.int16))
            inst.draw_tiles(t, blit, [0, 32, 0, 32], [0, 32, 0, 32], [32, 32], [[0, 0]], [1])
            inst.finalize_draw_sequence()
            if not (inst.get_pixels(t, [0, 32, 0, 32]) == value).all():
                failures.append((k, round_))
            inst.erase_target(t)

    threads = [threading.Thread(target=run, args=(k,)) for k in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_envelopes_and_masks():
    _, inst = make_instance()
    src = inst.create_target((6, 5), 32)
    dst = inst.create_target((6, 5), 32)
    inst.clear(src, [9, 9, 9, 9])
    inst.clear(dst, [1, 1, 1, 1])
    inst.set_data_envelopes(b"env", [([1], [[11, 12, 21, 22]])])
    assert inst.data_envelopes_set(b"env") and inst.data_envelopes_count(b"env") == 1
    mask = quorvel.Filter.point("MaskFilter4x8")
    mask.instantiate(inst)
    inst.mask_range(src, dst, mask, b"env", [10, 15, 20, 24])
    inst.finalize_draw_sequence()
    out = inst.get_pixels(dst, [0, 6, 0, 5])[..., 0]
    expected = np.ones((5, 6), dtype=np.uint8)
    expected[1:3, 1:3] = 9
    np.testing.assert_array_equal(out, expected)
    with pytest.raises(quorvel.QuorvelError, match="Invalid envelope"):
        inst.set_data_envelopes(b"env", [([1], [[3, 1, 0, 0]])])
    assert inst.data_envelopes_count(b"env") == 1


def test_the_example_script_reconstructs_and_writes_a_png(tmp_path):
    script = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "python",
                          "reconstruct_tile.py")
    out = tmp_path / "tile.png"
    result = subprocess.run([sys.executable, script, str(out)], check=True, capture_output=True,
                            text=True)
    assert "exactly" in result.stdout
    assert out.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
