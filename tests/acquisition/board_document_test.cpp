#include "acquisition/board_document.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "base/process_flags.h"
#include "fake_board.h"

namespace lumetra::test {
namespace {

// Fails every block above a size limit.
class LimitedAllocator final : public BlockAllocator {
  public:
    explicit LimitedAllocator(size_t limit) : limit_(limit) {}
    void* allocate(size_t size) override {
        return size > limit_ ? nullptr : DefaultBlockAllocator().allocate(size);
    }
    void free(void* block) override { DefaultBlockAllocator().free(block); }
    size_t limit_;
};

struct DocumentFixture : ::testing::Test {
    FakeBoardLibrary lib;
    MemorySettings settings;
    RecordingLog log;
    RecordingSink sink;
    RecordingPrompt prompt;
    std::string resourcePath = "/nonexistent/BoardConfig.ini";
    BlockAllocator* allocator = nullptr;

    FakeBoard board(std::string name, uint32_t version = 0x00051302) {
        FakeBoard b;
        b.name = std::move(name);
        b.values = {{ORVIX_BOARD_VERSION, version}, {ORVIX_IMAGE_WIDTH, 1920},
                    {ORVIX_IMAGE_HEIGHT, 1200},     {ORVIX_IMAGE_TYPE, 0},
                    {ORVIX_DATA_FORMAT, 8},         {ORVIX_TAP_NUMBER, 8}};
        return b;
    }
    std::unique_ptr<CKELM_PCIE_VexCardDoc> make(BoardLibrary* library) {
        DocumentServices s{library, &settings, &log, &sink, &prompt, allocator, resourcePath};
        return std::make_unique<CKELM_PCIE_VexCardDoc>(s);
    }
};

TEST_F(DocumentFixture, FirstBoardThatOpensIsKeptAfterAFailedOne) {
    lib.boards.push_back(board("PCIe-CL Broken"));
    lib.boards.back().opens = false;
    lib.boards.push_back(board("PCIe-CXP4 Second", 0x000A0100));
    lib.boards.push_back(board("Third"));
    auto doc = make(&lib);
    ASSERT_TRUE(doc->hasBoard());
    EXPECT_EQ(doc->boardIndex(), 1);
    EXPECT_EQ(doc->boardType(), 2);
    EXPECT_EQ(doc->boardName(), "PCIe-CXP4 Second");
    EXPECT_TRUE(processFlags().coaxpress);
    EXPECT_TRUE(processFlags().boardPresent);
    EXPECT_EQ(processFlags().modelCode, 10);
    // Open 0 fails and is followed by the error read; the search stops at index 1.
    ASSERT_GE(lib.calls.size(), 4u);
    EXPECT_EQ(std::vector<FakeCall>(lib.calls.begin(), lib.calls.begin() + 4),
              (std::vector<FakeCall>{
                  {"GetBoardCount"}, {"Open", 0}, {"GetLastError", 0, 1}, {"Open", 1}}));
    EXPECT_EQ(std::count(lib.calls.begin(), lib.calls.end(), FakeCall{"Open", 2}), 0);
    // The parameters were read back from the open board.
    EXPECT_EQ(doc->imageFormat().width, 1920u);
    EXPECT_EQ(doc->imageFormat().bitsPerPixel, 8u);
    EXPECT_EQ(doc->parameters().clConfigIndex, 2);
}

TEST_F(DocumentFixture, BoardNameSetsTheCoaXPressAndOnePortFlags) {
    const struct {
        const char* name;
        bool cxp, onePort;
    } cases[] = {{"PCIe-CL Full", false, false},
                 {"Board CoaXPress x4", true, false},
                 {"PCIe-CXP Port1", true, true},
                 {"cxp lower case", false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        lib.boards = {board(c.name)};
        auto doc = make(&lib);
        EXPECT_EQ(processFlags().coaxpress, c.cxp);
        EXPECT_EQ(processFlags().onePort, c.onePort);
        EXPECT_EQ(processFlags().modelCode, 5);
    }
}

TEST_F(DocumentFixture, RunsWithoutABoardOrWithoutALibrary) {
    auto doc = make(&lib);  // no boards
    EXPECT_FALSE(doc->hasBoard());
    EXPECT_EQ(doc->handle(), -1);
    EXPECT_EQ(doc->boardIndex(), -1);
    EXPECT_EQ(doc->boardType(), -1);
    EXPECT_FALSE(processFlags().boardPresent);
    EXPECT_EQ(processFlags().modelCode, 0);

    auto bare = make(nullptr);
    EXPECT_FALSE(bare->hasBoard());
    EXPECT_EQ(bare->frameImage().raw().width(), 1024);
    EXPECT_EQ(bare->frameImage().raw().height(), 643);
    EXPECT_EQ(bare->frameImage().raw().channels(), 3);
    // The frame store starts with the Frame image's initial pixels.
    EXPECT_EQ(bare->frameStore().size(), size_t{1024} * 643 * 3);
    bare->frameStore().WithFrame([](const uint8_t* p, size_t n, bool) {
        EXPECT_TRUE(std::all_of(p, p + n, [](uint8_t b) { return b == 3; }));
    });
    bare->ApplyParameters();  // harmless without a board
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DocumentFixture, DestructorClosesTheBoard) {
    lib.boards = {board("A")};
    make(&lib).reset();
    EXPECT_EQ(lib.calls.back(), (FakeCall{"Close", 100}));
}

TEST_F(DocumentFixture, GeometryIsValidatedWithTheBoardsRules) {
    lib.boards = {board("PCIe-CXP4", 0x000A0100)};
    auto doc = make(&lib);
    doc->parameters().set(ORVIX_IMAGE_WIDTH, 1000);
    doc->parameters().set(ORVIX_IMAGE_HEIGHT, 1001);
    doc->imageFormat().jpegCompression = true;
    doc->ValidateGeometry();
    EXPECT_EQ(doc->parameters().width(), 1040u);
    EXPECT_EQ(doc->parameters().height(), 1000u);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Image width must be divided by 80.Reset the image width as 1040\n",
                  "Image height must be divided by 8 and less than 65535.Reset the image height "
                  "as 1000\n"}));
}

