#include "imaging/large_demosaic.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "imaging/kernel_clones.h"
#include "imaging/row_bands.h"

#if LUMETRA_AVX2_DEMOSAIC
#include <immintrin.h>
#endif

namespace lumetra {

namespace {

// Interior pixels are worked out in chunks of this many, through three small planes that stay in
// the first-level cache, and then interleaved into the BGR row.
constexpr int kChunk = 512;

// How one interior row of the mosaic is laid out. Its first interior pixel (column 1) is either
// green or of the row's own colour; the row's own colour is blue (channel 0) or red (channel 2).
struct RowPhase {
    bool greenFirst;
    int ownChannel;
};

// Rows y-1, y, y+1 are a, b, c. For an interior pixel x the averages are rounded up at .5 (the
// +1 and +2 before the shift), as OpenCV rounds them.
//   own colour at x:  own = b[x], green = cross of four, other = diagonal of four
//   green at x:       green = b[x], own = left and right, other = above and below
template <typename T, typename Sum, bool GreenFirst>
[[gnu::always_inline]] inline void ChunkPlanes(const T* __restrict a, const T* __restrict b,
                                               const T* __restrict c, int pairs, T* __restrict own,
                                               T* __restrict green, T* __restrict other) {
    for (int q = 0; q < pairs; ++q) {
        const int x = 1 + 2 * q;
        const int i = 2 * q;
        if constexpr (GreenFirst) {
            const Sum v0 = Sum(a[x]) + c[x];
            const Sum h0 = Sum(b[x - 1]) + b[x + 1];
            green[i] = b[x];
            own[i] = T((h0 + 1) >> 1);
            other[i] = T((v0 + 1) >> 1);
            const Sum v1 = Sum(a[x + 1]) + c[x + 1];
            const Sum h1 = Sum(b[x]) + b[x + 2];
            const Sum d1 = Sum(a[x]) + a[x + 2] + c[x] + c[x + 2];
            own[i + 1] = b[x + 1];
            green[i + 1] = T((v1 + h1 + 2) >> 2);
            other[i + 1] = T((d1 + 2) >> 2);
        } else {
            const Sum v0 = Sum(a[x]) + c[x];
            const Sum h0 = Sum(b[x - 1]) + b[x + 1];
            const Sum d0 = Sum(a[x - 1]) + a[x + 1] + c[x - 1] + c[x + 1];
            own[i] = b[x];
            green[i] = T((v0 + h0 + 2) >> 2);
            other[i] = T((d0 + 2) >> 2);
            const Sum v1 = Sum(a[x + 1]) + c[x + 1];
            const Sum h1 = Sum(b[x]) + b[x + 2];
            green[i + 1] = b[x + 1];
            own[i + 1] = T((h1 + 1) >> 1);
            other[i + 1] = T((v1 + 1) >> 1);
        }
    }
}

template <typename T>
[[gnu::always_inline]] inline void Interleave(const T* __restrict p0, const T* __restrict p1,
                                              const T* __restrict p2, T* __restrict out, int n) {
    for (int i = 0; i < n; ++i) {
        out[3 * i] = p0[i];
        out[3 * i + 1] = p1[i];
        out[3 * i + 2] = p2[i];
    }
}

// Interior pixels of one row of width >= 3, from column from + 1 (from even, so that the span
// keeps the row's phase) to width - 2.
template <typename T, typename Sum>
LUMETRA_KERNEL_CLONES void InteriorSpan(const T* a, const T* b, const T* c, T* out, int from,
                                        int width, RowPhase phase) {
    T own[kChunk];
    T green[kChunk];
    T other[kChunk];
    for (int x0 = from; x0 < width - 2; x0 += kChunk) {
        const int n = std::min(kChunk, width - 2 - x0);
        const T* ca = a + x0;
        const T* cb = b + x0;
        const T* cc = c + x0;
        if (phase.greenFirst) {
            ChunkPlanes<T, Sum, true>(ca, cb, cc, n / 2, own, green, other);
        } else {
            ChunkPlanes<T, Sum, false>(ca, cb, cc, n / 2, own, green, other);
        }
        if (n % 2 != 0) {
            // The odd one out has the phase of the chunk's first pixel.
            const int x = n;
            const int i = n - 1;
            const Sum v = Sum(ca[x]) + cc[x];
            const Sum h = Sum(cb[x - 1]) + cb[x + 1];
            if (phase.greenFirst) {
                green[i] = cb[x];
                own[i] = T((h + 1) >> 1);
                other[i] = T((v + 1) >> 1);
            } else {
                const Sum d = Sum(ca[x - 1]) + ca[x + 1] + cc[x - 1] + cc[x + 1];
                own[i] = cb[x];
                green[i] = T((v + h + 2) >> 2);
                other[i] = T((d + 2) >> 2);
            }
        }
        T* o = out + 3 * static_cast<std::size_t>(x0 + 1);
        if (phase.ownChannel == 0) {
            Interleave(own, green, other, o, n);
        } else {
            Interleave(other, green, own, o, n);
        }
    }
}

// Columns 0 and width - 1 repeat their neighbours.
template <typename T>
void CopyRowEnds(T* out, int width) {
    const std::size_t last = 3 * static_cast<std::size_t>(width - 1);
    for (int k = 0; k < 3; ++k) {
        out[k] = out[3 + k];
        out[last + k] = out[last - 3 + k];
    }
}

#if LUMETRA_AVX2_DEMOSAIC
// Rows by hand with AVX2, 96 output bytes a step: what the compiler makes of the loops above
// leaves them behind OpenCV's on 8-bit samples and level with it on 16-bit ones.

// Byte shuffles that interleave three planes of 16 bytes (in each 128-bit lane) into 48: output
// block k takes sample n = k x 16 / size + j from plane n % 3, sample n / 3; 0x80 gives zero.
struct InterleaveShuffles {
    int8_t index[3][3][32];
};

constexpr InterleaveShuffles MakeInterleaveShuffles(int sampleBytes) {
    InterleaveShuffles t{};
    const int perBlock = 16 / sampleBytes;
    for (int block = 0; block < 3; ++block) {
        for (int plane = 0; plane < 3; ++plane) {
            for (int byte = 0; byte < 32; ++byte) {
                const int n = perBlock * block + byte % 16 / sampleBytes;
                const int part = byte % sampleBytes;
                t.index[block][plane][byte] =
                    static_cast<int8_t>(n % 3 == plane ? sampleBytes * (n / 3) + part : 0x80);
            }
        }
    }
    return t;
}

constexpr InterleaveShuffles kShuffles8 = MakeInterleaveShuffles(1);
constexpr InterleaveShuffles kShuffles16 = MakeInterleaveShuffles(2);

struct Planes {
    __m256i own;
    __m256i green;
    __m256i other;
};

// The candidates of every pixel, then the one for its place in the pattern. The parity of word j
// of a 128-bit lane is the parity of its pixel.
template <bool GreenFirst>
[[gnu::target("avx2"), gnu::always_inline]] inline Planes Choose(__m256i centre, __m256i cross,
                                                                 __m256i corners, __m256i sides,
                                                                 __m256i upDown) {
    constexpr int kGreen = GreenFirst ? 0x55 : 0xAA;
    return Planes{_mm256_blend_epi16(centre, sides, kGreen),
                  _mm256_blend_epi16(cross, centre, kGreen),
                  _mm256_blend_epi16(corners, upDown, kGreen)};
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i Widen(const uint8_t* p) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i Load(const uint16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// 16 pixels of 8-bit rows a, b, c (y-1, y, y+1 at the first of them), in 16-bit lanes.
template <bool GreenFirst>
[[gnu::target("avx2"), gnu::always_inline]] inline Planes Sixteen(const uint8_t* a,
                                                                  const uint8_t* b,
                                                                  const uint8_t* c) {
    const __m256i a0 = Widen(a);
    const __m256i c0 = Widen(c);
    const __m256i bm = Widen(b - 1);
    const __m256i bp = Widen(b + 1);
    const __m256i two = _mm256_set1_epi16(2);
    const __m256i cross = _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_add_epi16(_mm256_add_epi16(a0, c0), _mm256_add_epi16(bm, bp)), two),
        2);
    const __m256i corners = _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_add_epi16(_mm256_add_epi16(Widen(a - 1), Widen(a + 1)),
                                          _mm256_add_epi16(Widen(c - 1), Widen(c + 1))),
                         two),
        2);
    // avg is (p + q + 1) >> 1, the rounding of the two-sample averages.
    return Choose<GreenFirst>(Widen(b), cross, corners, _mm256_avg_epu16(bm, bp),
                              _mm256_avg_epu16(a0, c0));
}

