#include "cli/save_options.h"

#include <string>

namespace lumetra::cli {
namespace {

std::optional<int> Dpi(const std::string& text) {
    const auto v = ParseInteger(text);
    if (!v || *v < kMinTiffDpi || *v > kMaxTiffDpi) {
        return std::nullopt;
    }
    return static_cast<int>(*v);
}

}  // namespace

bool ParseTiffChoices(Arguments& args, TiffChoices& choices) {
    const bool lzw = args.Flag("--lzw");
    if (const auto name = args.Value("--tiff-compression")) {
        choices.compression = TiffCompressionOf(*name);
        if (!choices.compression) {
            args.Error("--tiff-compression must be none, lzw, deflate or zstd, not '" + *name +
                       "'");
            return false;
        }
        if (lzw && *choices.compression != TiffCompression::kLzw) {
            args.Error("--lzw and --tiff-compression " + *name + " contradict each other");
            return false;
        }
        if (!TiffCompressionAvailable(*choices.compression)) {
            args.Error("this libtiff cannot write " + *name + " compression");
            return false;
        }
    } else if (lzw) {
        choices.compression = TiffCompression::kLzw;
    }
    if (const auto dpi = args.Value("--dpi")) {
        const size_t comma = dpi->find(',');
        const auto x = comma == std::string::npos ? std::nullopt : Dpi(dpi->substr(0, comma));
        const auto y = comma == std::string::npos ? std::nullopt : Dpi(dpi->substr(comma + 1));
        if (!x || !y) {
            args.Error("--dpi needs X,Y with whole numbers from " + std::to_string(kMinTiffDpi) +
                       " to " + std::to_string(kMaxTiffDpi) + ", not '" + *dpi + "'");
            return false;
        }
        choices.dpi = std::make_pair(*x, *y);
    }
    return true;
}

void ApplyTiffChoices(const TiffChoices& choices, ImageSaveOptions& options) {
    if (choices.compression) {
        options.tiffCompression = *choices.compression;
    }
    if (choices.dpi) {
        options.dpiX = choices.dpi->first;
        options.dpiY = choices.dpi->second;
    }
}

}  // namespace lumetra::cli
