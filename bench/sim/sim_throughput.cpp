// Prints how fast each pattern fills frames on one core, for the two built-in boards' formats.
// Usage: sim_throughput [seconds per case, default 1]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "BufferRing.h"
#include "FrameProducer.h"

using namespace orvix::sim;

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
    struct Shape {
        const char* name;
        FrameFormat format;
    };
    const Shape shapes[] = {
        {"1920x1200 8-bit RGGB", FrameFormat{1920, 1200, 0, 8, 2}},
        {"2560x2048 12-bit mono", FrameFormat{2560, 2048, 0, 12, 0}},
        {"1920x1200 8-bit BGR", FrameFormat{1920, 1200, 1, 8, 0}},
    };
    const Pattern patterns[] = {Pattern::Gradient, Pattern::Bars, Pattern::Checker, Pattern::Noise,
                                Pattern::Scene,    Pattern::Flat, Pattern::Static};
    for (const Shape& shape : shapes) {
        BufferRing ring;
        if (!ring.allocate(8, shape.format.frameBytes()).ok()) {
            return 1;
        }
        for (Pattern p : patterns) {
            ProducerSetup setup;
            setup.format = shape.format;
            setup.pattern = p;
            setup.level = 100;
            FrameProducer producer(setup, 8);
            uint64_t frames = 0;
            auto start = std::chrono::steady_clock::now();
            double elapsed = 0;
            while (elapsed < seconds) {
                for (int i = 0; i < 8; ++i, ++frames) {
                    uint32_t slot = static_cast<uint32_t>(frames % 8);
                    producer.produce(frames, slot, ring.data(slot), ring.bufferBytes());
                }
                elapsed =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            }
            double gbps = double(frames) * double(shape.format.frameBytes()) / elapsed / 1e9;
            // The static pattern only stamps the frame number after a buffer's first frame.
            std::printf("%-24s %-9s %10.0f frames/s %10.2f GB/s%s\n", shape.name, patternName(p),
                        double(frames) / elapsed, gbps,
                        p == Pattern::Static ? " (stamp only)" : "");
        }
    }
    return 0;
}
