// Whole runs of the workbench on the simulated board, frame by frame on the board's manual clock.
#include <algorithm>

#include "workbench_support.h"

namespace lumetra::test {
namespace {

using WorkbenchRun = SimWorkbench;

bool Contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(WorkbenchRun, OpenGrabRecordStopFaultAndGrabAgain) {
    Open("[board0]\nwidth=64\nheight=48\nsignal_loss_after_ms=1000\n[board1]\n");
    ASSERT_TRUE(workbench->document().hasBoard());
    GrabEngine& engine = workbench->engine();

    // Grab, record and save a sequence.
    ASSERT_TRUE(workbench->GrabContinuous());
    EXPECT_EQ(Lines().back(), "Start Grab");
    Frames(3);  // the board measures its rate over a few frames
    const std::string video = (dir / "run.h264").string();
    ASSERT_TRUE(workbench->StartVideoTo(video)) << ::testing::PrintToString(prompt.boxes);
    std::filesystem::create_directories(dir / "seq");
    std::string error;
    ASSERT_TRUE(workbench->StartSequence((dir / "seq/f.png").string(), 5,
                                         workbench->imageSaveOptions(), error))
        << error;
    Frames(10);
    workbench->GrabStop();
    Dispatch();
    EXPECT_TRUE(engine.idle());
    EXPECT_EQ(engine.context().frameCounter, 13u);
    EXPECT_EQ(workbench->videoRecorder().framesEncoded(), 10u) << "every frame while recording";
    EXPECT_GT(std::filesystem::file_size(video), 0u);
    for (int i = 1; i <= 5; ++i) {
        EXPECT_TRUE(std::filesystem::exists(SequenceFileName((dir / "seq/f").string(), i, "png")));
    }
    const auto stopped = Lines();
    EXPECT_TRUE(Contains(stopped, "Grab Stop\n"));
    EXPECT_TRUE(Contains(stopped, "Image sequence: 5 of 5 frames saved, 0 missed\n"));
    EXPECT_TRUE(Contains(stopped, "Video saved successfully"));

    // A fault: 1 s into the next grab the camera signal goes. The watch-dog notices and posts;
    // the stop runs here, on the owner's thread, when the post is handled.
    const std::thread::id owner = std::this_thread::get_id();
    log.clear();
    ASSERT_TRUE(workbench->GrabContinuous());
    const size_t stopsBefore = watched->threads().size();
    Frames(59);
    ASSERT_EQ(hooks.advanceTime(handle(), 20000), ORVIX_SUCCESS);  // past 1000 ms
    ASSERT_TRUE(sink.WaitFor(msg::kSignalLost));
    EXPECT_TRUE(engine.continuousRunning()) << "nothing is stopped before the post is handled";
    Dispatch();
    EXPECT_TRUE(engine.idle());
    EXPECT_TRUE(Contains(Lines(), "Board signal abnormal.Grab Stop\n"));
    const auto threads = watched->threads();
    ASSERT_GT(threads.size(), stopsBefore);
    for (size_t i = stopsBefore; i < threads.size(); ++i) {
        EXPECT_EQ(threads[i], owner) << "the board is stopped and unregistered by the owner";
    }

    // And the next grab works.
    log.clear();
    ASSERT_TRUE(workbench->GrabContinuous());
    Frames(5);
    workbench->GrabStop();
    Dispatch();
    EXPECT_EQ(engine.context().frameCounter, 5u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Start Grab", "Grab Stop\n"}));
}

// A script records once the board has a rate; a recording asked for before stays pending, and a
// stop forgets it.
TEST_F(WorkbenchRun, VideoAskedForEarlyStartsOnceTheBoardHasARate) {
    Open("[board0]\nwidth=64\nheight=48\n[board1]\n");
    ASSERT_TRUE(workbench->GrabContinuous());
    const std::string video = (dir / "early.h264").string();
    workbench->StartVideoWhenRated(video);
    EXPECT_TRUE(workbench->videoPending()) << "no frame yet, no rate";
    EXPECT_FALSE(workbench->videoRecorder().running());
    Frames(3);
    workbench->Handle(msg::kRate, 0, 1);
    EXPECT_FALSE(workbench->videoPending());
    EXPECT_TRUE(workbench->videoRecorder().running());
    EXPECT_EQ(workbench->videoRecorder().path(), video);
    workbench->GrabStop();
    Dispatch();

    ASSERT_TRUE(workbench->GrabContinuous());
    workbench->StartVideoWhenRated((dir / "never.h264").string());
    workbench->GrabStop();
    EXPECT_FALSE(workbench->videoPending());
    EXPECT_TRUE(prompt.boxes.empty());
}

// Closing the workbench while it grabs ends everything in the destroy order; nothing is left
// running and the recording holds what it took.
TEST_F(WorkbenchRun, ShutdownWhileGrabbingAndRecordingEndsEverything) {
    Open("[board0]\nwidth=64\nheight=48\n[board1]\n");
    ASSERT_TRUE(workbench->GrabContinuous());
    Frames(3);
    ASSERT_TRUE(workbench->StartVideoTo((dir / "last.h264").string()));
    Frames(4);
    workbench->Shutdown();
    EXPECT_TRUE(workbench->engine().idle());
    EXPECT_FALSE(workbench->videoRecorder().running());
    EXPECT_EQ(workbench->videoRecorder().framesEncoded(), 4u);
    EXPECT_EQ(hooks.advanceFrames(handle(), 1), 0) << "the board no longer grabs";
    workbench.reset();
}

}  // namespace
}  // namespace lumetra::test