// (p + q + r + s + 2) >> 2 of 16-bit samples, through 32 bits. Unpacking and packing both work
// within 128-bit lanes, so the samples come back in their places.
[[gnu::target("avx2"), gnu::always_inline]] inline __m256i Quarter(__m256i p, __m256i q, __m256i r,
                                                                   __m256i s) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i two = _mm256_set1_epi32(2);
    const __m256i low = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_unpacklo_epi16(p, zero), _mm256_unpacklo_epi16(q, zero)),
        _mm256_add_epi32(_mm256_unpacklo_epi16(r, zero), _mm256_unpacklo_epi16(s, zero)));
    const __m256i high = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_unpackhi_epi16(p, zero), _mm256_unpackhi_epi16(q, zero)),
        _mm256_add_epi32(_mm256_unpackhi_epi16(r, zero), _mm256_unpackhi_epi16(s, zero)));
    return _mm256_packus_epi32(_mm256_srli_epi32(_mm256_add_epi32(low, two), 2),
                               _mm256_srli_epi32(_mm256_add_epi32(high, two), 2));
}

// 16 pixels of 16-bit rows.
template <bool GreenFirst>
[[gnu::target("avx2"), gnu::always_inline]] inline Planes Sixteen(const uint16_t* a,
                                                                  const uint16_t* b,
                                                                  const uint16_t* c) {
    const __m256i a0 = Load(a);
    const __m256i c0 = Load(c);
    const __m256i bm = Load(b - 1);
    const __m256i bp = Load(b + 1);
    return Choose<GreenFirst>(Load(b), Quarter(a0, c0, bm, bp),
                              Quarter(Load(a - 1), Load(a + 1), Load(c - 1), Load(c + 1)),
                              _mm256_avg_epu16(bm, bp), _mm256_avg_epu16(a0, c0));
}

