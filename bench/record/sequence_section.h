// The sequence saver's sustained frames per second, format by format, next to the single-thread
// floor (a plain libtiff loop, a plain write loop, one worker for PNG) and the disk (dd).
#pragma once

namespace lumetra {

// Runs every side `runs` times, interleaved, and prints medians; returns the process status.
int RunSequenceSection(int runs);

}  // namespace lumetra