TEST_F(DocumentFixture, AllocationFollowsTheFormatAndTellsTheViews) {
    lib.boards = {board("A")};
    auto doc = make(&lib);
    doc->displayMode = 4;
    doc->imageFormat().channels = 3;
    doc->imageFormat().bitsPerPixel = 24;
    ASSERT_TRUE(doc->AllocateFrameMemory());
    EXPECT_EQ(doc->frameImage().raw().width(), 1920);
    EXPECT_EQ(doc->frameImage().raw().channels(), 3);
    EXPECT_EQ(doc->frameStore().capacity(), size_t{1920} * 1200 * 3);
    EXPECT_EQ(doc->displayMode, 0) << "Clear mode needs a fourth channel";
    ASSERT_FALSE(sink.messages().empty());
    EXPECT_EQ(sink.messages()[0].msg, msg::kFrameSize);

    // One channel and the monochrome option force mode 0 too.
    doc->displayMode = 2;
    doc->monochromeDisplay = true;
    doc->imageFormat().channels = 1;
    doc->imageFormat().bitsPerPixel = 12;
    ASSERT_TRUE(doc->AllocateFrameMemory());
    EXPECT_EQ(doc->displayMode, 0);
    EXPECT_EQ(doc->frameImage().raw().depth(), 16);
}

TEST_F(DocumentFixture, ShortMemoryReducesTheHeightTo128MiB) {
    LimitedAllocator limited(size_t{200} << 20);
    allocator = &limited;
    lib.boards = {board("A")};
    auto doc = make(&lib);
    doc->imageFormat().width = 16384;
    doc->imageFormat().height = 16000;  // 250 MiB of 8-bit mono
    doc->imageFormat().channels = 1;
    doc->imageFormat().bitsPerPixel = 8;
    ASSERT_TRUE(doc->AllocateFrameMemory());
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Allocate Virtual Memory Fail.Reset the image height as 8192\n"});
    EXPECT_EQ(doc->imageFormat().height, 8192u);
    EXPECT_EQ(doc->parameters().height(), 8192u);
    EXPECT_EQ(doc->frameImage().raw().height(), 8192);
    EXPECT_TRUE(prompt.texts.empty());
}

TEST_F(DocumentFixture, NoMemoryAtAllIsReportedAndPrompted) {
    lib.boards = {board("A")};
    LimitedAllocator none(1024);
    allocator = &none;
    auto starved = make(&lib);
    log.clear();
    starved->imageFormat().channels = 1;
    starved->imageFormat().bitsPerPixel = 16;
    starved->imageFormat().width = 640;
    starved->imageFormat().height = 480;
    EXPECT_FALSE(starved->AllocateFrameMemory());
    // 134217728 / (2 x 640) = 104857 rows: more, not fewer, so the retry fails as well.
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Allocate Virtual Memory Fail.Reset the image height as 104857\n",
                               "Image Data Fail!"}));
    EXPECT_EQ(prompt.texts, std::vector<std::string>{"Image memory application failed, unable to "
                                                     "operate, please reapply for memory."});
}

TEST_F(DocumentFixture, UnsupportedPixelLayoutIsRefusedByName) {
    auto doc = make(nullptr);
    doc->imageFormat().channels = 2;
    doc->imageFormat().bitsPerPixel = 16;
    EXPECT_FALSE(doc->AllocateFrameMemory());
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Failed to load image : The software does not support this image "
                               "format!"});
}

TEST_F(DocumentFixture, ComUserNumberComesFromThePerBoardKey) {
    settings.setSystemInt("SOFTWARE\\KELM\\Lumetra\\PCIE1", "ComUserNumber", 7);
    settings.setSystemInt("SOFTWARE\\KELM\\Lumetra\\USB301", "ComUserNumber", 9);
    lib.boards = {board("A")};
    auto doc = make(&lib);
    EXPECT_EQ(doc->ReadComUserNumber(1), 7u);
    EXPECT_EQ(doc->ReadComUserNumber(0), 0u);
    auto none = make(nullptr);  // board type -1: the USB3 key
    EXPECT_EQ(none->ReadComUserNumber(1), 9u);
}

TEST_F(DocumentFixture, BackgroundImageThatCannotBeLoadedIsReported) {
    const auto dir =
        std::filesystem::temp_directory_path() / ("lumetra-doc-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    resourcePath = (dir / "BoardConfig.ini").string();
    std::ofstream(resourcePath) << "[Config]\nSoftwareBackground=" << (dir / "missing.png").string()
                                << "\n";
    make(nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Load Background Image Fail!"});

    // No background named: nothing to load, nothing to say.
    log.clear();
    std::ofstream(resourcePath) << "[Config]\nSoftwareName=Lumetra\n";
    make(nullptr);
    EXPECT_TRUE(log.lines().empty());
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace lumetra::test
