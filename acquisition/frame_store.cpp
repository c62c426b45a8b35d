#include "acquisition/frame_store.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

#include "acquisition/debug_output.h"

namespace lumetra {

FrameStore::FrameStore(BlockAllocator& allocator) : allocator_(allocator) {}

FrameStore::~FrameStore() {
    if (block_ != nullptr) {
        allocator_.free(block_);
    }
}

bool FrameStore::Resize(size_t capacity) {
    std::lock_guard lock(mutex_);
    if (capacity == capacity_ && block_ != nullptr) {
        return true;
    }
    void* block = allocator_.allocate(std::max<size_t>(capacity, 1));
    if (block == nullptr) {
        return false;
    }
    if (block_ != nullptr) {
        allocator_.free(block_);
    }
    block_ = block;
    capacity_ = capacity;
    size_ = 0;
    full_ = false;
    jpeg_ = false;
    return true;
}

void FrameStore::Put(const void* address, size_t size, bool jpeg) {
    std::lock_guard lock(mutex_);
    if (hold_) {
        return;
    }
    const size_t n = std::min(capacity_, size);
    if (n != 0) {
        std::memcpy(block_, address, n);
    }
    size_ = n;
    jpeg_ = jpeg;
    full_ = true;
}

size_t FrameStore::size() const {
    std::lock_guard lock(mutex_);
    return size_;
}

bool FrameStore::full() const {
    std::lock_guard lock(mutex_);
    return full_;
}

bool FrameStore::jpeg() const {
    std::lock_guard lock(mutex_);
    return jpeg_;
}

void FrameStore::setHold(bool hold) {
    std::lock_guard lock(mutex_);
    hold_ = hold;
}

}  // namespace lumetra

namespace lumetra {
namespace {

struct JpegError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

[[noreturn]] void onJpegError(j_common_ptr info) {
    std::longjmp(reinterpret_cast<JpegError*>(info->err)->jump, 1);
}

// libjpeg's warnings go where the decoding failures go: the debug output only.
void onJpegMessage(j_common_ptr info) {
    char text[JMSG_LENGTH_MAX];
    info->err->format_message(info, text);
    DebugOutput(text);
}

// Decodes into the raw image when the picture fits it exactly: 8-bit samples, same size and
// component count.
bool decodeJpeg(const uint8_t* data, size_t size, ImageBuffer& raw) {
    jpeg_decompress_struct info{};
    JpegError err{};
    info.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = onJpegError;
    err.mgr.output_message = onJpegMessage;
    if (setjmp(err.jump) != 0) {
        jpeg_destroy_decompress(&info);
        DebugOutput("jpeg decompress failure");
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, data, static_cast<unsigned long>(size));
    if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK ||
        static_cast<int>(info.image_width) != raw.width() ||
        static_cast<int>(info.image_height) != raw.height() || raw.depth() != 8 ||
        info.num_components != raw.channels()) {
        jpeg_destroy_decompress(&info);
        DebugOutput("jpeg decompress failure");
        return false;
    }
    // Colour frames are held B, G, R.
    if (info.num_components == 3) {
        info.out_color_space = JCS_EXT_BGR;
    }
    if (!jpeg_start_decompress(&info)) {
        jpeg_destroy_decompress(&info);
        DebugOutput("Jpeg start decompress failure");
        return false;
    }
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = raw.data() + size_t(info.output_scanline) * size_t(raw.widthStep());
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return true;
}

}  // namespace

bool FrameStore::ConvertInto(ImageBuffer& raw) const {
    std::lock_guard lock(mutex_);
    if (!full_ || !raw.hasImage()) {
        return false;
    }
    if (jpeg_) {
        return decodeJpeg(static_cast<const uint8_t*>(block_), size_, raw);
    }
    std::memcpy(raw.data(), block_, std::min<size_t>(size_, raw.size()));
    return true;
}

}  // namespace lumetra
