// What the main image view borrows from the board document: the Frame image (with its frame
// lock), the display mode, the Bayer settings, the background image, and whether no grab runs.
// All of it outlives the view. Thread: the user-interface thread.
#pragma once

#include <functional>
#include <opencv2/core.hpp>

#include "imaging/frame_image.h"

namespace lumetra {

struct ViewSources {
    FrameImage& frame;
    int& displayMode;
    BayerSettings& bayer;
    const cv::Mat& background;
    // "Blank Image" only while this is true: the next frame would cover it at once.
    std::function<bool()> idle;
};

}  // namespace lumetra
