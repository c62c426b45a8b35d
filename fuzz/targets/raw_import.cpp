// Raw-image import: the layout the user types (width, height, bits, channels, any values) and a
// file of any size. A layout that fits the file exactly is taken sample for sample; anything else
// is refused with a reason and the Frame image stays as it was.
#include <climits>
#include <cstring>
#include <string>

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

// Typed values, ordinary and hostile.
int Dimension(uint8_t pick, uint8_t small) {
    switch (pick % 8) {
        case 0:
            return 0;
        case 1:
            return -static_cast<int>(small);
        case 2:
            return INT_MAX;
        case 3:
            return 0x40000000 + small;
        case 4:
            return 65536 + small;
        default:
            return 1 + small % 64;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    static FrameImage frame;
    fuzz::InputReader in(data, size);
    const uint8_t mode = in.Byte();
    RawLayout layout;
    layout.height = Dimension(in.Byte(), in.Byte());
    layout.bitsPerSample = 6 + in.Byte() % 13;  // 6 to 18
    layout.channels = in.Byte() % 6;            // 0 to 5
    const size_t bytesPerSample = layout.bitsPerSample > 8 ? 2 : 1;
    if (mode & 2) {
        // Any typed numbers at all.
        layout.width = static_cast<int>(in.Word());
        layout.height = static_cast<int>(in.Word());
    } else if (mode & 1) {
        layout.width = Dimension(in.Byte(), in.Byte());
    } else {
        // A width that fits the file whenever the file can be rows of this height.
        const long long row = static_cast<long long>(layout.height) * layout.channels *
                              static_cast<long long>(bytesPerSample);
        layout.width = row > 0 ? static_cast<int>(static_cast<long long>(in.size()) / row) : 1;
    }
    const std::string& path = file.Write(in.data(), in.size());

    cv::Mat image;
    std::string error;
    const bool loaded = LoadRawImageFile(path, layout, image, error);
    const bool fits = layout.width > 0 && layout.height > 0 && layout.bitsPerSample >= 8 &&
                      layout.bitsPerSample <= 16 &&
                      (layout.channels == 1 || layout.channels == 3 || layout.channels == 4) &&
                      static_cast<unsigned __int128>(layout.width) *
                              static_cast<unsigned __int128>(layout.height) *
                              static_cast<unsigned __int128>(layout.channels) * bytesPerSample ==
                          in.size();
    FUZZ_CHECK(loaded == fits);
    if (!loaded) {
        FUZZ_CHECK(!error.empty());
    } else {
        FUZZ_CHECK(image.cols == layout.width && image.rows == layout.height);
        FUZZ_CHECK(image.channels() == layout.channels);
        FUZZ_CHECK(image.elemSize1() == bytesPerSample);
        FUZZ_CHECK(image.isContinuous());
        FUZZ_CHECK(std::memcmp(image.data, in.data(), in.size()) == 0);
    }

    // Into the Frame image: taken whole, or refused with one line and the frame untouched.
    cv::Mat before;
    FrameFormat formatBefore;
    {
        std::lock_guard lock(frame.frameLock());
        before = frame.raw().mat().clone();
        formatBefore = frame.format();
    }
    Lines log;
    const bool imported = ImportRawIntoFrame(frame, path, layout, log, nullptr);
    FUZZ_CHECK_SAID(imported == loaded, log.last);
    std::lock_guard lock(frame.frameLock());
    if (imported) {
        FUZZ_CHECK(log.last.empty());
        const cv::Mat raw = frame.raw().mat();
        FUZZ_CHECK(raw.cols == layout.width && raw.rows == layout.height);
        FUZZ_CHECK(raw.channels() == layout.channels);
        FUZZ_CHECK(std::memcmp(raw.data, in.data(), in.size()) == 0);
        const int bits = layout.bitsPerSample > 8 ? layout.bitsPerSample : 8;
        FUZZ_CHECK(frame.format().bitsPerPixel == bits * layout.channels);
    } else {
        FUZZ_CHECK(log.last == OpenFailedText(path, error));
        const cv::Mat raw = frame.raw().mat();
        FUZZ_CHECK(frame.format().width == formatBefore.width);
        FUZZ_CHECK(frame.format().bitsPerPixel == formatBefore.bitsPerPixel);
        FUZZ_CHECK(raw.size == before.size && raw.type() == before.type());
        FUZZ_CHECK(std::memcmp(raw.data, before.data, before.total() * before.elemSize()) == 0);
    }
    return 0;
}
