// Writes the seed corpora: a few small valid inputs per target, made by the code that writes
// such files in earnest (the image savers, the board's configuration writer and JPEG encoder).
// Usage: lumetra_fuzz_seeds CORPUS_DIR
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "BoardConfig.h"
#include "ConfigurationFile.h"
#include "JpegEncoder.h"
#include "ParameterStore.h"
#include "recording/image_files.h"

namespace fs = std::filesystem;

namespace {

fs::path root;

void Put(const std::string& target, const std::string& name, const std::string& bytes) {
    const fs::path dir = root / target;
    fs::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary) << bytes;
}

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

cv::Mat Pattern(int rows, int cols, int type) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(7);
    rng.fill(m, cv::RNG::UNIFORM, 0, CV_MAT_DEPTH(type) == CV_16U ? 4096 : 256);
    return m;
}

bool SaveImages() {
    const fs::path scratch = fs::temp_directory_path() / "lumetra-fuzz-seeds";
    fs::create_directories(scratch);
    struct Seed {
        const char* name;
        int type;
        lumetra::TiffCompression compression;
    };
    const std::vector<Seed> seeds = {
        {"grey8.bmp", CV_8UC1, {}},
        {"bgr8.bmp", CV_8UC3, {}},
        {"grey8.jpg", CV_8UC1, {}},
        {"bgr8.jpg", CV_8UC3, {}},
        {"grey8.png", CV_8UC1, {}},
        {"grey16.png", CV_16UC1, {}},
        {"bgr16.png", CV_16UC3, {}},
        {"grey8.tif", CV_8UC1, {}},
        {"bgr8-lzw.tif", CV_8UC3, lumetra::TiffCompression::kLzw},
        {"grey16.tif", CV_16UC1, {}},
        {"bgr16-lzw.tif", CV_16UC3, lumetra::TiffCompression::kLzw},
        {"bgrc8.tif", CV_8UC4, {}},
        {"bgrc16.tif", CV_16UC4, {}},
        {"bgrc16-deflate.tif", CV_16UC4, lumetra::TiffCompression::kDeflate},
        {"grey16.pgm", CV_16UC1, {}},
        {"bgr8.ppm", CV_8UC3, {}},
    };
    for (const Seed& s : seeds) {
        lumetra::ImageSaveOptions options;
        options.tiffCompression = s.compression;
        options.dpiX = 300;
        const fs::path path = scratch / s.name;
        std::string error;
        if (!lumetra::SaveImageFile(Pattern(12, 16, s.type), path.string(), options, error)) {
            std::fprintf(stderr, "%s: %s\n", s.name, error.c_str());
            return false;
        }
        Put("image_load", s.name, Slurp(path));
    }
    fs::remove_all(scratch);
    return true;
}

// The frame store's input: shape byte, width / 8 - 1, height / 8 - 1, then the JPEG the board
// sends.
bool JpegFrames() {
    orvix::sim::JpegEncoder encoder;
    for (int channels : {1, 3}) {
        orvix::sim::FrameFormat f;
        f.width = 32;
        f.height = 24;
        f.imageType = channels == 1 ? 0 : 1;
        const cv::Mat frame = Pattern(int(f.height), int(f.width), CV_8UC(channels));
        std::vector<uint8_t> out(64 * 1024);
        const orvix::sim::JpegResult r = encoder.encode(frame.data, f, 80, out.data(), out.size());
        if (!r.ok) {
            std::fprintf(stderr, "jpeg: %s\n", r.error.c_str());
            return false;
        }
        std::string bytes;
        bytes += char(channels == 1 ? 0 : 1);
        bytes += char(f.width / 8 - 1);
        bytes += char(f.height / 8 - 1);
        bytes.append(reinterpret_cast<const char*>(out.data()), r.size);
        Put("jpeg_frame", channels == 1 ? "mono-32x24" : "colour-32x24", bytes);
        // Announced larger than it is.
        bytes[1] = char(f.width / 8);
        Put("jpeg_frame", channels == 1 ? "mono-wrong-size" : "colour-wrong-size", bytes);
    }
    return true;
}

