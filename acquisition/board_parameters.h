// The board document's parameter cache, the parameter-apply sequence and the read-back.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "acquisition/board_library.h"
#include "base/messages.h"

namespace lumetra {

// The image-format record: what the Frame image is allocated from.
struct ImageFormatRecord {
    uint32_t width = 1024;
    uint32_t height = 643;
    uint32_t bitsPerPixel = 24;  // all channels
    uint32_t bitsPerPixelDisplay = 24;
    uint32_t channels = 3;
    uint32_t reserved[4] = {0, 0, 0, 0};
    uint32_t bufferCount = 50;
    bool jpegCompression = false;
    bool rgbdExtended = false;
};

// The board parameter record: every value the apply sequence writes, keyed by parameter id, and
// what the read-back derives from them.
class BoardParameters {
  public:
    BoardParameters();

    uint32_t get(uint32_t id) const;
    void set(uint32_t id, uint32_t value) { values_[id] = value; }
    bool has(uint32_t id) const { return values_.count(id) != 0; }

    uint32_t width() const { return get(ORVIX_IMAGE_WIDTH); }
    uint32_t height() const { return get(ORVIX_IMAGE_HEIGHT); }
    uint32_t taps() const { return get(ORVIX_TAP_NUMBER); }
    uint32_t imageType() const { return get(ORVIX_IMAGE_TYPE); }
    uint32_t dataFormat() const { return get(ORVIX_DATA_FORMAT); }
    uint32_t bayerPattern() const { return get(ORVIX_BAYER_PATTERN); }

    // Derived on read-back.
    uint32_t channels = 3;
    uint32_t bitsPerPixel = 24;
    bool bayerEnabled = false;
    int clConfigIndex = 0;

    const std::map<uint32_t, uint32_t>& values() const { return values_; }

  private:
    std::map<uint32_t, uint32_t> values_;
};

// Channels per pixel of an image type: 0 gives 1, 1 and 3 give 3, 2 and 4 give 4; 0 for others.
uint32_t ChannelsOfImageType(uint32_t imageType);

// One write of the apply sequence, for tests and for listing.
struct ParameterWrite {
    uint32_t id;            // written to the board
    uint32_t source;        // cache entry whose value is written (differs in the CXP trigger group)
    std::string_view name;  // "Set " + name + " failed" on failure
};

struct BoardIdentity {
    bool coaxpress = false;
    uint8_t modelCode = 0;
};

// The reported writes of the apply sequence in order, after its two silent opening writes (tap
// number 1, then the width), given whether that first width write failed.
std::vector<ParameterWrite> ParameterApplyWrites(const BoardParameters& cache,
                                                 const BoardIdentity& board,
                                                 bool firstWidthWriteFailed);

// Writes the cache to the board in the fixed order; a failed write logs its line and the
// sequence goes on.
void ApplyParameters(BoardLibrary& lib, OrvixHandle handle, const BoardParameters& cache,
                     const BoardIdentity& board, MessageLog& log);

// Reads the board's values into the cache (a failed read keeps the cached value) and sets the
// derived values in both records.
void ReadBackParameters(BoardLibrary& lib, OrvixHandle handle, const BoardIdentity& board,
                        BoardParameters& cache, ImageFormatRecord& format);

// Parameter id of a short name used by lumetra-cli ("width", "taps", ...), 0 when unknown.
uint32_t ParameterIdOfShortName(std::string_view name);
// Display name of a parameter id as the apply sequence writes it; empty when it has none.
std::string_view ParameterDisplayName(uint32_t id);

}  // namespace lumetra
