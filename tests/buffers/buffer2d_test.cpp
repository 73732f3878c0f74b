#include "quorvel/buffers/buffer2d.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <numeric>

#include "buffers/buffer_texts.hpp"
#include "filters/kernel_frame.hpp"
#include "quorvel/render.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

constexpr char kOutOfBounds[] = "out of bounds check failed";

using testing::failureOf;
using testing::tagged;

// Every pixel type behaves the same way for storage and size bookkeeping.
template <class P>
class Buffer2DTyped : public ::testing::Test {};
using AllPixelTypes = ::testing::Types<uint8_t, int8_t, uint16_t, int16_t, PixelRgb8, PixelRgba8,
                                       PixelRgbS8, PixelRgbaS8, PixelRgb16, PixelRgbS16>;
TYPED_TEST_SUITE(Buffer2DTyped, AllPixelTypes);

TYPED_TEST(Buffer2DTyped, StorageIsCreatedLazilyAndSizesFollowThePixelType) {
  Buffer2DVector<TypeParam> lazy(5, 3, false);
  EXPECT_EQ(lazy.dimensions(), (std::vector<size_t>{5, 3}));
  EXPECT_EQ(lazy.pixelCount(), 0u);
  EXPECT_EQ(lazy.byteSize(), 0u);
  EXPECT_EQ(lazy.data(), nullptr);
  EXPECT_EQ(failureOf([&] { lazy.clear(TypeParam{}); }),
            tagged("buffer data does not exist", buffer_detail::kClear));
  lazy.allocate();
  EXPECT_EQ(lazy.pixelCount(), 15u);
  EXPECT_EQ(lazy.byteSize(), 15 * sizeof(TypeParam));
  EXPECT_EQ(lazy.bytesPerPixel(), sizeof(TypeParam));
  EXPECT_EQ(lazy.rect(), (std::vector<int>{0, 0, 5, 3}));

  Buffer2DVector<TypeParam> empty(0, 7, true);
  EXPECT_EQ(empty.data(), nullptr);
  EXPECT_EQ(empty.height(), 7u);
}

TEST(Buffer2D, ResizeKeepsPixelsZeroFillsNewOnesAndFreesAtZero) {
  Buffer2DVector<uint8_t> b(2, 2, true);
  std::vector<uint8_t> src = {1, 2, 3, 4};
  b.setPixels(src.data(), src.size(), 0);
  b.resize(3, 2);
  EXPECT_EQ(std::vector<uint8_t>(b.data(), b.data() + 6), (std::vector<uint8_t>{1, 2, 3, 4, 0, 0}));
  // Growing past the huge-page size moves the pixels to a block of the other kind, and
  // shrinking moves them back; each block must go back to the pool it came from.
  size_t const big = 6 << 20;
  b.resize(3, big / 3);
  EXPECT_EQ(std::vector<uint8_t>(b.data(), b.data() + 7),
            (std::vector<uint8_t>{1, 2, 3, 4, 0, 0, 0}));
  EXPECT_EQ(b.data()[big - 1], 0);
#if !defined(QUORVEL_PLAIN_ALLOCATOR)
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b.data()) % (2 << 20), 0u);
#endif
  b.data()[5] = 6;
  b.resize(3, 2);
  EXPECT_EQ(std::vector<uint8_t>(b.data(), b.data() + 6), (std::vector<uint8_t>{1, 2, 3, 4, 0, 6}));
  b.resize(0, 0);
  EXPECT_EQ(b.data(), nullptr);
  EXPECT_EQ(b.pixelCount(), 0u);
}

TEST(Buffer2D, SetPixelsChecksPixelsNotBytesAndNeverReadsPastTheSource) {
  Buffer2DVector<uint16_t> b(4, 4, false);
  std::vector<uint8_t> src(20);
  std::iota(src.begin(), src.end(), 1);
  // 16 bytes beyond the offset pass the pixel-count test for a 32-byte copy.
  b.setPixels(src.data(), src.size(), 4);
  ASSERT_NE(b.data(), nullptr);
  auto const* bytes = reinterpret_cast<uint8_t const*>(b.data());
  for (size_t i = 0; i < 16; ++i) EXPECT_EQ(bytes[i], src[4 + i]) << i;
  for (size_t i = 16; i < 32; ++i) EXPECT_EQ(bytes[i], 0) << i;

  EXPECT_EQ(failureOf([&] { b.setPixels(src.data(), src.size(), 5); }),
            tagged(kOutOfBounds, buffer_detail::kSetPixels));
  EXPECT_EQ(failureOf([&] { b.setPixels(src.data(), 3, 4); }),
            tagged(kOutOfBounds, buffer_detail::kSetPixels));
  // The refused calls changed nothing.
  EXPECT_EQ(bytes[0], src[4]);
}

TEST(Buffer2D, GetPixelsCopiesRowsAndChecksBoundsBeforeSize) {
  Buffer2DVector<PixelRgb8> b(4, 3, true);
  for (size_t i = 0; i < 12; ++i) b.data()[i] = {uint8_t(i), uint8_t(i + 100), uint8_t(i + 200)};
  std::vector<uint8_t> out(2 * 2 * 3);
  b.getPixels(out.data(), out.size(), 2, 1, 2, 2);  // touches the right and bottom edges
  EXPECT_EQ(out, (std::vector<uint8_t>{6, 106, 206, 7, 107, 207, 10, 110, 210, 11, 111, 211}));
  EXPECT_EQ(failureOf([&] { b.getPixels(out.data(), out.size(), 3, 1, 2, 2); }),
            tagged(kOutOfBounds, buffer_detail::kGetPixels));
  EXPECT_EQ(failureOf([&] { b.getPixels(out.data(), out.size() - 1, 2, 1, 2, 2); }),
            tagged("not enough memory allocated in input buffer", buffer_detail::kGetPixels));
  EXPECT_EQ(failureOf([&] { b.getPixels(out.data(), out.size(), SIZE_MAX, 0, 2, 1); }),
            tagged(kOutOfBounds, buffer_detail::kGetPixels));
}

