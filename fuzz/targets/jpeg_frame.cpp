// Frames from a board that compresses them, damaged on the way: the frame store hands a frame to
// the Frame image only when it decodes completely to the Frame image's own size (a header that
// claims another size is refused before decoding, so a damaged one cannot claim gigabytes);
// otherwise the Frame image keeps the last good frame.
#include <cstring>
#include <string>

#include <opencv2/core.hpp>

#include "acquisition/frame_store.h"
#include "fuzz_support.h"
#include "imaging/jpeg_decoder.h"

using namespace lumetra;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FrameStore store;
    static FrameImage frame;
    fuzz::InputReader in(data, size);
    // The frame the board announces: mono or colour, up to 256 x 256.
    const uint8_t shape = in.Byte();
    FrameFormat format;
    format.width = 8 * (1 + in.Byte() % 32);
    format.height = 8 * (1 + in.Byte() % 32);
    format.channels = shape & 1 ? 3 : 1;
    format.bitsPerPixel = 8 * format.channels;
    {
        std::lock_guard lock(frame.frameLock());
        const FrameFormat& held = frame.format();
        if (held.width != format.width || held.height != format.height ||
            held.channels != format.channels) {
            frame.setFormat(format);
            BayerSettings bayer;
            NullMessageLog quiet;
            FUZZ_CHECK(frame.Allocate(format.bitsPerPixel, bayer, quiet));
        }
        // A recognisable last good frame.
        cv::Mat raw = frame.raw().mat();
        raw.setTo(cv::Scalar::all(77));
    }
    // The store holds a frame's worth of bytes; a compressed frame never needs more.
    const size_t capacity = size_t(format.width) * size_t(format.height) * size_t(format.channels);
    FUZZ_CHECK(store.Resize(capacity));
    store.Put(in.data(), in.size(), true);

    // Decoded as the store decodes it: only a picture of the announced shape is decoded at all.
    cv::Mat decoded;
    std::string error;
    const JpegShape announced{format.width, format.height, format.channels};
    const bool decodes =
        DecodeJpeg(in.data(), std::min(in.size(), capacity), decoded, error, &announced);
    FUZZ_CHECK(decodes == error.empty());
    FUZZ_CHECK(!decodes || (decoded.cols == format.width && decoded.rows == format.height &&
                            decoded.channels() == format.channels));
    bool thenRan = false;
    const bool delivered = store.Deliver(frame, [&] { thenRan = true; });
    FUZZ_CHECK(thenRan == delivered);
    FUZZ_CHECK(delivered == decodes);
    std::lock_guard lock(frame.frameLock());
    const cv::Mat raw = frame.raw().mat();
    if (delivered) {
        FUZZ_CHECK(cv::norm(raw, decoded, cv::NORM_INF) == 0);
    } else {
        FUZZ_CHECK(cv::countNonZero(raw.reshape(1) != 77) == 0);
    }
    return 0;
}
