// Still images into the Frame image: any file is either read whole (8- or 16-bit samples, 1, 3
// or 4 channels) and adopted exactly, or refused with one "Open image fail" line and the Frame
// image as it was.
#include <cstring>
#include <string>

#include <opencv2/core.hpp>

#include "base/messages.h"
#include "fuzz_support.h"
#include "recording/image_files.h"

using namespace lumetra;

namespace {

class Lines final : public MessageLog {
  public:
    void log(std::string_view text) override { last.assign(text); }
    std::string last;
};

class Posts final : public MessageSink {
  public:
    void post(uint32_t, intptr_t, intptr_t) override { ++count; }
    int count = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    static FrameImage frame;
    const std::string& path = file.Write(data, size);

    cv::Mat image;
    std::string error;
    const bool loaded = LoadImageFile(path, image, error);
    if (!loaded) {
        FUZZ_CHECK(!error.empty());
    } else {
        FUZZ_CHECK(!image.empty() && image.dims == 2);
        FUZZ_CHECK(image.depth() == CV_8U || image.depth() == CV_16U);
        FUZZ_CHECK(image.channels() == 1 || image.channels() == 3 || image.channels() == 4);
    }

    cv::Mat before;
    FrameFormat formatBefore;
    {
        std::lock_guard lock(frame.frameLock());
        before = frame.raw().mat().clone();
        formatBefore = frame.format();
    }
    Lines log;
    Posts sink;
    const bool opened = OpenImageIntoFrame(frame, path, log, &sink);
    FUZZ_CHECK_SAID(opened == loaded, log.last + error);
    std::lock_guard lock(frame.frameLock());
    const cv::Mat raw = frame.raw().mat();
    if (opened) {
        FUZZ_CHECK(log.last.empty());
        FUZZ_CHECK(sink.count > 0);
        FUZZ_CHECK(raw.size == image.size && raw.type() == image.type());
        FUZZ_CHECK(cv::norm(raw, image, cv::NORM_INF) == 0);
        FUZZ_CHECK(frame.format().width == image.cols && frame.format().height == image.rows);
    } else {
        FUZZ_CHECK(log.last == OpenFailedText(path, error));
        FUZZ_CHECK(sink.count == 0);
        FUZZ_CHECK(frame.format().width == formatBefore.width);
        FUZZ_CHECK(frame.format().height == formatBefore.height);
        FUZZ_CHECK(frame.format().bitsPerPixel == formatBefore.bitsPerPixel);
        FUZZ_CHECK(raw.size == before.size && raw.type() == before.type());
        FUZZ_CHECK(std::memcmp(raw.data, before.data, before.total() * before.elemSize()) == 0);
    }
    return 0;
}