TEST(Buffer2D, LargeReadBacksCopyTheSameRowsAndNothingElse) {
  // Read-backs of a megabyte and more take the streaming copy: odd widths and origins give
  // rows that start and end inside cache lines, in the source and in the caller's buffer.
  Buffer2DVector<PixelRgb8> b(1001, 400, true);
  for (size_t i = 0; i < 1001 * 400; ++i) {
    b.data()[i] = {uint8_t(i), uint8_t(i >> 8), uint8_t(i >> 16)};
  }
  for (size_t const x : {0, 1, 7}) {
    size_t const w = 1001 - x - (x % 2), h = 399 - x, y = x / 2;
    std::vector<uint8_t> out(w * h * 3 + 67, 0xEE);
    uint8_t* start = out.data() + x * 9;  // the caller's buffer need not be aligned either
    b.getPixels(start, w * h * 3, x, y, w, h);
    for (size_t r = 0; r < h; ++r) {
      ASSERT_EQ(0, std::memcmp(start + r * w * 3, b.data() + (y + r) * 1001 + x, w * 3)) << r;
    }
    EXPECT_TRUE(std::all_of(out.data(), start, [](uint8_t v) { return v == 0xEE; }));
    EXPECT_TRUE(std::all_of(start + w * h * 3, out.data() + out.size(),
                            [](uint8_t v) { return v == 0xEE; }));
  }
}

TEST(Buffer2D, ClearRectFillsOnlyTheOverlapAndRefusesMisses) {
  Buffer2DVector<int16_t> b(4, 4, true);
  b.clearRect(7, static_cast<size_t>(-1), 2, 3, 5);  // overhangs left and bottom
  std::vector<int16_t> expected = {0, 0, 0, 0, 0, 0, 0, 0, 7, 7, 0, 0, 7, 7, 0, 0};
  EXPECT_EQ(std::vector<int16_t>(b.data(), b.data() + 16), expected);
  EXPECT_EQ(failureOf([&] { b.clearRect(1, 4, 0, 2, 2); }),
            tagged("invalid coordinates", buffer_detail::kClearRect));
  EXPECT_EQ(failureOf([&] { b.clearRect(1, 0, 0, 0, 2); }),
            tagged("invalid coordinates", buffer_detail::kClearRect));
  EXPECT_EQ(std::vector<int16_t>(b.data(), b.data() + 16), expected);
}

TEST(Buffer2D, CastChecksThePixelTypeNotItsSize) {
  std::shared_ptr<Buffer2D> b = std::make_shared<Buffer2DVector<uint8_t>>(1, 1, true);
  auto typed = Buffer2DVector<uint8_t>::cast(b);
  EXPECT_EQ(typed.get(), b.get());
  EXPECT_EQ(b.use_count(), 2);
  EXPECT_EQ(failureOf([&] { Buffer2DVector<int8_t>::cast(b); }),
            tagged("Invalid Buffer Cast, PixelType is not the same", buffer_detail::kCast));
}

// Sizes whose pixel or byte count wraps around size_t: storage is refused instead of being
// made a few pixels long under huge dimensions, and the kernels' storage check does not
// mistake such a buffer for an empty one.
constexpr size_t k2to32 = size_t{1} << 32;
constexpr size_t k2to63 = size_t{1} << 63;

TEST(Buffer2DSizeOverflow, StorageForAWrappingSizeIsRefused) {
  // (2^63 + 1) * 2 wraps to 2 pixels; 2^32 * 2^32 wraps to none; the byte count of the
  // last one wraps only after multiplying by the pixel size.
  EXPECT_THROW(Buffer2DVector<uint8_t>(k2to63 + 1, 2, true), std::bad_array_new_length);
  EXPECT_THROW(Buffer2DVector<int16_t>(k2to32, k2to32, true), std::bad_array_new_length);
  EXPECT_THROW(Buffer2DVector<PixelRgba8>(k2to32, size_t{1} << 30, true),
               std::bad_array_new_length);
  Buffer2DVector<PixelRgb16> lazy(k2to63 + 1, 2, false);  // a description costs nothing
  EXPECT_EQ(lazy.pixelCount(), 0u);
  EXPECT_THROW(lazy.allocate(), std::bad_array_new_length);
  EXPECT_EQ(lazy.data(), nullptr);
  Buffer2DVector<uint8_t> small(3, 3, true);
  EXPECT_THROW(small.resize(k2to32, k2to32), std::bad_array_new_length);
  EXPECT_EQ(small.pixelCount(), 9u) << "a refused resize keeps the old storage";
}

TEST(Buffer2DSizeOverflow, KernelsSeeAHugeStoragelessBufferAsMissingData) {
  auto huge = std::make_shared<Buffer2DVector<PixelRgba8>>(k2to32, k2to32, false);
  auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(8, 8, true);
  std::string const noData = tagged("buffer data does not exist", kernel::kApplyLocation);
  EXPECT_EQ(failureOf([&] { (void)kernel::typed<PixelRgba8>({huge}, 0); }), noData);
  SoftwareBlitFilter<PixelRgba8, PixelRgba8> blit(pointFilter("BlitFilter4x8"));
  EXPECT_EQ(
      failureOf([&] {
        blit.apply({huge}, {{0, 0, 8, 8}}, {target}, {{0, 0, 8, 8}}, FilterEmptyParams::instance());
      }),
      noData);
}

}  // namespace
}  // namespace quorvel
