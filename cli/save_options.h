// The still-image options grab and convert share: --lzw, --tiff-compression NAME, --dpi X,Y.
#pragma once

#include <optional>
#include <utility>

#include "cli/arguments.h"
#include "recording/image_files.h"

namespace lumetra::cli {

struct TiffChoices {
    std::optional<TiffCompression> compression;
    std::optional<std::pair<int, int>> dpi;
    bool given() const { return compression.has_value() || dpi.has_value(); }
};

// Consumes the options; false (the message printed through args) for a bad value: an unknown
// compression, one this libtiff lacks, --lzw against another compression, a resolution outside
// 96 to 1000.
bool ParseTiffChoices(Arguments& args, TiffChoices& choices);
// The choices over options (what the settings gave).
void ApplyTiffChoices(const TiffChoices& choices, ImageSaveOptions& options);

}  // namespace lumetra::cli
