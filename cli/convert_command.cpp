// lumetra-cli convert: what a view would draw in a display mode, from an image file or a grabbed
// frame, written to an image file. The drawing is the core's RenderDisplayMode; this command only
// reads, grabs and writes.
#include <QJsonObject>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "cli/arguments.h"
#include "cli/cli_output.h"
#include "cli/save_options.h"
#include "imaging/display_modes.h"
#include "imaging/display_render.h"
#include "recording/image_files.h"
#include "recording/recording_settings.h"

namespace lumetra::cli {
namespace {

struct ConvertRequest {
    bool grab = false;
    std::string input;
    std::string output;
    std::optional<int> mode;
    std::optional<int> bayer;
    std::optional<int> shift;
    bool adaptive = false;
    std::optional<int> bits;
    TiffChoices tiff;
    RawLayout raw;  // for a raw input file
};

// "BGGR", "RGGB", "GBRG", "GRBG" (any case) or the pattern value 0 to 4.
std::optional<int> ParseBayer(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    static const char* kNames[] = {"NONE", "BGGR", "RGGB", "GBRG", "GRBG"};
    for (int value = 0; value < 5; ++value) {
        if (text == kNames[value] || text == std::to_string(value)) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<ConvertRequest> ParseRequest(Arguments& args) {
    ConvertRequest r;
    r.grab = args.Flag("--grab");
    r.adaptive = args.Flag("--adaptive");
    const auto mode = args.Integer("--mode");
    const auto bayer = args.Value("--bayer");
    const auto shift = args.Integer("--shift");
    const auto bits = args.Integer("--bits");
    const auto size = args.Value("--size");
    const auto channels = args.Integer("--channels");
    if (!ParseTiffChoices(args, r.tiff)) {
        return std::nullopt;
    }
    const std::vector<std::string> files = args.Positional();
    if (!args.Finish()) {
        return std::nullopt;
    }
    if (files.size() != (r.grab ? 1u : 2u)) {
        args.Error(r.grab ? "give the output file: convert --grab OUT"
                          : "give the input and the output file: convert IN OUT");
        return std::nullopt;
    }
    r.input = r.grab ? std::string() : files[0];
    r.output = files.back();
    if (r.tiff.given() && ImageFileTypeOf(r.output) != ImageFileType::kTiff) {
        args.Error("--lzw, --tiff-compression and --dpi are for a TIFF output file (.tif)");
        return std::nullopt;
    }
    if (mode) {
        if (!IsValidDisplayMode(static_cast<int>(*mode))) {
            args.Error("--mode must be a display mode from 0 to 13, not " + std::to_string(*mode));
            return std::nullopt;
        }
        r.mode = static_cast<int>(*mode);
    }
    if (bayer) {
        r.bayer = ParseBayer(*bayer);
        if (!r.bayer) {
            args.Error("--bayer must be BGGR, RGGB, GBRG, GRBG or 0 to 4, not '" + *bayer + "'");
            return std::nullopt;
        }
    }
    if (shift) {
        r.shift = static_cast<int>(*shift);
    }
    if (bits) {
        if (*bits < 8 || *bits > 16 || r.grab) {
            args.Error(r.grab ? "--bits is for image files; a grab takes the board's format"
                              : "--bits must be 8 to 16");
            return std::nullopt;
        }
        r.bits = static_cast<int>(*bits);
    }
    const bool rawInput = !r.grab && ImageFileTypeOf(r.input) == ImageFileType::kRaw;
    if ((size || channels) && !rawInput) {
        args.Error("--size and --channels are for a raw input file");
        return std::nullopt;
    }
    if (rawInput) {
        int width = 0;
        int height = 0;
        char x = 0;
        char extra = 0;
        if (!size || std::sscanf(size->c_str(), "%d%c%d%c", &width, &x, &height, &extra) != 3 ||
            (x != 'x' && x != 'X') || width <= 0 || height <= 0) {
            args.Error("a raw input file needs --size WIDTHxHEIGHT");
            return std::nullopt;
        }
        r.raw.width = width;
        r.raw.height = height;
        r.raw.channels = static_cast<int>(channels.value_or(1));
        r.raw.bitsPerSample = r.bits.value_or(8);
    }
    if (r.shift && r.adaptive) {
        args.Error("give --shift S or --adaptive, not both");
        return std::nullopt;
    }
    if (!r.mode && (r.bayer || r.shift || r.adaptive)) {
        args.Error("--bayer, --shift and --adaptive need --mode");
        return std::nullopt;
    }
    return r;
}

void Fail(Session& s, const std::string& text) {
    std::fprintf(stderr, "lumetra-cli convert: %s\n", text.c_str());
    if (s.options.json) {
        QJsonObject o;
        o["ok"] = false;
        o["error"] = QString::fromStdString(text);
        o["log"] = LogArray(s);
        PrintJson(o);
    }
}

// The file as the raw image of a frame: 8- or 16-bit samples, 1, 3 or 4 channels.
bool ReadImage(Session& s, const ConvertRequest& r, ImageBuffer& raw) {
    const std::string& path = r.input;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        Fail(s, "cannot read " + path + ": no such file");
        return false;
    }
    cv::Mat image;
    if (ImageFileTypeOf(path) == ImageFileType::kRaw) {
        std::string error;
        if (!LoadRawImageFile(path, r.raw, image, error)) {
            Fail(s, path + ": " + error);
            return false;
        }
    } else {
        // The still-image readers: a damaged file is refused, never half-read.
        std::string error;
        if (!LoadImageFile(path, image, error)) {
            Fail(s, "cannot read " + path + ": " + error);
            return false;
        }
    }
    const int depth = image.depth() == CV_8U ? 8 : 16;
    if (!raw.TryCreate(depth, image.channels(), image.cols, image.rows)) {
        Fail(s, "cannot convert " + path + ": not enough memory");
        return false;
    }
    cv::Mat block = raw.mat();
    image.copyTo(block);
    return true;
}

bool GrabFrame(Session& s) {
    if (!s.OpenDocument()) {
        NoBoard(s);
        return false;
    }
    if (!s.SingleShot()) {
        Fail(s, "no frame was grabbed");
        return false;
    }
    return true;
}

// Through the still-image paths, with the TIFF settings and the options given.
bool WriteImage(Session& s, const ConvertRequest& r, const cv::Mat& image) {
    const std::string& path = r.output;
    if (ImageFileTypeOf(path) == ImageFileType::kUnknown) {
        Fail(s, "cannot write " + path + ": no image format has that extension");
        return false;
    }
    ImageSaveOptions options = ReadImageSaveOptions(s.settings);
    ApplyTiffChoices(r.tiff, options);
    options.significantBits = r.bits.value_or(16);
    std::string error;
    if (!SaveImageFile(image, path, options, error)) {
        Fail(s, "cannot write " + path + ": " + error);
        return false;
    }
    return true;
}

void PrintWritten(Session& s, const ConvertRequest& r, const cv::Mat& image) {
    const int depth = image.depth() == CV_8U ? 8 : 16;
    if (s.options.json) {
        QJsonObject o;
        o["ok"] = true;
        o["output"] = QString::fromStdString(r.output);
        o["mode"] = r.mode ? *r.mode : -1;
        o["width"] = image.cols;
        o["height"] = image.rows;
        o["channels"] = image.channels();
        o["depth"] = depth;
        o["log"] = LogArray(s);
        PrintJson(o);
        return;
    }
    std::printf("%s: %d x %d, %d channel%s of %d bits\n", r.output.c_str(), image.cols, image.rows,
                image.channels(), image.channels() == 1 ? "" : "s", depth);
}

}  // namespace

int RunConvert(Session& s) {
    Arguments args("convert", s.options.args);
    const std::optional<ConvertRequest> parsed = ParseRequest(args);
    if (!parsed) {
        return 2;
    }
    const ConvertRequest& r = *parsed;

    ImageBuffer fileImage;
    DisplayRequest request;
    request.mode = r.mode.value_or(kModeRgb);
    request.bayerPattern = r.bayer.value_or(0);
    if (r.shift) {
        request.mapping = SampleMapping::EightBit;
        request.shift = *r.shift;
    } else if (r.adaptive) {
        request.mapping = SampleMapping::Adaptive;
    }

    cv::Mat image;
    std::string refusal;
    if (r.grab) {
        if (!GrabFrame(s)) {
            return 1;
        }
        CKELM_PCIE_VexCardDoc& doc = *s.document;
        FrameImage& frame = doc.frameImage();
        request.pixelBitCount = static_cast<int>(doc.imageFormat().bitsPerPixel);
        if (!r.bayer && doc.parameters().bayerEnabled) {
            request.bayerPattern = static_cast<int>(doc.parameters().bayerPattern());
        }
        std::lock_guard lock(frame.frameLock());
        // Unless told otherwise, the frame is drawn the way the view would draw it now.
        if (!r.shift && !r.adaptive) {
            request.mapping = frame.highBit()         ? SampleMapping::Adaptive
                              : frame.eightBitShift() ? SampleMapping::EightBit
                                                      : SampleMapping::AsIs;
            request.shift = frame.shift();
        }
        if (r.mode) {
            DisplayResult drawn = RenderDisplayMode(frame.raw(), request);
            refusal = drawn.error;
            image = drawn.image;
        } else {
            image = frame.raw().mat().clone();
        }
    } else {
        if (!ReadImage(s, r, fileImage)) {
            return 1;
        }
        if (r.bits && fileImage.depth() == 8 && *r.bits != 8) {
            Fail(s, r.input + " holds 8-bit samples: --bits must be 8");
            return 1;
        }
        request.pixelBitCount = r.bits.value_or(fileImage.depth()) * fileImage.channels();
        if (r.mode) {
            DisplayResult drawn = RenderDisplayMode(fileImage, request);
            refusal = drawn.error;
            image = drawn.image;
        } else {
            image = fileImage.mat();
        }
    }
    if (!refusal.empty()) {
        Fail(s, refusal);
        return 1;
    }
    if (!WriteImage(s, r, image)) {
        return 1;
    }
    PrintWritten(s, r, image);
    return 0;
}

}  // namespace lumetra::cli
