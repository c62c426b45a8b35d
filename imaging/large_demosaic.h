// Bayer-to-BGR demosaicing of our own for the large-buffer path of ImageBuffer::ConvertColour, one
// entry per sample width so that either can be replaced on its own. The result equals OpenCV's
// bilinear Bayer-to-BGR conversion (cv::cvtColor with the same code), borders included.
#pragma once

#include <opencv2/core/mat.hpp>

namespace lumetra {

// src: one channel; dst: three channels of the same size and sample width; code: one of
// cv::COLOR_BayerBG2BGR, _GB2BGR, _RG2BGR, _GR2BGR. dst must already have its size and type: it is
// written in place, never reallocated; anything else is ignored. Spread over the cores by rows.
void DemosaicLarge8(const cv::Mat& src, cv::Mat& dst, int code);
void DemosaicLarge16(const cv::Mat& src, cv::Mat& dst, int code);

// Best: the fastest routine the processor runs (on x86-64 with AVX2, one written for it by hand).
// Portable: the plain C++ loops only, so that tests can check them on any machine.
enum class DemosaicKernel { Best, Portable };

// Either sample width, its rows spread over `threads` threads (<= 0: one per core, fewer for small
// images). Both forms above come here with Best; tests and the benchmark pick the threads.
void DemosaicBilinear(const cv::Mat& src, cv::Mat& dst, int code, int threads,
                      DemosaicKernel kernel = DemosaicKernel::Best);

}  // namespace lumetra
