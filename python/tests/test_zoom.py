"""The host layer from Python: sources, zoom levels, display parameters, tiling."""

import threading

import numpy as np
import pytest

import quorvel


def busy(h, w, seed=1):
    rng = np.random.default_rng(seed)
    img = rng.integers(0, 256, (h, w, 3), dtype=np.uint8)
    img[h // 3 : h // 2, :, 0] = 250  # a hard edge across every tile boundary
    return img


@pytest.fixture(scope="module")
def engine():
    return quorvel.Engine(workers=2, cache_mb=64)


def test_full_resolution_is_lossless_and_levels_halve(engine):
    img = busy(130, 170)
    r = quorvel.Renderer(engine, quorvel.MemorySource(img), tile=64, levels=2)
    out = r.render(0, (0, 0, 170, 130))
    assert out.shape == (130, 170, 4) and out.dtype == np.uint8
    assert np.array_equal(out[..., :3], img)
    assert np.all(out[..., 3] == 255)
    assert r.size(1) == (85, 65) and r.size(r.levels - 1) == (1, 1)
    assert r.render(2, (0, 0, 43, 33)).shape == (33, 43, 4)


def test_pieces_rendered_from_threads_at_once_equal_the_whole(engine):
    # Four pieces cut off the tile grid, with neighbourhood filters that read across their
    # edges. The C++ tests cut every way; this is the binding's part: rectangles passed in the
    # right order, and renders running at once.
    r = quorvel.Renderer(engine, quorvel.ProceduralSlide(2048, 2048, seed=3))
    params = dict(sharpen=0.8, clahe=3.0, gamma=1.4)
    expected = r.render(1, (0, 0, 1024, 1024), **params)
    pieces = [(x0, y0, x1 - x0, y1 - y0) for x0, x1 in ((0, 341), (341, 1024))
              for y0, y1 in ((0, 513), (513, 1024))]
    results = [None] * len(pieces)

    def work(i):
        results[i] = r.render(1, pieces[i], **params)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(len(pieces))]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=120)
    for (x, y, w, h), part in zip(pieces, results):
        assert np.array_equal(part, expected[y : y + h, x : x + w]), (x, y)
    assert expected[..., :3].std() > 5  # the slide is not flat


def test_bad_input_raises_clear_errors(engine, tmp_path):
    r = quorvel.Renderer(engine, quorvel.MemorySource(busy(40, 50)), tile=64)
    with pytest.raises(IndexError):
        r.render(0, (0, 0, 51, 40))
    with pytest.raises(IndexError):
        r.render(r.levels, (0, 0, 1, 1))
    with pytest.raises(ValueError, match="clahe must lie in"):
        r.render(0, (0, 0, 10, 10), clahe=0.5)
    with pytest.raises(ValueError, match="nine"):
        r.render(0, (0, 0, 10, 10), matrix=[1, 0, 0])
    with pytest.raises(TypeError):
        quorvel.MemorySource(np.zeros((4, 4, 3), np.float32))
    with pytest.raises(ValueError):
        quorvel.MemorySource(np.zeros((4, 4), np.uint8))
    with pytest.raises(OSError, match="missing.png"):
        quorvel.open_image(str(tmp_path / "missing.png"))
    # A refused call leaves the renderer working.
    assert r.render(0, (0, 0, 50, 40), clahe=2.0).shape == (40, 50, 4)
