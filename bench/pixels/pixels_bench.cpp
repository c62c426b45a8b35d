// Prints the pixel pipeline's speeds side by side with OpenCV's, in one run, so that both meet the
// same machine load. Each figure is the median of rounds in which the contenders alternate.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "imaging/display_modes.h"
#include "imaging/image_buffer.h"
#include "imaging/large_demosaic.h"
#include "imaging/pixel_conversion.h"

namespace {

using namespace lumetra;

constexpr int kWidth = 4096;
constexpr int kHeight = 3072;
constexpr double kMpix = kWidth * double{kHeight} / 1e6;
constexpr int kRounds = 21;

double Seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Median Mpix/s of each contender, run in alternation after one warm-up each.
std::vector<double> Race(const std::vector<std::function<void()>>& contenders) {
    std::vector<std::vector<double>> times(contenders.size());
    for (const auto& c : contenders) {
        c();
    }
    for (int round = 0; round < kRounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            times[i].push_back(Seconds(contenders[i]));
        }
    }
    std::vector<double> rates;
    for (const auto& t : times) {
        rates.push_back(kMpix / Median(t));
    }
    return rates;
}

void DemosaicFigures(int depth) {
    ImageBuffer raw, ours;
    raw.Create(depth, 1, kWidth, kHeight);
    ours.Create(depth, 3, kWidth, kHeight);
    cv::Mat r = raw.mat();
    cv::RNG(depth).fill(r, cv::RNG::UNIFORM, 0, depth == 8 ? 256 : 4096);
    cv::Mat theirs(kHeight, kWidth, CV_MAKETYPE(depth == 8 ? CV_8U : CV_16U, 3));
    cv::Mat out = ours.mat();
    const int code = cv::COLOR_BayerBG2BGR;

    cv::setNumThreads(1);
    const auto single =
        Race({[&] { cv::cvtColor(r, theirs, code); }, [&] { DemosaicBilinear(r, out, code, 1); }});
    cv::setNumThreads(-1);  // OpenCV's default: every core
    const int cvThreads = cv::getNumThreads();
    const auto both =
        Race({[&] { cv::cvtColor(r, theirs, code); }, [&] { DemosaicBilinear(r, out, code, 0); }});
    const bool identical = cv::norm(theirs, out, cv::NORM_INF) == 0;

    std::printf(
        "demosaic %2d-bit  1 thread : OpenCV %7.0f  ours %7.0f Mpix/s  ratio %.2f"
        "  (goal 0.80)\n",
        depth, single[0], single[1], single[1] / single[0]);
    std::printf(
        "demosaic %2d-bit  %d threads: OpenCV %7.0f  ours %7.0f Mpix/s  ratio %.2f"
        "  (goal 1.00; vs OpenCV on 1 thread %.2f)\n",
        depth, cvThreads, both[0], both[1], both[1] / both[0], both[1] / single[0]);
    std::printf("demosaic %2d-bit  identical to cv::cvtColor: %s\n", depth,
                identical ? "yes" : "NO");
}

void LumaChromaFigures(int depth) {
    ImageBuffer raw, aux;
    raw.Create(depth, 4, kWidth, kHeight);
    aux.Create(depth, 4, kWidth, kHeight);
    cv::Mat r = raw.mat();
    cv::RNG(depth + 1).fill(r, cv::RNG::UNIFORM, 0, depth == 8 ? 256 : 4096);
    const int bits = depth == 8 ? 32 : 48;
    const auto rates = Race({[&] { LumaChromaImage(raw, aux, bits, 1); },
                             [&] { LumaChromaImage(raw, aux, bits, 0); },
                             [&] { CCrCbToRgb(aux, bits, 1); }, [&] { CCrCbToRgb(aux, bits, 0); }});
    std::printf("YCrCb of RGBC %2d-bit: %7.0f Mpix/s on 1 thread, %7.0f on every core\n", depth,
                rates[0], rates[1]);
    std::printf("CCrCb->RGB    %2d-bit: %7.0f Mpix/s on 1 thread, %7.0f on every core\n", depth,
                rates[2], rates[3]);
}

void PhasePlaneFigures(int depth) {
    ImageBuffer raw, aux;
    raw.Create(depth, 1, kWidth, kHeight);
    aux.Create(depth, 1, kWidth / 2, kHeight / 2);
    cv::Mat r = raw.mat();
    cv::RNG(depth + 2).fill(r, cv::RNG::UNIFORM, 0, depth == 8 ? 256 : 4096);
    const auto rates = Race({[&] { BayerPhasePlane(raw, aux, kModeChannel0); },
                             [&] { BayerPhasePlane(raw, aux, kModeChannel3); }});
    std::printf("phase plane   %2d-bit: %7.0f Mpix/s (Channel0), %7.0f (Channel3), frame pixels\n",
                depth, rates[0], rates[1]);
}

}  // namespace

int main() {
    std::printf("%d x %d frames, %u cores, median of %d rounds\n", kWidth, kHeight,
                std::thread::hardware_concurrency(), kRounds);
    DemosaicFigures(8);
    DemosaicFigures(16);
    LumaChromaFigures(8);
    LumaChromaFigures(16);
    PhasePlaneFigures(8);
    PhasePlaneFigures(16);
    return 0;
}
