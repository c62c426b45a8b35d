#include "analysis/histogram.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <opencv2/core/hal/intrin.hpp>

#if defined(__x86_64__)
// GCC 12 takes the AVX-512 headers' deliberately undefined vectors for uninitialised ones.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

namespace lumetra {

HistogramSet::HistogramSet() {
    for (auto& c : counts_) {
        c.assign(kHistogramBins, 0);
    }
}

void HistogramSet::Clear(int bins) {
    const int used = std::max(bins_, bins);
    for (auto& c : counts_) {
        std::fill_n(c.data(), used, uint64_t{0});
    }
    bins_ = std::clamp(bins, 0, kHistogramBins);
}

void HistogramSet::Widen(int bins) {
    // The counters above bins() are zero already.
    bins_ = std::clamp(std::max(bins_, bins), 0, kHistogramBins);
}

void HistogramSet::Add(const HistogramSet& other) {
    if (other.bins_ > bins_) {
        bins_ = other.bins_;
    }
    for (int c = 0; c < kHistogramChannels; ++c) {
        uint64_t* to = counts_[c].data();
        const uint64_t* from = other.counts_[c].data();
        for (int b = 0; b < other.bins_; ++b) {
            to[b] += from[b];
        }
    }
}

void HistogramSet::CopyFrom(const HistogramSet& other) {
    Clear(other.bins_);
    for (int c = 0; c < kHistogramChannels; ++c) {
        std::copy_n(other.counts_[c].data(), other.bins_, counts_[c].data());
    }
}

uint64_t HistogramSet::Sum(int c) const {
    uint64_t sum = 0;
    for (int b = 0; b < bins_; ++b) {
        sum += counts_[c][b] * static_cast<uint64_t>(b);
    }
    return sum;
}

uint64_t HistogramSet::Total(int c) const {
    uint64_t total = 0;
    for (int b = 0; b < bins_; ++b) {
        total += counts_[c][b];
    }
    return total;
}

namespace {

// (299 R + 587 G + 114 B + 500) / 1000 as floor(floor(x / 8) / 125) = (floor(x / 8) x 33555) >> 22,
// exact for every x up to 255500 (all 8-bit pixels). Pixels from..n - 1 of the chunk at p.
template <int C>
void SplitPortable(const uint8_t* p, int from, int n, uint8_t (*planes)[kSplitChunk]) {
    int i = from;
    p += std::size_t(from) * C;
#if CV_SIMD128
    using namespace cv;
    const v_int16x8 rg(299, 587, 299, 587, 299, 587, 299, 587);
    const v_int16x8 b1(114, 500, 114, 500, 114, 500, 114, 500);
    const v_uint16x8 one = v_setall_u16(1);
    const v_uint16x8 magic = v_setall_u16(33555);
    // 16-bit lanes all the way but one dot product.
    auto half = [&](const v_uint16x8& r, const v_uint16x8& g, const v_uint16x8& b) {
        v_uint16x8 rg0, rg1, b0, b1x;
        v_zip(r, g, rg0, rg1);
        v_zip(b, one, b0, b1x);
        const v_int32x4 x0 =
            v_dotprod(v_reinterpret_as_s16(rg0), rg) + v_dotprod(v_reinterpret_as_s16(b0), b1);
        const v_int32x4 x1 =
            v_dotprod(v_reinterpret_as_s16(rg1), rg) + v_dotprod(v_reinterpret_as_s16(b1x), b1);
        const v_uint16x8 y = v_reinterpret_as_u16(v_pack(x0 >> 3, x1 >> 3));
        return v_mul_hi(y, magic) >> 6;
    };
    for (; i + 16 <= n; i += 16, p += 16 * C) {
        v_uint8x16 b, g, r;
        if constexpr (C == 3) {
            v_load_deinterleave(p, b, g, r);
        } else {
            v_uint8x16 c;
            v_load_deinterleave(p, b, g, r, c);
            v_store(planes[3] + i, c);
        }
        v_store(planes[0] + i, b);
        v_store(planes[1] + i, g);
        v_store(planes[2] + i, r);
        v_uint16x8 b0, b1v, g0, g1, r0, r1;
        v_expand(b, b0, b1v);
        v_expand(g, g0, g1);
        v_expand(r, r0, r1);
        v_store(planes[4] + i, v_pack(half(r0, g0, b0), half(r1, g1, b1v)));
    }
#endif
    for (; i < n; ++i, p += C) {
        for (int k = 0; k < C; ++k) {
            planes[k][i] = p[k];
        }
        planes[4][i] = static_cast<uint8_t>(GrayValue(p[2], p[1], p[0]));
    }
}

#if defined(__x86_64__)
#define LUMETRA_SPLIT_AVX512 1
#define LUMETRA_AVX512 gnu::target("avx512f,avx512bw,avx512vbmi,avx512vnni")

// The row of a split block that holds Gray.
template <int C>
constexpr int kGrayRow = C == 3 ? 3 : 4;

// Sixteen pixels split into a block of planes: B, G, R and C (four channels) or Gray (three) in one
// 64-byte store, and for four channels Gray after them. One byte permutation lays each pixel out
// as a 32-bit lane (B, G, R, 0 or C) and two byte dot products give x = 299 R + 587 G + 114 B + 500
// as (114 B + 75 G + 43 R + 500) + 256 (2 G + R), every weight fitting a signed byte. A second
// permutation gathers the planes, for three channels with the Gray bytes from the lanes.
template <int C>
[[LUMETRA_AVX512, gnu::always_inline]] inline void Split16Avx512(const uint8_t* p,
                                                                 uint8_t (*block)[16]) {
    alignas(64) static constexpr uint8_t kLanes[64] = {
        0,  1,  2,  0,  3,  4,  5,  0,  6,  7,  8,  0,  9,  10, 11, 0,  12, 13, 14, 0,  15, 16,
        17, 0,  18, 19, 20, 0,  21, 22, 23, 0,  24, 25, 26, 0,  27, 28, 29, 0,  30, 31, 32, 0,
        33, 34, 35, 0,  36, 37, 38, 0,  39, 40, 41, 0,  42, 43, 44, 0,  45, 46, 47, 0};
    // Indices from 64 on take the second source: the low byte of each Gray lane.
    alignas(64) static constexpr uint8_t kPlanes3[64] = {
        0,  3,  6,  9,  12, 15, 18, 21, 24, 27,  30,  33,  36,  39,  42,  45,
        1,  4,  7,  10, 13, 16, 19, 22, 25, 28,  31,  34,  37,  40,  43,  46,
        2,  5,  8,  11, 14, 17, 20, 23, 26, 29,  32,  35,  38,  41,  44,  47,
        64, 68, 72, 76, 80, 84, 88, 92, 96, 100, 104, 108, 112, 116, 120, 124};
    alignas(64) static constexpr uint8_t kPlanes4[64] = {
        0,  4,  8,  12, 16, 20, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60, 1,  5,  9,  13, 17, 21,
        25, 29, 33, 37, 41, 45, 49, 53, 57, 61, 2,  6,  10, 14, 18, 22, 26, 30, 34, 38, 42, 46,
        50, 54, 58, 62, 3,  7,  11, 15, 19, 23, 27, 31, 35, 39, 43, 47, 51, 55, 59, 63};
    __m512i v;
    __m512i px;
    if constexpr (C == 3) {
        v = _mm512_maskz_loadu_epi8(0x0000FFFFFFFFFFFFull, p);
        px = _mm512_permutexvar_epi8(_mm512_load_si512(kLanes), v);
    } else {
        v = _mm512_loadu_si512(p);
        px = v;
        _mm512_store_si512(block, _mm512_permutexvar_epi8(_mm512_load_si512(kPlanes4), v));
    }
    const __m512i lo = _mm512_dpbusd_epi32(_mm512_set1_epi32(500), px,
                                           _mm512_set1_epi32(0x002B4B72));  // 114, 75, 43, 0
    const __m512i hi = _mm512_dpbusd_epi32(_mm512_setzero_si512(), px,
                                           _mm512_set1_epi32(0x00010200));  // 0, 2, 1, 0
    const __m512i x = _mm512_add_epi32(lo, _mm512_slli_epi32(hi, 8));
    const __m512i y = _mm512_srli_epi32(
        _mm512_mullo_epi32(_mm512_srli_epi32(x, 3), _mm512_set1_epi32(33555)), 22);
    if constexpr (C == 3) {
        _mm512_store_si512(block, _mm512_permutex2var_epi8(v, _mm512_load_si512(kPlanes3), y));
    } else {
        // One source reads an index modulo 64: kPlanes3's last row picks the Gray lanes' low bytes.
        const __m512i gray = _mm512_permutexvar_epi8(_mm512_load_si512(kPlanes3), y);
        _mm_store_si128(reinterpret_cast<__m128i*>(block[4]), _mm512_extracti32x4_epi32(gray, 3));
    }
}

template <int C>
[[LUMETRA_AVX512]] void SplitAvx512(const uint8_t* p, int n, uint8_t (*planes)[kSplitChunk]) {
    int i = 0;
    alignas(64) uint8_t block[5][16];
    for (; i + 16 <= n; i += 16) {
        Split16Avx512<C>(p + std::size_t(i) * C, block);
        for (int k = 0; k < C; ++k) {
            std::memcpy(planes[k] + i, block[k], 16);
        }
        std::memcpy(planes[4] + i, block[kGrayRow<C>], 16);
    }
    SplitPortable<C>(p, i, n, planes);
}
#else
#define LUMETRA_SPLIT_AVX512 0
#endif

using SplitFn = void (*)(const uint8_t*, int, uint8_t (*)[kSplitChunk]);

template <int C>
SplitFn SplitFor(SplitKernel kernel) {
#if LUMETRA_SPLIT_AVX512
    if (kernel == SplitKernel::kAvx512) {
        return SplitAvx512<C>;
    }
#endif
    (void)kernel;
    return [](const uint8_t* p, int n, uint8_t(*planes)[kSplitChunk]) {
        SplitPortable<C>(p, 0, n, planes);
    };
}

SplitKernel BestKernel() {
    static const SplitKernel best =
        KernelAvailable(SplitKernel::kAvx512) ? SplitKernel::kAvx512 : SplitKernel::kPortable;
    return best;
}

}  // namespace

bool KernelAvailable(SplitKernel kernel) {
    if (kernel == SplitKernel::kPortable) {
        return true;
    }
#if LUMETRA_SPLIT_AVX512
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vnni");
#else
    return false;
#endif
}

template <int C>
void SplitRow8(const uint8_t* p, int n, uint8_t (*planes)[kSplitChunk], SplitKernel kernel) {
    SplitFor<C>(KernelAvailable(kernel) ? kernel : SplitKernel::kPortable)(p, n, planes);
}
template void SplitRow8<3>(const uint8_t*, int, uint8_t (*)[kSplitChunk], SplitKernel);
template void SplitRow8<4>(const uint8_t*, int, uint8_t (*)[kSplitChunk], SplitKernel);

PixelArea ClipArea(PixelArea a, int width, int height) {
    a.left = std::clamp(a.left, 0, width);
    a.right = std::clamp(a.right, a.left, width);
    a.top = std::clamp(a.top, 0, height);
    a.bottom = std::clamp(a.bottom, a.top, height);
    return a;
}

// Counting uses 32-bit sub-histograms: four interleaved copies per channel for 8-bit samples, so
// that runs of equal values do not wait on each other's increments, folded into the 64-bit sets
// before a copy could overflow. Channels are indexed in the frame's order here (0 blue, 1 green,
// 2 red, 3 clear) and 4 is gray.
namespace {

constexpr int kCopies = 4;
constexpr int kSlots = 5;
constexpr int kDataToSet[kSlots] = {kBlue, kGreen, kRed, kClear, kGray};
// Folding before 2^30 increments per copy keeps 32-bit counters safe.
constexpr uint64_t kFoldAfter = uint64_t{1} << 30;

// Slots are padded by 64 bytes so that equal values of different channels (a grey or flat frame)
// never land 4 KiB apart, where the processor would take the second access for a reload of the
// first and stall.
constexpr int kSlotStride8 = kCopies * 256 + 16;
using Table8 = uint32_t[kSlots][kSlotStride8];

// Four pixels of one plane, read as one word: one increment each, pixel k into copy k (on a
// big-endian processor pixel k goes into copy 3 - k, which counts the same).
inline void count4(uint32_t* table, const uint8_t* plane) {
    uint32_t w;
    std::memcpy(&w, plane, sizeof w);
    ++table[w & 0xFF];
    ++table[256 + ((w >> 8) & 0xFF)];
    ++table[512 + ((w >> 16) & 0xFF)];
    ++table[768 + (w >> 24)];
}

// Step is 1 for every pixel and 2 for every other one (column parity); constant strides let the
// compiler address the four pixels of a group directly. Colour pixels are split into planes a
// chunk at a time (with their Gray), so that the counting reads four samples with each load and
// spends the processor's memory accesses on the increments.
template <int C, int Step>
inline void count8(const uint8_t* p, int n, Table8& t, SplitFn split) {
    constexpr std::size_t step = std::size_t{C} * Step;
    if constexpr (C == 1) {
        (void)split;
        int i = 0;
        for (; i + kCopies <= n; i += kCopies, p += kCopies * step) {
            ++t[4][p[0]];
            ++t[4][256 + p[step]];
            ++t[4][512 + p[2 * step]];
            ++t[4][768 + p[3 * step]];
        }
        for (; i < n; ++i, p += step) {
            ++t[4][p[0]];
        }
    } else {
        alignas(64) uint8_t planes[kSlots][kSplitChunk];
        constexpr int kPerChunk = kSplitChunk / Step;
        for (int i = 0; i < n;) {
            const int m = std::min(kPerChunk, n - i);
            split(p, (m - 1) * Step + 1, planes);
            int j = 0;
            if constexpr (Step == 1) {
                for (; j + kCopies <= m; j += kCopies) {
                    count4(t[0], planes[0] + j);
                    count4(t[1], planes[1] + j);
                    count4(t[2], planes[2] + j);
                    if constexpr (C == 4) {
                        count4(t[3], planes[3] + j);
                    }
                    count4(t[4], planes[4] + j);
                }
            }
            for (; j < m; ++j) {
                const int at = (j % kCopies) * 256;
                for (int k = 0; k < kSlots; ++k) {
                    if (k < C || k == 4) {  // plane 3 is empty for three channels
                        ++t[k][at + planes[k][j * Step]];
                    }
                }
            }
            i += m;
            p += std::size_t(m) * step;
        }
    }
}

// 16-bit tables: one per channel, and a second gray table that mono frames alternate with; padded
// like the 8-bit ones.
constexpr int kSlots16 = 6;
constexpr std::size_t kSlotStride16 = kHistogramBins + 16;

template <int C, int Step>
inline void count16(const uint16_t* p, int n, uint32_t* const* t) {
    constexpr std::size_t step = std::size_t{C} * Step;
    if constexpr (C == 1) {
        int i = 0;
        for (; i + 2 <= n; i += 2, p += 2 * step) {
            ++t[4][p[0]];
            ++t[5][p[step]];
        }
        if (i < n) {
            ++t[4][p[0]];
        }
    } else {
        for (int i = 0; i < n; ++i, p += step) {
            const uint32_t b = p[0], g = p[1], r = p[2];
            ++t[0][b];
            ++t[1][g];
            ++t[2][r];
            if constexpr (C == 4) {
                ++t[3][p[3]];
            }
            ++t[4][GrayValue(r, g, b)];
        }
    }
}

#if LUMETRA_SPLIT_AVX512
// Every pixel of a colour row: the next sixteen pixels are split while the last sixteen are
// counted. Split a chunk at a time, the split's long chain of vector operations ran alone between
// the chunks' increments (a fifth of the time); interleaved, it hides behind them.
template <int C>
[[LUMETRA_AVX512]] void countRowAvx512(const uint8_t* p, int n, Table8& t) {
    alignas(64) uint8_t blocks[2][8][16];
    const int groups = n / 16;
    if (groups > 0) {
        Split16Avx512<C>(p, blocks[0]);
    }
    for (int g = 0; g < groups; ++g) {
        uint8_t(*now)[16] = blocks[g & 1];
        if (g + 1 < groups) {
            Split16Avx512<C>(p + std::size_t(g + 1) * 16 * C, blocks[(g + 1) & 1]);
        }
        for (int j = 0; j < 16; j += kCopies) {
            count4(t[0], now[0] + j);
            count4(t[1], now[1] + j);
            count4(t[2], now[2] + j);
            if constexpr (C == 4) {
                count4(t[3], now[3] + j);
            }
            count4(t[4], now[kGrayRow<C>] + j);
        }
    }
    count8<C, 1>(p + std::size_t(groups) * 16 * C, n - groups * 16, t,
                 SplitFor<C>(SplitKernel::kPortable));
}
#endif

template <int Step>
void countRow8(int channels, const uint8_t* p, int n, Table8& t) {
#if LUMETRA_SPLIT_AVX512
    if (Step == 1 && channels != 1 && BestKernel() == SplitKernel::kAvx512) {
        if (channels == 3) {
            countRowAvx512<3>(p, n, t);
        } else {
            countRowAvx512<4>(p, n, t);
        }
        return;
    }
#endif
    switch (channels) {
        case 1:
            count8<1, Step>(p, n, t, nullptr);
            break;
        case 3:
            count8<3, Step>(p, n, t, SplitFor<3>(BestKernel()));
            break;
        default:
            count8<4, Step>(p, n, t, SplitFor<4>(BestKernel()));
            break;
    }
}

template <int Step>
void countRow16(int channels, const uint16_t* p, int n, uint32_t* const* t) {
    switch (channels) {
        case 1:
            count16<1, Step>(p, n, t);
            break;
        case 3:
            count16<3, Step>(p, n, t);
            break;
        default:
            count16<4, Step>(p, n, t);
            break;
    }
}

}  // namespace

struct HistogramScratch::Tables {
    alignas(64) Table8 t8[2];
    std::vector<uint32_t> t16;  // [set][slot][65536], made on first use
};

HistogramScratch::HistogramScratch() : tables_(std::make_unique<Tables>()) {
    std::memset(tables_->t8, 0, sizeof tables_->t8);
}

HistogramScratch::~HistogramScratch() = default;

namespace {

bool slotUsed(int slot, int channels) {
    if (channels == 1) {
        return slot >= 4;
    }
    return slot != 3 || channels == 4;
}

void fold8(Table8& t, HistogramSet& set, int channels) {
    for (int s = 0; s < kSlots; ++s) {
        if (!slotUsed(s, channels)) {
            continue;
        }
        uint64_t* out = set.channel(kDataToSet[s]);
        for (int b = 0; b < 256; ++b) {
            uint64_t sum = 0;
            for (int k = 0; k < kCopies; ++k) {
                sum += t[s][k * 256 + b];
                t[s][k * 256 + b] = 0;
            }
            out[b] += sum;
        }
    }
}

void fold16(uint32_t* t, HistogramSet& set, int channels) {
    for (int s = 0; s < kSlots16; ++s) {
        if (!slotUsed(s, channels) || (s == 5 && channels != 1)) {
            continue;
        }
        uint32_t* table = t + static_cast<std::size_t>(s) * kSlotStride16;
        uint64_t* out = set.channel(kDataToSet[s == 5 ? 4 : s]);
        for (int b = 0; b < kHistogramBins; ++b) {
            out[b] += table[b];
        }
        std::memset(table, 0, kHistogramBins * sizeof(uint32_t));
    }
}

}  // namespace

RowBlocks::RowBlocks(PixelArea area, int frameWidth)
    : next_(area.top),
      bottom_(area.bottom),
      rowsPerBlock_(std::max(1, 65536 / std::max(1, frameWidth))) {}

bool RowBlocks::Take(int& top, int& bottom) {
    const int first = next_.fetch_add(rowsPerBlock_, std::memory_order_relaxed);
    if (first >= bottom_) {
        return false;
    }
    top = first;
    bottom = std::min(first + rowsPerBlock_, bottom_);
    return true;
}

bool CountHistograms(const FrameCopy& frame, PixelArea area, bool splitParity, HistogramSet* sets,
                     HistogramScratch& scratch, const std::atomic<bool>* running,
                     const RowObserver* observer, RowBlocks* blocks) {
    area = ClipArea(area, frame.width(), frame.height());
    const int channels = frame.channels();
    const int nSets = splitParity ? 2 : 1;
    const int bins = BinsFor(frame);
    for (int s = 0; s < nSets; ++s) {
        sets[s].Widen(bins);
    }
    if (area.empty()) {
        return true;
    }
    HistogramScratch::Tables& tables = *scratch.tables_;
    const bool wide = frame.depth() == 16;
    if (wide && tables.t16.empty()) {
        tables.t16.assign(std::size_t{2} * kSlots16 * kSlotStride16, 0);
    }

    // Per set: the first column and how many columns, stepping 1 or 2 pixels.
    struct Span {
        int first;
        int count;
    };
    Span spans[2];
    if (splitParity) {
        const int even = area.left + (area.left & 1);
        const int odd = area.left + 1 - (area.left & 1);
        spans[0] = {even, std::max(0, (area.right - even + 1) / 2)};
        spans[1] = {odd, std::max(0, (area.right - odd + 1) / 2)};
    } else {
        spans[0] = {area.left, area.width()};
    }

    auto fold = [&] {
        for (int s = 0; s < nSets; ++s) {
            if (wide) {
                fold16(tables.t16.data() + std::size_t(s) * kSlots16 * kSlotStride16, sets[s],
                       channels);
            } else {
                fold8(tables.t8[s], sets[s], channels);
            }
        }
    };

    // The rows to walk: the whole area, or block after block.
    int y = area.top;
    int blockEnd = blocks != nullptr ? area.top : area.bottom;
    auto nextRow = [&] {
        while (y >= blockEnd) {
            if (blocks == nullptr || !blocks->Take(y, blockEnd)) {
                return false;
            }
            y = std::max(y, area.top);
            blockEnd = std::min(blockEnd, area.bottom);
        }
        return true;
    };

    bool completed = true;
    uint64_t sinceFold = 0;
    for (; nextRow(); ++y) {
        if (running != nullptr && !running->load(std::memory_order_relaxed)) {
            completed = false;
            break;
        }
        if (observer != nullptr && *observer) {
            (*observer)(y);
        }
        for (int s = 0; s < nSets; ++s) {
            const Span& span = spans[s];
            if (span.count <= 0) {
                continue;
            }
            if (wide) {
                const uint16_t* p = reinterpret_cast<const uint16_t*>(frame.row(y)) +
                                    std::size_t(span.first) * channels;
                uint32_t* base = tables.t16.data() + std::size_t(s) * kSlots16 * kSlotStride16;
                uint32_t* t[kSlots16];
                for (int k = 0; k < kSlots16; ++k) {
                    t[k] = base + std::size_t(k) * kSlotStride16;
                }
                if (splitParity) {
                    countRow16<2>(channels, p, span.count, t);
                } else {
                    countRow16<1>(channels, p, span.count, t);
                }
            } else {
                const uint8_t* p = frame.row(y) + std::size_t(span.first) * channels;
                if (splitParity) {
                    countRow8<2>(channels, p, span.count, tables.t8[s]);
                } else {
                    countRow8<1>(channels, p, span.count, tables.t8[s]);
                }
            }
        }
        sinceFold += static_cast<uint64_t>(area.width());
        if (sinceFold >= kFoldAfter) {
            fold();
            sinceFold = 0;
        }
    }
    // Fold even an abandoned count, so that the tables start the next frame at zero.
    fold();
    return completed;
}

std::array<uint64_t, 4> ChannelMeans(const HistogramSet& set, int frameChannels, uint64_t pixels) {
    std::array<uint64_t, 4> means{};
    if (pixels == 0) {
        return means;
    }
    if (frameChannels == 1) {
        means[kRed] = set.Sum(kGray) / pixels;
        return means;
    }
    means[kRed] = set.Sum(kRed) / pixels;
    means[kGreen] = set.Sum(kGreen) / pixels;
    means[kBlue] = set.Sum(kBlue) / pixels;
    if (frameChannels == 4) {
        means[kClear] = set.Sum(kClear) / pixels;
    }
    return means;
}

void LineStatistics::Finish() {
    range = static_cast<int64_t>(maximum) - static_cast<int64_t>(minimum);
    if (count == 0) {
        average = 0.0;
        deviation = 0.0;
        return;
    }
    average = static_cast<double>(sum) / static_cast<double>(count);
    deviation = std::sqrt(std::fabs(static_cast<double>(sumSquares) / static_cast<double>(count) -
                                    average * average));
}

bool RowStatistics(const FrameCopy& frame, int y, int c, int x0, int x1, LineStatistics& out,
                   const std::atomic<bool>* running) {
    out = LineStatistics{};
    if (y >= 0 && y < frame.height() && c >= 0 && c < frame.channels()) {
        x0 = std::max(x0, 0);
        x1 = std::min(x1, frame.width());
        for (int x = x0; x < x1; ++x) {
            if (running != nullptr && !running->load(std::memory_order_relaxed)) {
                return false;
            }
            out.Add(frame.sample(x, y, c));
        }
    }
    out.Finish();
    return true;
}

bool ColumnStatistics(const FrameCopy& frame, int x, int c, int y0, int y1, LineStatistics& out,
                      const std::atomic<bool>* running) {
    out = LineStatistics{};
    if (x >= 0 && x < frame.width() && c >= 0 && c < frame.channels()) {
        y0 = std::max(y0, 0);
        y1 = std::min(y1, frame.height());
        for (int y = y0; y < y1; ++y) {
            if (running != nullptr && !running->load(std::memory_order_relaxed)) {
                return false;
            }
            out.Add(frame.sample(x, y, c));
        }
    }
    out.Finish();
    return true;
}

StatisticsTexts FormatStatistics(const LineStatistics& s) {
    char buf[64];
    StatisticsTexts t;
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>(s.minimum));
    t.minimum = buf;
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>(s.maximum));
    t.maximum = buf;
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>(s.range));
    t.range = buf;
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>(s.average));
    t.average = buf;
    std::snprintf(buf, sizeof buf, "%.2f", s.deviation);
    t.deviation = buf;
    return t;
}

RatioVerdict RatioOf(const LineStatistics& s) {
    return s.count == 0 ? RatioVerdict{} : RatioOf(s.minimum, s.maximum);
}

RatioVerdict RatioOf(uint32_t minimum, uint32_t maximum) {
    if (minimum == 0) {
        return {};
    }
    const double ratio = static_cast<double>(maximum) / static_cast<double>(minimum);
    return {ratio, ratio <= kPassRatio ? Verdict::kPass : Verdict::kFail};
}

std::string FormatRatio(double ratio) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.3f", ratio);
    return buf;
}

Clamped ClampToFrame(int value, int extent) {
    if (value >= extent) {
        return {std::max(extent - 1, 0), true};
    }
    if (value < 0) {
        return {0, true};
    }
    return {value, false};
}

}  // namespace lumetra