// Pixels 0-15 and 16-31 of 8-bit samples in 16-bit lanes to 32 bytes in pixel order.
[[gnu::target("avx2"), gnu::always_inline]] inline __m256i Pack(__m256i low, __m256i high) {
    return _mm256_permute4x64_epi64(_mm256_packus_epi16(low, high), 0xD8);
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i Shuffle(__m256i plane,
                                                                   const int8_t* index) {
    return _mm256_shuffle_epi8(plane, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(index)));
}

// Three planes of 32 bytes to 96 interleaved ones.
[[gnu::target("avx2"), gnu::always_inline]] inline void Store96(void* out, __m256i p0, __m256i p1,
                                                                __m256i p2,
                                                                const InterleaveShuffles& table) {
    __m256i block[3];
    for (int k = 0; k < 3; ++k) {
        const auto* index = table.index[k];
        block[k] = _mm256_or_si256(_mm256_or_si256(Shuffle(p0, index[0]), Shuffle(p1, index[1])),
                                   Shuffle(p2, index[2]));
    }
    // Lane 0 of each block belongs to the first half of the pixels, lane 1 to the second.
    auto* o = static_cast<__m256i*>(out);
    _mm256_storeu_si256(o, _mm256_permute2x128_si256(block[0], block[1], 0x20));
    _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(block[2], block[0], 0x30));
    _mm256_storeu_si256(o + 2, _mm256_permute2x128_si256(block[1], block[2], 0x31));
}

[[gnu::target("avx2"), gnu::always_inline]] inline void StoreInOrder(void* out, const Planes& p,
                                                                     int ownChannel,
                                                                     const InterleaveShuffles& t) {
    if (ownChannel == 0) {
        Store96(out, p.own, p.green, p.other, t);
    } else {
        Store96(out, p.other, p.green, p.own, t);
    }
}

// Interior pixels from column 1, 32 (8-bit) or 16 (16-bit) a step, while every read stays inside
// the row (the last reads column x0 + step + 1); returns the even offset where the portable span
// takes over.
template <bool GreenFirst>
[[gnu::target("avx2")]] int InteriorAvx2(const uint8_t* a, const uint8_t* b, const uint8_t* c,
                                         uint8_t* out, int width, int ownChannel) {
    int x0 = 0;
    for (; x0 + 34 <= width; x0 += 32) {
        const int s = x0 + 1;
        const Planes low = Sixteen<GreenFirst>(a + s, b + s, c + s);
        const Planes high = Sixteen<GreenFirst>(a + s + 16, b + s + 16, c + s + 16);
        const Planes packed{Pack(low.own, high.own), Pack(low.green, high.green),
                            Pack(low.other, high.other)};
        StoreInOrder(out + 3 * static_cast<std::size_t>(s), packed, ownChannel, kShuffles8);
    }
    return x0;
}

