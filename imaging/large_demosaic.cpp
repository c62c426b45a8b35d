#include "imaging/large_demosaic.h"

#include <opencv2/imgproc.hpp>

namespace lumetra {

namespace {

bool Fits(const cv::Mat& src, cv::Mat& dst, int depth) {
    return src.type() == CV_MAKETYPE(depth, 1) && dst.type() == CV_MAKETYPE(depth, 3) &&
           src.size() == dst.size() && !src.empty();
}

// OpenCV addresses blocks past 2 GiB through size_t steps; the application's own routines can
// take its place here.
void Demosaic(const cv::Mat& src, cv::Mat& dst, int code) {
    cv::Mat out = dst;
    cv::demosaicing(src, out, code, 3);
}

}  // namespace

void DemosaicLarge8(const cv::Mat& src, cv::Mat& dst, int code) {
    if (Fits(src, dst, CV_8U)) {
        Demosaic(src, dst, code);
    }
}

void DemosaicLarge16(const cv::Mat& src, cv::Mat& dst, int code) {
    if (Fits(src, dst, CV_16U)) {
        Demosaic(src, dst, code);
    }
}

}  // namespace lumetra
