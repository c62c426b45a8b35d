// ROIConfig.ini: any file gives a usable ROI list (defaults where it is damaged), and saving that
// list and reading it again gives the same list, whatever else the file holds.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "analysis/roi.h"
#include "fuzz_support.h"

using namespace lumetra;

namespace {

std::filesystem::path scratch;

// SaveRoiSet renames a temporary file over the target: a real folder, in memory when there is
// one.
std::string ScratchPath() {
    std::error_code ec;
    const std::filesystem::path root = std::filesystem::is_directory("/dev/shm", ec)
                                           ? std::filesystem::path("/dev/shm")
                                           : std::filesystem::temp_directory_path();
    scratch = root / ("lumetra-fuzz-roi-" + std::to_string(::getpid()));
    std::filesystem::create_directories(scratch);
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    });
    return (scratch / "ROIConfig.ini").string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = ScratchPath();
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const std::vector<RoiRect> rois = LoadRoiSet(path);
    FUZZ_CHECK(rois.size() <= static_cast<size_t>(kMaxRoiCount));
    FUZZ_CHECK(SaveRoiSet(path, rois));
    FUZZ_CHECK(LoadRoiSet(path) == rois);
    // The dialog's check runs on whatever was read.
    const auto bad = FirstUnreasonableRoi(rois, 640, 480);
    FUZZ_CHECK(!bad || *bad < rois.size());
    return 0;
}
