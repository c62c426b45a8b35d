// Bayer-to-BGR demosaicing for the large-buffer path of ImageBuffer::ConvertColour, one routine per
// sample width so that either can be replaced on its own.
#pragma once

#include <opencv2/core/mat.hpp>

namespace lumetra {

// src: one channel; dst: three channels of the same size and sample width; code: one of
// cv::COLOR_BayerBG2BGR, _GB2BGR, _RG2BGR, _GR2BGR. dst must already have its size and type: it is
// written in place, never reallocated. The result equals cv::cvtColor's for the same code.
void DemosaicLarge8(const cv::Mat& src, cv::Mat& dst, int code);
void DemosaicLarge16(const cv::Mat& src, cv::Mat& dst, int code);

}  // namespace lumetra