void Configurations() {
    for (size_t board : {0u, 1u}) {
        const orvix::sim::BoardConfig config = orvix::sim::defaultBoard(board);
        orvix::sim::ParameterStore store(config);
        const std::string file = orvix::sim::serializeConfiguration(store, config.name);
        // Mode byte: bit 0 appends the checksum line, bit 1 picks the CoaXPress board.
        const char mode = static_cast<char>(board == 1 ? 2 : 0);
        Put("vlcf", "board" + std::to_string(board) + ".vlcf", std::string(1, mode) + file);
        const std::string body = file.substr(0, file.rfind("crc32="));
        Put("vlcf", "board" + std::to_string(board) + "-body",
            std::string(1, static_cast<char>(mode | 1)) + body);
    }
}

void Texts() {
    Put("sim_ini", "defaults.ini", "[board0]\n[board1]\n");
    Put("sim_ini", "faults.ini",
        "[board0]\nname = \"PCIe-CL Fault Simulator\"\nwidth = 64\nheight = 48\n"
        "open_fails = 0\nfail_set = 0x10000001, 0x10000002\nfail_get = 0x10000003\n"
        "signal_loss_after_ms = 1000\nstop_failures = 5\nsingle_shot_error = 42\n"
        "timeout_every = 7\n[board1]\nopen_fails = 1\n");
    Put("sim_ini", "streams.ini",
        "; two boards\n[board0]\nversion = 0x000A0100\nimage_type = 1\ndata_format = 12\n"
        "taps = 1\nbayer = 0\nfps = 1000\nbuffers = 4\npattern = scene\nlevel = 100\n"
        "defects = 1:2:255;3:4:0\npcie_link = 0x84\ncxp_speed = 5\nclock = virtual\n"
        "signal_rates = 1:1000;128:30\n[board1]\nname = PCIe-CXP4 Line\nscan_type = 1\n"
        "line_rate = 50000\npattern = static\n");

    Put("board_config_ini", "BoardConfig.ini",
        "[Config]\nSoftwareName=Lumetra\nLibraryName=OrvixBoard\nSoftwareBackground=\n"
        "SoftwareIcon=\n");
    Put("board_config_ini", "mixed.ini",
        "; comment\n[config]\r\nsoftwarename = Lumetra Line 3 \r\n# other\n[Other]\nkey=value\n"
        "[CONFIG]\nSoftwareBackground=/usr/share/lumetra/bg.bmp\n");

    Put("roi_config", "one.ini",
        "[Config]\nROICount=1\nROI0StartX=0\nROI0StartY=0\n"
        "ROI0StopX=100\nROI0StopY=100\n");
    Put("roi_config", "three.ini",
        "[Config]\nROICount=3\nROI0StartX=10\nROI0StartY=20\nROI0StopX=30\nROI0StopY=40\n"
        "ROI1StartX=+5\nROI1StartY= 6\nROI1StopX=70\nROI1StopY=80\nROI2StartX=-1\n"
        "ROI2StopX=x\nROI7StartX=1\n[Other]\nROICount=2\n");

    int n = 0;
    for (const char* text :
         {"1f", "1F", "DEADBEEF", "0", "123456789", "00000000ff", "", "0x10", "12 34", "-1"}) {
        Put("register_text", "field" + std::to_string(n++), text);
    }

    // Raw import: mode, height pick and value, bits pick, channels, then the file. Mode 0 takes
    // the width from the file's size.
    std::string raw;
    raw += char(0);
    raw += char(7);
    raw += char(3);  // height 4
    raw += char(2);  // 8 bits
    raw += char(1);  // 1 channel
    for (int i = 0; i < 32; ++i) {
        raw += char(i * 7);
    }
    Put("raw_import", "grey8-8x4", raw);
    raw[3] = char(6);  // 12 bits
    raw[4] = char(3);  // 3 channels
    Put("raw_import", "bgr12-2x4", raw + std::string(16, '\x0f'));
    raw[3] = char(10);  // 16 bits
    raw[4] = char(4);   // 4 channels
    Put("raw_import", "bgrc16-1x4", raw);
    raw[0] = char(1);  // width typed: pick 5, value 9 -> 10, file too short
    raw.insert(5, std::string("\x05\x09", 2));
    Put("raw_import", "wrong-size", raw);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    root = argv[1];
    Texts();
    Configurations();
    if (!SaveImages() || !JpegFrames()) {
        return 1;
    }
    return 0;
}
