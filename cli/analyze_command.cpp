// lumetra-cli analyze: the analysis engines on an image file or a grabbed frame, driven the way
// the dialogs drive them (frame copy, workers, posted results).
#include <QJsonArray>
#include <QJsonObject>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "analysis/bad_pixel_detector.h"
#include "analysis/histogram_analytics.h"
#include "analysis/line_profile.h"
#include "cli/arguments.h"
#include "cli/cli_output.h"
#include "recording/image_files.h"

namespace lumetra::cli {
namespace {

// Long enough for any frame the boards make; only a hung worker gets near it.
constexpr std::chrono::seconds kResultTimeout{120};

// The dialog's side of the engines: posted messages wake the main thread, which checks the results.
class WaitingSink final : public MessageSink {
  public:
    void post(uint32_t, intptr_t, intptr_t) override {
        {
            std::lock_guard lock(mutex_);
            ++posts_;
        }
        cv_.notify_all();
    }
    // Waits until done() holds, checking it again after every posted message (results are
    // published before they are posted).
    bool WaitFor(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + kResultTimeout;
        std::unique_lock lock(mutex_);
        for (;;) {
            const uint64_t seen = posts_;
            lock.unlock();
            const bool finished = done();
            lock.lock();
            if (finished) {
                return true;
            }
            if (!cv_.wait_until(lock, deadline, [&] { return posts_ != seen; })) {
                return false;
            }
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    uint64_t posts_ = 0;
};

struct Request {
    std::string file;
    bool grab = false;
    std::optional<int64_t> bits;
    std::optional<int64_t> row;
    std::optional<int64_t> column;
    int channel = 0;
    std::optional<RoiRect> roi;
    std::optional<BadPixelSettings> bad;
    int frames = 1;
    std::string csv;
    std::string csvHorizontal;
    std::string csvVertical;
    std::optional<int64_t> profileRow;
};

std::optional<std::vector<int64_t>> numbers(const std::string& text, std::size_t count) {
    std::vector<int64_t> out;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ',')) {
        const auto v = ParseInteger(item);
        if (!v) {
            return std::nullopt;
        }
        out.push_back(*v);
    }
    if (out.size() != count) {
        return std::nullopt;
    }
    return out;
}

bool fitsInt(int64_t v) {
    return v >= INT32_MIN && v <= INT32_MAX;
}

std::optional<Request> parse(Session& s) {
    Arguments args("analyze", s.options.args);
    Request r;
    r.grab = args.Flag("--grab");
    r.bits = args.Integer("--bits");
    r.row = args.Integer("--row");
    r.column = args.Integer("--col");
    const auto channel = args.Integer("--channel");
    const auto roi = args.Value("--roi");
    const auto bad = args.Value("--bad");
    const auto frames = args.Integer("--frames");
    r.csv = args.Value("--csv").value_or("");
    r.csvHorizontal = args.Value("--csv-horizontal").value_or("");
    r.csvVertical = args.Value("--csv-vertical").value_or("");
    r.profileRow = args.Integer("--profile-row");
    const std::vector<std::string> files = args.Positional();
    if (!args.Finish()) {
        return std::nullopt;
    }
    if (files.size() + (r.grab ? 1 : 0) != 1) {
        args.Error("give one image file or --grab");
        return std::nullopt;
    }
    if (!files.empty()) {
        r.file = files.front();
    }
    for (const auto* v : {&r.row, &r.column, &r.profileRow}) {
        if (*v && !fitsInt(**v)) {
            args.Error("a row or column must be a 32-bit number");
            return std::nullopt;
        }
    }
    if (channel) {
        if (*channel < 0 || *channel > 3) {
            args.Error("--channel takes 0 (blue or gray), 1 (green), 2 (red) or 3 (clear)");
            return std::nullopt;
        }
        r.channel = static_cast<int>(*channel);
    }
    if (r.bits && (*r.bits < 8 || *r.bits > 16)) {
        args.Error("--bits takes the bits per sample, 8 to 16");
        return std::nullopt;
    }
    if (roi) {
        const auto v = numbers(*roi, 4);
        if (!v || !fitsInt((*v)[0]) || !fitsInt((*v)[1]) || !fitsInt((*v)[2]) ||
            !fitsInt((*v)[3])) {
            args.Error("--roi takes X0,Y0,X1,Y1 (stops inclusive)");
            return std::nullopt;
        }
        r.roi = RoiRect{static_cast<int>((*v)[0]), static_cast<int>((*v)[1]),
                        static_cast<int>((*v)[2]), static_cast<int>((*v)[3])};
    }
    if (bad) {
        const auto v = numbers(*bad, 5);
        if (!v || !fitsInt((*v)[3]) || !fitsInt((*v)[4]) || !fitsInt((*v)[0])) {
            args.Error("--bad takes MODE,LOW,HIGH,HCOUNT,VCOUNT");
            return std::nullopt;
        }
        BadPixelSettings b;
        b.mode = static_cast<int>((*v)[0]);
        b.low = (*v)[1];
        b.high = (*v)[2];
        b.horizontalCount = static_cast<int>((*v)[3]);
        b.verticalCount = static_cast<int>((*v)[4]);
        r.bad = b;
    }
    if (frames) {
        if (!r.bad || !r.grab || *frames < 1 || *frames > 100000) {
            args.Error("--frames N (1 to 100000) goes with --bad and --grab");
            return std::nullopt;
        }
        r.frames = static_cast<int>(*frames);
    }
    if ((!r.csv.empty() || !r.csvHorizontal.empty() || !r.csvVertical.empty()) && !r.bad) {
        args.Error("--csv goes with --bad");
        return std::nullopt;
    }
    return r;
}

// Reads an image file into a Frame image of its own; the reason when it cannot be read.
std::string loadImage(const Request& r, FrameImage& frame, MessageLog& log) {
    std::error_code ec;
    if (!std::filesystem::exists(r.file, ec)) {
        return "cannot read " + r.file + ": no such file";
    }
    if (std::filesystem::is_directory(r.file, ec)) {
        return "cannot read " + r.file + ": it is a directory";
    }
    if (!std::ifstream(r.file, std::ios::binary)) {
        return "cannot read " + r.file + ": permission denied";
    }
    // The still-image readers: a damaged or truncated file is refused, never analysed half grey.
    cv::Mat m;
    std::string error;
    if (!LoadImageFile(r.file, m, error)) {
        return "cannot read " + r.file + ": " + error;
    }
    const int sampleBits = m.depth() == CV_8U ? 8 : static_cast<int>(r.bits.value_or(16));
    if (m.depth() == CV_8U && r.bits && *r.bits != 8) {
        return "cannot read " + r.file + ": --bits does not apply to an 8-bit image";
    }
    if (m.depth() == CV_16U && sampleBits == 8) {
        return "cannot read " + r.file + ": a 16-bit image needs --bits 9 to 16";
    }
    FrameFormat format;
    format.width = m.cols;
    format.height = m.rows;
    format.channels = m.channels();
    format.bitsPerPixel = sampleBits * m.channels();
    frame.setFormat(format);
    BayerSettings noBayer;
    std::lock_guard lock(frame.frameLock());
    if (!frame.Allocate(format.bitsPerPixel, noBayer, log)) {
        return "cannot read " + r.file + ": no memory for a " + std::to_string(m.cols) + " x " +
               std::to_string(m.rows) + " frame";
    }
    m.copyTo(frame.raw().mat());
    return {};
}

// A single shot on the session's board, opened on first use.
bool grabFrame(Session& s) {
    if (!s.document && !s.OpenDocument()) {
        NoBoard(s);
        return false;
    }
    return s.document->hasBoard() && s.SingleShot();
}

const char* kChannelNames[kHistogramChannels] = {"Red", "Green", "Blue", "Clear", "Gray"};

std::vector<int> channelsShown(int frameChannels) {
    if (frameChannels == 1) {
        return {kGray};
    }
    if (frameChannels == 3) {
        return {kRed, kGreen, kBlue, kGray};
    }
    return {kRed, kGreen, kBlue, kClear, kGray};
}

QJsonObject histogramJson(const HistogramSet& set, int c) {
    uint64_t total = 0;
    int lowest = -1;
    int highest = -1;
    int peak = 0;
    uint64_t peakCount = 0;
    for (int b = 0; b < set.bins(); ++b) {
        const uint64_t n = set.at(c, b);
        if (n == 0) {
            continue;
        }
        total += n;
        lowest = lowest < 0 ? b : lowest;
        highest = b;
        if (n > peakCount) {
            peak = b;
            peakCount = n;
        }
    }
    QJsonObject o;
    o["total"] = static_cast<qint64>(total);
    o["lowest"] = lowest;
    o["highest"] = highest;
    o["peak"] = peak;
    o["peakCount"] = static_cast<qint64>(peakCount);
    o["mean"] = total == 0 ? 0.0 : static_cast<double>(set.Sum(c)) / static_cast<double>(total);
    return o;
}

QJsonObject meansJson(const std::array<uint64_t, 4>& means, int channels) {
    QJsonObject o;
    if (channels == 1) {
        o["Gray"] = static_cast<qint64>(means[kRed]);
        return o;
    }
    o["Red"] = static_cast<qint64>(means[kRed]);
    o["Green"] = static_cast<qint64>(means[kGreen]);
    o["Blue"] = static_cast<qint64>(means[kBlue]);
    if (channels == 4) {
        o["Clear"] = static_cast<qint64>(means[kClear]);
    }
    return o;
}

const char* verdictName(Verdict v) {
    switch (v) {
        case Verdict::kPass:
            return "pass";
        case Verdict::kFail:
            return "fail";
        default:
            return "none";
    }
}

QJsonObject lineJson(const LineResult& r, bool withRatio) {
    const LineStatistics& st = r.statistics;
    const StatisticsTexts t = FormatStatistics(st);
    QJsonObject o;
    o["index"] = r.index;
    o["channel"] = r.channel;
    o["count"] = static_cast<qint64>(st.count);
    o["minimum"] = static_cast<qint64>(st.minimum);
    o["maximum"] = static_cast<qint64>(st.maximum);
    o["range"] = static_cast<qint64>(st.range);
    o["average"] = st.average;
    o["deviation"] = st.deviation;
    QJsonObject shown;
    shown["Minimum Value:"] = QString::fromStdString(t.minimum);
    shown["Maximum Value:"] = QString::fromStdString(t.maximum);
    shown["Max - Min:"] = QString::fromStdString(t.range);
    shown["Average Value:"] = QString::fromStdString(t.average);
    shown["Standard Deviation:"] = QString::fromStdString(t.deviation);
    if (withRatio) {
        o["ratio"] = r.ratio.ratio;
        o["verdict"] = verdictName(r.ratio.verdict);
        shown["Max / Min:"] = QString::fromStdString(FormatRatio(r.ratio.ratio));
    }
    o["shown"] = shown;
    return o;
}

void printLine(const char* what, const LineResult& r, bool withRatio) {
    const StatisticsTexts t = FormatStatistics(r.statistics);
    std::printf("%-13s%6d, channel %d: min %s max %s range %s average %s deviation %s", what,
                r.index, r.channel, t.minimum.c_str(), t.maximum.c_str(), t.range.c_str(),
                t.average.c_str(), t.deviation.c_str());
    if (withRatio) {
        std::printf(" ratio %s %s", FormatRatio(r.ratio.ratio).c_str(),
                    verdictName(r.ratio.verdict));
    }
    std::printf("\n");
}

// Runs a histogram engine over the frame with the requested row, column and channel; false when
// the results did not come.
bool runAnalytics(HistogramAnalytics& engine, WaitingSink& sink, FrameImage& frame,
                  const Request& r, int defaultRow, int defaultColumn) {
    if (!engine.NewFrame(frame)) {
        return false;
    }
    engine.SetChannel(r.channel);
    const int row = engine.SetRow(static_cast<int>(r.row.value_or(defaultRow)));
    const int column = engine.SetColumn(static_cast<int>(r.column.value_or(defaultColumn)));
    const int channel = engine.channel();
    return sink.WaitFor([&] {
        const LineResult rr = engine.rowStatistics();
        const LineResult cr = engine.columnStatistics();
        uint64_t published = 0;
        engine.ReadHistograms([&](const HistogramResult& h) { published = h.sequence; });
        return published == 1 && rr.sequence == 1 && rr.index == row && rr.channel == channel &&
               cr.sequence == 1 && cr.index == column && cr.channel == channel;
    });
}

QJsonArray recordsJson(const std::vector<BadPixelRecord>& list, BadPixelList which) {
    constexpr std::size_t kListed = 1000;
    QJsonArray out;
    for (std::size_t i = 0; i < list.size() && i < kListed; ++i) {
        const BadPixelRecord& rec = list[i];
        QJsonArray a;
        if (which == BadPixelList::kSingle) {
            a.append(static_cast<qint64>(rec.key & 0xFFFF));
            a.append(static_cast<qint64>(rec.key >> 16));
        } else {
            a.append(static_cast<qint64>(rec.key >> 16));
            a.append(static_cast<qint64>(rec.key & 0xFFFF));
            a.append(static_cast<qint64>(rec.count));
        }
        out.append(a);
    }
    return out;
}

}  // namespace

int RunAnalyze(Session& s) {
    const std::optional<Request> parsed = parse(s);
    if (!parsed) {
        return 2;
    }
    const Request& r = *parsed;
    QJsonObject out;
    auto fail = [&](const std::string& text) {
        s.log.log(text + "\n");
        if (s.options.json) {
            out["ok"] = false;
            out["error"] = QString::fromStdString(text);
            out["log"] = LogArray(s);
            PrintJson(out);
        }
        return 1;
    };

    std::unique_ptr<FrameImage> fileFrame;
    FrameImage* frame = nullptr;
    if (r.grab) {
        if (!grabFrame(s)) {
            return s.document && s.document->hasBoard() ? fail("the single shot brought no frame")
                                                        : 1;
        }
        frame = &s.document->frameImage();
        out["source"] = "grab";
    } else {
        fileFrame = std::make_unique<FrameImage>();
        const std::string error = loadImage(r, *fileFrame, s.log);
        if (!error.empty()) {
            return fail(error);
        }
        frame = fileFrame.get();
        out["source"] = QString::fromStdString(r.file);
    }

    // The frame as the tools see it.
    FrameCopy copy;
    {
        std::lock_guard lock(frame->frameLock());
        if (!FillFrameCopy(frame->raw(), frame->format().bitsPerPixel, copy)) {
            return fail(std::string(kAllocateFailText));
        }
    }
    const int width = copy.width();
    const int height = copy.height();
    out["width"] = width;
    out["height"] = height;
    out["channels"] = copy.channels();
    out["bitsPerPixel"] = copy.bitsPerPixel();
    out["shift"] = copy.shift();

    WaitingSink sink;
    HistogramAnalytics analytics(AnalyticsKind::kBasic, sink, s.prompt);
    if (!runAnalytics(analytics, sink, *frame, r, 0, 0)) {
        return fail("the histogram workers gave no result");
    }
    const HistogramResult h = analytics.histograms();
    out["bins"] = h.sets[kAllColumns].bins();
    QJsonObject histograms;
    for (int c : channelsShown(copy.channels())) {
        histograms[kChannelNames[c]] = histogramJson(h.sets[kAllColumns], c);
    }
    out["histograms"] = histograms;
    out["means"] = meansJson(h.means, copy.channels());
    const LineResult rowResult = analytics.rowStatistics();
    const LineResult columnResult = analytics.columnStatistics();
    if (r.row) {
        out["row"] = lineJson(rowResult, false);
    }
    if (r.column) {
        out["column"] = lineJson(columnResult, false);
    }
    analytics.Close();

    std::optional<LineResult> roiRow;
    std::optional<LineResult> roiColumn;
    if (r.roi) {
        const std::string_view refused = CheckRoiEdit(*r.roi, width, height);
        if (!refused.empty()) {
            s.prompt.information(refused);
            return fail("the ROI was not set");
        }
        HistogramAnalytics roiEngine(AnalyticsKind::kRoi, sink, s.prompt);
        roiEngine.SetRoi(*r.roi);
        if (!runAnalytics(roiEngine, sink, *frame, r, r.roi->startY, r.roi->startX)) {
            return fail("the ROI workers gave no result");
        }
        const HistogramResult rh = roiEngine.histograms();
        QJsonObject o;
        o["rect"] = QJsonArray{r.roi->startX, r.roi->startY, r.roi->stopX, r.roi->stopY};
        o["bins"] = rh.frame.shownBins();
        static const char* kSetNames[3] = {"Frame", "X Odd", "X Even"};
        QJsonObject sets;
        for (int i = 0; i < 3; ++i) {
            QJsonObject set;
            for (int c : channelsShown(copy.channels())) {
                set[kChannelNames[c]] = histogramJson(rh.sets[static_cast<std::size_t>(i)], c);
            }
            sets[kSetNames[i]] = set;
        }
        o["sets"] = sets;
        o["means"] = meansJson(rh.means, copy.channels());
        roiRow = roiEngine.rowStatistics();
        roiColumn = roiEngine.columnStatistics();
        o["row"] = lineJson(*roiRow, true);
        o["column"] = lineJson(*roiColumn, true);
        out["roi"] = o;
        roiEngine.Close();
    }

    bool ok = true;
    if (r.bad) {
        BadPixelSettings settings = *r.bad;
        settings.frames = r.frames;
        if (r.roi) {
            settings.useRoi = true;
            settings.roi = r.roi->area(width, height);
        }
        WaitingSink badSink;
        BadPixelDetector detector(badSink, s.prompt);
        if (!detector.Calc(settings, *frame)) {
            return fail("the bad-pixel search did not start");
        }
        // Several frames: grab each in turn and offer it, as frames arrive in the workbench.
        for (int i = 0; i < r.frames && r.frames > 1 && detector.running(); ++i) {
            if (!grabFrame(s)) {
                return fail("the single shot brought no frame");
            }
            const int remaining = detector.remainingFrames();
            if (!detector.NewFrame(*frame)) {
                return fail("the bad-pixel search did not take the frame");
            }
            badSink.WaitFor(
                [&] { return detector.remainingFrames() < remaining || !detector.running(); });
        }
        if (!badSink.WaitFor([&] { return !detector.running(); })) {
            return fail("the bad-pixel search gave no result");
        }
        const BadPixelLists lists = detector.results();
        if (lists.capped) {
            s.prompt.information(kTooMuchBadDataText);
        }
        QJsonObject o;
        o["single"] = static_cast<qint64>(lists.single.size());
        o["horizontal"] = static_cast<qint64>(lists.horizontal.size());
        o["vertical"] = static_cast<qint64>(lists.vertical.size());
        o["capped"] = lists.capped;
        o["singleList"] = recordsJson(lists.single, BadPixelList::kSingle);
        o["horizontalList"] = recordsJson(lists.horizontal, BadPixelList::kHorizontal);
        o["verticalList"] = recordsJson(lists.vertical, BadPixelList::kVertical);
        const std::pair<const std::string*, BadPixelList> exports[] = {
            {&r.csv, BadPixelList::kSingle},
            {&r.csvHorizontal, BadPixelList::kHorizontal},
            {&r.csvVertical, BadPixelList::kVertical}};
        for (const auto& [path, which] : exports) {
            if (path->empty()) {
                continue;
            }
            const std::string result = ExportBadPixelCsv(*path, lists.list(which), which);
            if (result == kNoBadPixelDataText) {
                s.prompt.information(result);  // nothing to write is not a failure
            } else if (!result.empty()) {
                s.log.log(result + "\n");
                ok = false;
            }
        }
        out["badPixels"] = o;
    }

    if (r.profileRow) {
        const Clamped row = ClampToFrame(static_cast<int>(*r.profileRow), height);
        if (row.changed) {
            s.prompt.information(kOutOfRangeText);
        }
        QJsonArray samples;
        for (const ProfileSample& p : RowProfile(copy, row.value)) {
            QJsonArray a{p.position};
            for (int c = 0; c < copy.channels(); ++c) {
                a.append(p.values[static_cast<std::size_t>(c)]);
            }
            samples.append(a);
        }
        QJsonObject o;
        o["row"] = row.value;
        o["samples"] = samples;
        out["profile"] = o;
    }

    out["ok"] = ok;
    if (s.options.json) {
        out["log"] = LogArray(s);
        PrintJson(out);
        return ok ? 0 : 1;
    }

    std::printf("source        %s\n", out["source"].toString().toUtf8().constData());
    std::printf("size          %d x %d, %d channel%s, %d bits per pixel\n", width, height,
                copy.channels(), copy.channels() == 1 ? "" : "s", copy.bitsPerPixel());
    std::printf("bins          %d\n", h.sets[kAllColumns].bins());
    for (int c : channelsShown(copy.channels())) {
        const QJsonObject o = histograms[kChannelNames[c]].toObject();
        std::printf("%-13s total %lld, bins %d..%d, peak %d (%lld), mean %.2f\n", kChannelNames[c],
                    static_cast<long long>(o["total"].toInteger()), o["lowest"].toInt(),
                    o["highest"].toInt(), o["peak"].toInt(),
                    static_cast<long long>(o["peakCount"].toInteger()), o["mean"].toDouble());
    }
    const QJsonObject means = out["means"].toObject();
    for (const QString& k : means.keys()) {
        std::printf("mean %-8s %lld\n", k.toUtf8().constData(),
                    static_cast<long long>(means[k].toInteger()));
    }
    if (r.row) {
        printLine("row", rowResult, false);
    }
    if (r.column) {
        printLine("column", columnResult, false);
    }
    if (roiRow) {
        printLine("roi row", *roiRow, true);
        printLine("roi column", *roiColumn, true);
    }
    if (out.contains("badPixels")) {
        const QJsonObject o = out["badPixels"].toObject();
        std::printf("bad pixels    single %lld, horizontal clusters %lld, vertical clusters %lld\n",
                    static_cast<long long>(o["single"].toInteger()),
                    static_cast<long long>(o["horizontal"].toInteger()),
                    static_cast<long long>(o["vertical"].toInteger()));
    }
    if (out.contains("profile")) {
        const QJsonObject o = out["profile"].toObject();
        std::printf("profile row %d\n", o["row"].toInt());
        for (const QJsonValue& v : o["samples"].toArray()) {
            const QJsonArray a = v.toArray();
            for (qsizetype i = 0; i < a.size(); ++i) {
                std::printf(i == 0 ? "%d" : " %d", a[i].toInt());
            }
            std::printf("\n");
        }
    }
    return ok ? 0 : 1;
}

}  // namespace lumetra::cli
