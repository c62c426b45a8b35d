// Splits row-wise image work over the cores: the rows are cut into small runs that a few threads
// (the calling thread among them) take in turn, so that a core slowed by other work does not hold
// up the frame. Every conversion that walks a whole frame goes through here.
#pragma once

#include <cstdint>
#include <functional>

namespace lumetra {

// Threads for rows x samplesPerRow samples: one per core, but none for less than a few ten
// thousand samples, where starting a thread costs more than it saves.
int AutoThreadCount(int rows, int64_t samplesPerRow);

// Runs work(begin, end) over runs of rows that together cover [0, rows) exactly once, on up to
// `threads` threads, and returns when all are done. threads <= 0 means one per core. Runs are
// short enough (at most rows / (8 x threads), at least one row) that every thread meets several
// run boundaries. A thread that cannot be started leaves its share to the others.
void ForEachRowBand(int rows, int threads, const std::function<void(int begin, int end)>& work);

}  // namespace lumetra
