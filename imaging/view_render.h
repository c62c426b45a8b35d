// What the main image view draws, without a window: from the Frame image, the view's layout and
// its choices to one drawing image of the client area's size, which the view hands to OpenGL as
// it is (rows top to bottom).
//
// Only the visible part is read. Under the frame lock the renderer copies that part (at zoom 1 and
// above; below 1 it copies only the samples the nearest-neighbour resize keeps, which costs less
// than copying the part); everything else (demosaicing, the luminance/chroma image, the channel
// pick, the resize, the display sample mapping, the overlays) runs after the lock is released.
//
// Thread: one renderer per view, on the view's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "imaging/frame_image.h"
#include "imaging/image_buffer.h"
#include "imaging/view_layout.h"
#include "imaging/view_readout.h"

namespace lumetra {

// How a drawing image reaches glDrawPixels: GL_LUMINANCE or GL_BGR with unsigned bytes or shorts.
// Any other image (four channels, other depths) is not drawn.
enum class PixelLayout { None, Luminance8, Luminance16, Bgr8, Bgr16 };
PixelLayout LayoutOfDrawing(const cv::Mat& image);

// The display mode the view draws for a requested mode: the mode itself when the raw image can
// show it, else 0 ("RGB": the grey or colour image as it is).
int EffectiveDisplayMode(int mode, int rawChannels, int rawWidth, int rawHeight, bool bayerOn);
// Whether the view can show a mode for a raw image (the mode commands' enable rule).
bool DisplayModeAvailable(int mode, int rawChannels, int rawWidth, int rawHeight, bool bayerOn);
// Bayer conversion applies to the view: enabled, a pattern from 1 to 4, a one-channel raw image.
bool BayerDisplayOn(const BayerSettings& bayer, int rawChannels);

// The three variants of the context menu's display modes: 0 to 4, plus the phase planes 5 to 8
// (one-channel raw images), or plus the luminance/chroma modes 9 to 13 (more than one channel
// with an auxiliary image).
enum class MenuVariant { Base, Channels, LumaChroma };
MenuVariant MenuVariantFor(int rawChannels, bool hasAux);
// The modes a variant lists, in menu order.
std::vector<int> MenuModes(MenuVariant variant);

// The labels of the overlay's lines for what a mode draws from a raw image of rawChannels.
ValueLabels LabelsFor(int effectiveMode, int rawChannels, bool bayerOn);

struct ViewSettings {
    ImageRect rect;  // the raw image's rectangle in client pixels
    double zoom = 1.0;
    cv::Size client;
    int mode = 0;        // requested display mode, 0 to 13
    int dataFormat = 0;  // 0 "Decimal ", 1 "Hexadecimal", 2 "No"
    BayerSettings bayer;
    // Ours, off by default: samples at the format's maximum drawn red and zero samples blue; a
    // colour map for one-channel images.
    bool highlightClipping = false;
    bool falseColour = false;
};

// Colours of the highlight (B, G, R).
inline constexpr unsigned char kSaturatedColour[3] = {0, 0, 255};
inline constexpr unsigned char kZeroColour[3] = {255, 0, 0};

// What one render did, for the view and for the tests.
struct RenderInfo {
    bool frameDrawn = false;       // a frame of the Frame image (false: background or nothing)
    bool backgroundDrawn = false;  // no frame there: the background image was drawn
    int mode = 0;                  // the mode drawn
    uint64_t frameCount = 0;       // the Frame image's frame count that was drawn
    int overlayLevel = -1;         // -1: no pixel values drawn
    cv::Rect imageArea;            // where image pixels landed in the client area
    double lockedMs = 0;           // time under the frame lock
};

struct BlockPlanes;

class ViewRenderer {
  public:
    ViewRenderer();
    ~ViewRenderer();
    ViewRenderer(const ViewRenderer&) = delete;
    ViewRenderer& operator=(const ViewRenderer&) = delete;

    // The client-sized drawing image, or an empty one when there is nothing to draw (the view
    // then shows only the cleared background). Valid until the next call. Takes the frame lock;
    // the caller must not hold it.
    const cv::Mat& Render(FrameImage& frame, const ViewSettings& settings,
                          const cv::Mat& background);
    const RenderInfo& info() const { return info_; }

  private:
    struct Snapshot;
    const cv::Mat& RenderFrame(FrameImage& frame, const ViewSettings& settings,
                               const cv::Mat& background);
    bool TakeSnapshot(FrameImage& frame, const ViewSettings& s, Snapshot& snap);
    void DrawBackground(const cv::Mat& background, cv::Size client);

    RenderInfo info_;
    cv::Mat output_;  // what Render returns: one of the images below
    cv::Mat drawing_;
    cv::Mat eight8_;
    cv::Mat colourDrawing_;
    // Reused between paints so that a steady stream allocates nothing (fresh blocks of this size
    // cost page faults on every paint).
    cv::Mat copy_;
    cv::Mat copyBottom_;
    cv::Mat plane_;
    cv::Mat three_;
    cv::Mat colour_;
    cv::Mat magnified_;
    cv::Mat belowMask_;
    cv::Mat zeroMask_;
    cv::Mat mappedColours_;
    std::unique_ptr<BlockPlanes> blocks_;
    ImageBuffer lumaSource_;
    ImageBuffer lumaImage_;
    cv::Mat backgroundCache_;
    const void* backgroundKey_ = nullptr;
    cv::Size backgroundSize_;
};

}  // namespace lumetra
