#include "analysis/histogram_analytics.h"

#include <algorithm>
#include <cmath>

namespace lumetra {

namespace {

FrameFacts factsOf(const FrameCopy& f) {
    FrameFacts facts;
    facts.width = f.width();
    facts.height = f.height();
    facts.channels = f.channels();
    facts.depth = f.depth();
    facts.bitsPerPixel = f.bitsPerPixel();
    facts.shift = f.shift();
    facts.limit = ProfileScale(f.bitsPerPixel(), f.channels()).limit;
    return facts;
}

bool stillRunning(const std::atomic<bool>& flag) {
    return flag.load(std::memory_order_relaxed);
}

}  // namespace

// One of the two histogram workers: it counts the blocks of rows it takes into `work` without a
// lock and swaps it with `done` under the engine's lock, so the band that finishes second can sum
// both while the first already counts the next frame.
struct HistogramAnalytics::Band {
    Worker worker;
    HistogramScratch scratch;
    std::vector<HistogramSet> work;
    std::vector<HistogramSet> done;
    uint64_t doneGeneration = 0;
    uint64_t doneSequence = 0;
};

HistogramAnalytics::HistogramAnalytics(AnalyticsKind kind, MessageSink& sink, Prompt& prompt,
                                       BlockAllocator& allocator)
    : kind_(kind),
      sink_(sink),
      prompt_(prompt),
      slot_(allocator),
      published_(std::make_unique<HistogramResult>()) {
    const std::size_t sets = kind_ == AnalyticsKind::kRoi ? 2 : 1;
    for (auto& band : bands_) {
        band = std::make_unique<Band>();
        band->work.resize(sets);
        band->done.resize(sets);
    }
    StartWorkers();
}

HistogramAnalytics::~HistogramAnalytics() {
    Close();
}

void HistogramAnalytics::StartWorkers() {
    for (int i = 0; i < 2; ++i) {
        bands_[i]->worker.Start([this, i] { RunBand(i); });
    }
    rowWorker_.Start([this] { RunLine(true); });
    columnWorker_.Start([this] { RunLine(false); });
    if (kind_ == AnalyticsKind::kAdvanced) {
        columnFiguresWorker_.Start([this] { RunColumnFigures(); });
        frameFiguresWorker_.Start([this] { RunFrameFigures(); });
    }
}

void HistogramAnalytics::RequestClose() {
    for (auto& band : bands_) {
        band->worker.RequestStop();
    }
    rowWorker_.RequestStop();
    columnWorker_.RequestStop();
    columnFiguresWorker_.RequestStop();
    frameFiguresWorker_.RequestStop();
}

void HistogramAnalytics::Close() {
    RequestClose();
    for (auto& band : bands_) {
        band->worker.Stop();
    }
    rowWorker_.Stop();
    columnWorker_.Stop();
    columnFiguresWorker_.Stop();
    frameFiguresWorker_.Stop();
}

void HistogramAnalytics::noteFrameLocked() {
    ++generation_;
    const std::shared_ptr<const FrameCopy>& f = slot_.frame();
    if (!f) {
        return;
    }
    const FrameFacts facts = factsOf(*f);
    if (facts.channels != facts_.channels) {
        channel_ = 0;  // the selector is refilled and starts at its first entry
    }
    facts_ = facts;
}

bool HistogramAnalytics::NewFrame(FrameImage& frame) {
    bool copied = false;
    {
        std::lock_guard frameLock(frame.frameLock());
        std::lock_guard lock(mutex_);
        copied = slot_.Fill(frame.raw(), frame.format().bitsPerPixel);
        noteFrameLocked();
    }
    WakeFrameWorkers();
    if (!copied) {
        prompt_.information(kAllocateFailText);
    }
    return copied;
}

void HistogramAnalytics::Submit(std::shared_ptr<const FrameCopy> frame) {
    {
        std::lock_guard lock(mutex_);
        slot_.Put(std::move(frame));
        noteFrameLocked();
    }
    WakeFrameWorkers();
}

void HistogramAnalytics::WakeFrameWorkers() {
    for (auto& band : bands_) {
        band->worker.Wake();
    }
    rowWorker_.Wake();
    columnWorker_.Wake();
    if (kind_ == AnalyticsKind::kAdvanced && figuresActive()) {
        columnFiguresWorker_.Wake();
        frameFiguresWorker_.Wake();
    }
}

PixelArea HistogramAnalytics::areaLocked(const FrameCopy& f) const {
    if (kind_ == AnalyticsKind::kRoi) {
        return roi_.area(f.width(), f.height());
    }
    return {0, 0, f.width(), f.height()};
}

int HistogramAnalytics::SetRow(int row) {
    Clamped c;
    {
        std::lock_guard lock(mutex_);
        c = kind_ == AnalyticsKind::kRoi ? ClampToRoi(row, roi_.startY, roi_.stopY, roi_.empty())
                                         : ClampToFrame(row, facts_.height);
        row_ = c.value;
    }
    if (c.changed) {
        prompt_.information(kind_ == AnalyticsKind::kRoi ? kOutOfRoiRangeText : kOutOfRangeText);
    }
    rowWorker_.Wake();
    return c.value;
}

int HistogramAnalytics::SetColumn(int column) {
    Clamped c;
    {
        std::lock_guard lock(mutex_);
        c = kind_ == AnalyticsKind::kRoi ? ClampToRoi(column, roi_.startX, roi_.stopX, roi_.empty())
                                         : ClampToFrame(column, facts_.width);
        column_ = c.value;
    }
    if (c.changed) {
        prompt_.information(kind_ == AnalyticsKind::kRoi ? kOutOfRoiRangeText : kOutOfRangeText);
    }
    columnWorker_.Wake();
    return c.value;
}

void HistogramAnalytics::SetChannel(int channel) {
    {
        std::lock_guard lock(mutex_);
        channel_ = std::clamp(channel, 0, std::max(facts_.channels - 1, 0));
    }
    rowWorker_.Wake();
    columnWorker_.Wake();
    if (kind_ == AnalyticsKind::kAdvanced && figuresActive()) {
        columnFiguresWorker_.Wake();
        frameFiguresWorker_.Wake();
    }
}

int HistogramAnalytics::row() const {
    std::lock_guard lock(mutex_);
    return row_;
}

int HistogramAnalytics::column() const {
    std::lock_guard lock(mutex_);
    return column_;
}

int HistogramAnalytics::channel() const {
    std::lock_guard lock(mutex_);
    return channel_;
}

void HistogramAnalytics::SetRoi(const RoiRect& roi) {
    {
        std::lock_guard lock(mutex_);
        roi_ = roi;
        ++generation_;
    }
    WakeFrameWorkers();
}

RoiRect HistogramAnalytics::roi() const {
    std::lock_guard lock(mutex_);
    return roi_;
}

void HistogramAnalytics::StartStatistics() {
    if (kind_ != AnalyticsKind::kAdvanced) {
        return;
    }
    statisticsRunning_.store(true);
    columnFiguresWorker_.Wake();
    frameFiguresWorker_.Wake();
}

void HistogramAnalytics::StopStatistics() {
    statisticsRunning_.store(false);
}

bool HistogramAnalytics::statisticsRunning() const {
    return figuresActive();
}

void HistogramAnalytics::SetCompare(CompareMode mode, uint32_t value) {
    {
        std::lock_guard lock(mutex_);
        compareMode_ = mode;
        compareValue_ = value;
    }
    if (figuresActive()) {
        frameFiguresWorker_.Wake();
    }
}

void HistogramAnalytics::RunBand(int index) {
    Band& band = *bands_[index];
    std::shared_ptr<const FrameCopy> f;
    uint64_t generation = 0;
    uint64_t sequence = 0;
    PixelArea area;
    std::shared_ptr<RowBlocks> rows;
    {
        std::lock_guard lock(mutex_);
        f = slot_.frame();
        generation = generation_;
        sequence = slot_.sequence();
        if (band.doneGeneration == generation) {
            return;  // woken twice for one frame: its rows are counted, and counting is not
                     // repeatable once they are shared out
        }
        if (f) {
            area = areaLocked(*f);
            // The first band to count this generation hands out its rows to both.
            if (rowBlocksGeneration_ != generation || !rowBlocks_) {
                rowBlocks_ = std::make_shared<RowBlocks>(area, f->width());
                rowBlocksGeneration_ = generation;
            }
            rows = rowBlocks_;
        }
    }
    if (!f) {
        return;  // the copy failed: nothing for this frame
    }
    for (HistogramSet& set : band.work) {
        set.Clear(BinsFor(*f));
    }
    if (!CountHistograms(*f, area, kind_ == AnalyticsKind::kRoi, band.work.data(), band.scratch,
                         &band.worker.runningFlag(), observer(), rows.get())) {
        return;
    }

    bool publish = false;
    {
        std::lock_guard lock(mutex_);
        std::swap(band.work, band.done);
        band.doneGeneration = generation;
        band.doneSequence = sequence;
        const Band& other = *bands_[1 - index];
        HistogramResult& r = *published_;
        if (other.doneGeneration == generation && generation > publishedGeneration_) {
            const Band& first = *bands_[0];
            const Band& second = *bands_[1];
            if (kind_ == AnalyticsKind::kRoi) {
                r.sets[kEvenColumns].CopyFrom(first.done[0]);
                r.sets[kEvenColumns].Add(second.done[0]);
                r.sets[kOddColumns].CopyFrom(first.done[1]);
                r.sets[kOddColumns].Add(second.done[1]);
                r.sets[kAllColumns].CopyFrom(r.sets[kEvenColumns]);
                r.sets[kAllColumns].Add(r.sets[kOddColumns]);
            } else {
                r.sets[kAllColumns].CopyFrom(first.done[0]);
                r.sets[kAllColumns].Add(second.done[0]);
            }
            r.frame = factsOf(*f);
            r.means = ChannelMeans(
                r.sets[kAllColumns], f->channels(),
                static_cast<uint64_t>(area.width()) * static_cast<uint64_t>(area.height()));
            r.sequence = sequence;
            publishedGeneration_ = generation;
            publish = true;
        }
    }
    if (publish) {
        sink_.post(analysis_msg::kHistogramReady, 0, static_cast<intptr_t>(sequence));
    }
}

void HistogramAnalytics::RunLine(bool isRow) {
    Worker& worker = isRow ? rowWorker_ : columnWorker_;
    std::shared_ptr<const FrameCopy> f;
    uint64_t sequence = 0;
    int index = 0;
    int channel = 0;
    PixelArea area;
    {
        std::lock_guard lock(mutex_);
        f = slot_.frame();
        sequence = slot_.sequence();
        index = isRow ? row_ : column_;
        channel = channel_;
        if (f) {
            area = areaLocked(*f);
        }
    }
    if (!f) {
        return;
    }
    if (observer_) {
        observer_(index);
    }
    LineResult result;
    result.sequence = sequence;
    result.index = index;
    result.channel = channel;
    const bool finished = isRow ? RowStatistics(*f, index, channel, area.left, area.right,
                                                result.statistics, &worker.runningFlag())
                                : ColumnStatistics(*f, index, channel, area.top, area.bottom,
                                                   result.statistics, &worker.runningFlag());
    if (!finished) {
        return;
    }
    if (kind_ == AnalyticsKind::kRoi) {
        result.ratio = RatioOf(result.statistics);
    }
    {
        std::lock_guard lock(mutex_);
        (isRow ? rowResult_ : columnResult_) = result;
    }
    sink_.post(analysis_msg::kStatisticsReady, isRow ? kRowStatistics : kColumnStatistics,
               static_cast<intptr_t>(sequence));
}

void HistogramAnalytics::RunColumnFigures() {
    if (!figuresActive()) {
        return;
    }
    std::shared_ptr<const FrameCopy> f;
    uint64_t sequence = 0;
    int channel = 0;
    {
        std::lock_guard lock(mutex_);
        f = slot_.frame();
        sequence = slot_.sequence();
        channel = channel_;
    }
    if (!f) {
        return;
    }
    channel = std::min(channel, std::max(f->channels() - 1, 0));
    const int w = f->width();
    const int h = f->height();
    std::vector<uint64_t> sums(static_cast<std::size_t>(w), 0);
    std::vector<uint64_t> squares(static_cast<std::size_t>(w), 0);
    for (int y = 0; y < h; ++y) {
        if (!stillRunning(columnFiguresWorker_.runningFlag()) || !figuresActive()) {
            return;
        }
        if (observer_) {
            observer_(y);
        }
        for (int x = 0; x < w; ++x) {
            const uint64_t v = f->sample(x, y, channel);
            sums[static_cast<std::size_t>(x)] += v;
            squares[static_cast<std::size_t>(x)] += v * v;
        }
    }
    ColumnFigures figures;
    figures.sequence = sequence;
    figures.channel = channel;
    figures.average.resize(static_cast<std::size_t>(w), 0.0);
    figures.rms.resize(static_cast<std::size_t>(w), 0.0);
    if (h > 0) {
        for (std::size_t x = 0; x < static_cast<std::size_t>(w); ++x) {
            const double average = static_cast<double>(sums[x]) / h;
            figures.average[x] = average;
            figures.rms[x] =
                std::sqrt(std::fabs(static_cast<double>(squares[x]) / h - average * average));
        }
    }
    {
        std::lock_guard lock(mutex_);
        columnFigures_ = std::move(figures);
    }
    sink_.post(analysis_msg::kStatisticsReady, kColumnFigures, static_cast<intptr_t>(sequence));
}

void HistogramAnalytics::RunFrameFigures() {
    if (!figuresActive()) {
        return;
    }
    std::shared_ptr<const FrameCopy> f;
    FrameFigures figures;
    {
        std::lock_guard lock(mutex_);
        f = slot_.frame();
        figures.sequence = slot_.sequence();
        figures.channel = channel_;
        figures.mode = compareMode_;
        figures.value = compareValue_;
    }
    if (!f) {
        return;
    }
    figures.channel = std::min(figures.channel, std::max(f->channels() - 1, 0));
    for (int y = 0; y < f->height(); ++y) {
        if (!stillRunning(frameFiguresWorker_.runningFlag()) || !figuresActive()) {
            return;
        }
        if (observer_) {
            observer_(y);
        }
        for (int x = 0; x < f->width(); ++x) {
            const uint32_t v = f->sample(x, y, figures.channel);
            figures.statistics.Add(v);
            figures.greater += v > figures.value;
            figures.less += v < figures.value;
        }
    }
    figures.statistics.Finish();
    figures.equal = figures.statistics.count - figures.greater - figures.less;
    const uint64_t sequence = figures.sequence;
    {
        std::lock_guard lock(mutex_);
        frameFigures_ = std::move(figures);
    }
    sink_.post(analysis_msg::kStatisticsReady, kFrameFigures, static_cast<intptr_t>(sequence));
}

HistogramResult HistogramAnalytics::histograms() const {
    std::lock_guard lock(mutex_);
    HistogramResult copy;
    copy.sequence = published_->sequence;
    copy.frame = published_->frame;
    copy.means = published_->means;
    for (std::size_t i = 0; i < copy.sets.size(); ++i) {
        copy.sets[i].CopyFrom(published_->sets[i]);
    }
    return copy;
}

LineResult HistogramAnalytics::rowStatistics() const {
    std::lock_guard lock(mutex_);
    return rowResult_;
}

LineResult HistogramAnalytics::columnStatistics() const {
    std::lock_guard lock(mutex_);
    return columnResult_;
}

ColumnFigures HistogramAnalytics::columnFigures() const {
    std::lock_guard lock(mutex_);
    return columnFigures_;
}

FrameFigures HistogramAnalytics::frameFigures() const {
    std::lock_guard lock(mutex_);
    return frameFigures_;
}

FrameFacts HistogramAnalytics::frameFacts() const {
    std::lock_guard lock(mutex_);
    return facts_;
}

}  // namespace lumetra
