// The pixel-level conversions between the raw frame and what the views draw: the luminance/chroma
// image and its inverse with the clear channel as luminance, the Bayer phase planes, and the
// mapping of 10- to 16-bit samples onto the display range.
//
// Thread: the functions on ImageBuffers take no lock; the caller holds the frame lock. Those on
// the Frame image take it themselves.
#pragma once

#include <opencv2/core/mat.hpp>

#include "imaging/frame_image.h"
#include "imaging/image_buffer.h"

namespace lumetra {

// Upper clamp for converted 16-bit samples, by the board's pixel bit count (all channels) and the
// samples per pixel: 255, 1023, 4095, 16383 or 65535; 48 bits give 65535 for 1 or 3 samples and
// 4095 otherwise; any other count gives 256.
int MaxSampleValue(int pixelBitCount, int channels);

// Left shift that spreads a format's samples over 16 bits for display ("Adaptive"): 6 for 10, 30,
// 40 bits per pixel; 4 for 12, 36; 2 for 14, 42; 0 for 16, 56, 64; for 48, 4 when the displayed
// image has 3 channels and 2 otherwise; 0 for anything else.
int HighBitShift(int pixelBitCount, int displayChannels);

// Raw image (3 or 4 channels) to the auxiliary image of the same depth, channels and size. Three
// channels: OpenCV's BGR-to-YCrCb. Four channels (B, G, R, C): Y, Cr, Cb rounded half to even and
// clamped to [0, 255] or, for 16-bit samples, to [0, MaxSampleValue]; the chroma offset is 128 at
// every depth; C is copied. False when the images do not fit.
bool LumaChromaImage(const ImageBuffer& raw, ImageBuffer& aux, int pixelBitCount, int threads = 0);

// In place on a four-channel Y/C, Cr, Cb, C image: colour rebuilt with C as the luminance, the
// samples becoming B, G, R (C left as it is); rounded and clamped as above.
bool CCrCbToRgb(ImageBuffer& aux, int pixelBitCount, int threads = 0);

// One Bayer phase plane (modes 5 to 8) of a one-channel raw image into an auxiliary image of half
// width and half height (both truncated) and the same depth: mode 5 even row and column, 6 even
// row and odd column, 7 odd row and even column, 8 odd row and column. A last odd row or column
// is never read.
bool BayerPhasePlane(const ImageBuffer& raw, ImageBuffer& aux, int mode);

// The luminance/chroma image of the Frame image after a new frame, in the modes 9 to 13: built
// under the frame lock, then rebuilt as colour in mode 13. The caller must not hold the lock.
void UpdateLumaChromaImage(FrameImage& frame, int pixelBitCount, int displayMode);

// Display sample mapping of 16-bit drawing images. Left: in place, a shift of 16 or more gives 0.
void ShiftLeftInPlace(cv::Mat& image, int shift);
// Right, into an 8-bit image of the same size and channels (made when it does not fit): bits
// shift to shift + 7 of each sample.
void ShiftRightToEightBit(const cv::Mat& image, cv::Mat& eightBit, int shift);

}  // namespace lumetra