template <bool GreenFirst>
[[gnu::target("avx2")]] int InteriorAvx2(const uint16_t* a, const uint16_t* b, const uint16_t* c,
                                         uint16_t* out, int width, int ownChannel) {
    int x0 = 0;
    for (; x0 + 18 <= width; x0 += 16) {
        const int s = x0 + 1;
        StoreInOrder(out + 3 * static_cast<std::size_t>(s),
                     Sixteen<GreenFirst>(a + s, b + s, c + s), ownChannel, kShuffles16);
    }
    return x0;
}

bool HasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

// OpenCV names a pattern by row 1, columns 1 and 2: BG and GB put blue on row 1, GB and GR start
// it with green. Both alternate from row to row.
RowPhase PhaseOf(int code, int row) {
    const bool blueOnRowOne = code == cv::COLOR_BayerBG2BGR || code == cv::COLOR_BayerGB2BGR;
    const bool greenFirstOnRowOne = code == cv::COLOR_BayerGB2BGR || code == cv::COLOR_BayerGR2BGR;
    const bool flipped = (row - 1) % 2 != 0;
    return RowPhase{greenFirstOnRowOne != flipped, (blueOnRowOne != flipped) ? 0 : 2};
}

bool IsBayerCode(int code) {
    return code == cv::COLOR_BayerBG2BGR || code == cv::COLOR_BayerGB2BGR ||
           code == cv::COLOR_BayerRG2BGR || code == cv::COLOR_BayerGR2BGR;
}

template <typename T, typename Sum>
void Demosaic(const cv::Mat& src, cv::Mat& dst, int code, int threads,
              [[maybe_unused]] DemosaicKernel kernel) {
    const int height = src.rows;
    const int width = src.cols;
    const std::size_t rowBytes = 3 * sizeof(T) * static_cast<std::size_t>(width);
    // Too small for a 3 x 3 neighbourhood anywhere: OpenCV gives black.
    if (width < 3 || height < 3) {
        for (int y = 0; y < height; ++y) {
            std::memset(dst.ptr(y), 0, rowBytes);
        }
        return;
    }
    const int interior = height - 2;
    if (threads <= 0) {
        threads = AutoThreadCount(interior, width);
    }
    ForEachRowBand(interior, threads, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const int y = r + 1;
            const T* a = src.ptr<T>(y - 1);
            const T* b = src.ptr<T>(y);
            const T* c = src.ptr<T>(y + 1);
            T* out = dst.ptr<T>(y);
            const RowPhase phase = PhaseOf(code, y);
            int from = 0;
#if LUMETRA_AVX2_DEMOSAIC
            if (kernel == DemosaicKernel::Best && HasAvx2()) {
                from = phase.greenFirst
                           ? InteriorAvx2<true>(a, b, c, out, width, phase.ownChannel)
                           : InteriorAvx2<false>(a, b, c, out, width, phase.ownChannel);
            }
#endif
            InteriorSpan<T, Sum>(a, b, c, out, from, width, phase);
            CopyRowEnds(out, width);
        }
    });
    // The first and last rows repeat their neighbours, corners included, once every row is done.
    std::memcpy(dst.ptr(0), dst.ptr(1), rowBytes);
    std::memcpy(dst.ptr(height - 1), dst.ptr(height - 2), rowBytes);
}

bool Fits(const cv::Mat& src, const cv::Mat& dst, int depth) {
    return src.type() == CV_MAKETYPE(depth, 1) && dst.type() == CV_MAKETYPE(depth, 3) &&
           src.size() == dst.size() && !src.empty() && src.dims == 2;
}

}  // namespace

void DemosaicBilinear(const cv::Mat& src, cv::Mat& dst, int code, int threads,
                      DemosaicKernel kernel) {
    if (!IsBayerCode(code)) {
        return;
    }
    if (Fits(src, dst, CV_8U)) {
        Demosaic<uint8_t, uint16_t>(src, dst, code, threads, kernel);
    } else if (Fits(src, dst, CV_16U)) {
        Demosaic<uint16_t, uint32_t>(src, dst, code, threads, kernel);
    }
}

void DemosaicLarge8(const cv::Mat& src, cv::Mat& dst, int code) {
    if (src.depth() == CV_8U) {
        DemosaicBilinear(src, dst, code, 0);
    }
}

void DemosaicLarge16(const cv::Mat& src, cv::Mat& dst, int code) {
    if (src.depth() == CV_16U) {
        DemosaicBilinear(src, dst, code, 0);
    }
}

}  // namespace lumetra
