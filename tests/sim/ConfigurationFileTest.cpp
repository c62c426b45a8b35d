#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>

#include "ConfigurationFile.h"
#include "OrvixBoard.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

std::string withChecksum(const std::string& bodyWithoutCrc) {
    char line[32];
    std::snprintf(line, sizeof line, "crc32=0x%08X\n", crc32Of(bodyWithoutCrc));
    return bodyWithoutCrc + line;
}

// The file's text without its checksum line.
std::string bodyOf(const std::string& file) {
    size_t crc = file.rfind("crc32=");
    return file.substr(0, crc);
}

std::string replaceLine(std::string text, const std::string& from, const std::string& to) {
    size_t pos = text.find(from);
    EXPECT_NE(pos, std::string::npos) << from;
    return text.replace(pos, from.size(), to);
}

class ConfigurationFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A saved configuration that differs from the defaults in many places.
        ParameterStore& s = store_;
        ASSERT_TRUE(s.set(ORVIX_IMAGE_WIDTH, 1024).ok());
        ASSERT_TRUE(s.set(ORVIX_IMAGE_HEIGHT, 643).ok());
        ASSERT_TRUE(s.set(ORVIX_DATA_FORMAT, 12).ok());
        ASSERT_TRUE(s.set(ORVIX_TAP_NUMBER, 2).ok());
        ASSERT_TRUE(s.set(ORVIX_STROBE_PARAM3, 0xDEADBEEF).ok());
        ASSERT_TRUE(s.set(ORVIX_CXP_TRIGGER, 7).ok());
        ASSERT_TRUE(s.set(ORVIX_INTEGRATION_METHOD, 4).ok());
        text_ = serializeConfiguration(store_, config_.name);
    }

    test::TempDir dir_;
    BoardConfig config_ = defaultBoard(0);
    ParameterStore store_{config_};
    std::string text_;
};

TEST_F(ConfigurationFileTest, TheFileIsVersionedAndClosedByItsChecksum) {
    EXPECT_EQ(crc32Of("123456789"), 0xCBF43926u) << "the standard CRC-32";
    EXPECT_EQ(crc32Of(""), 0u);
    EXPECT_EQ(text_.rfind("OrvixBoardConfiguration 1\n", 0), 0u);
    EXPECT_NE(text_.find("0x10000001=1024\n"), std::string::npos);
    EXPECT_NE(text_.find("0x10000039=0\n"), std::string::npos);
    std::string body = bodyOf(text_);
    EXPECT_EQ(text_, withChecksum(body));
    // Read-only values are not configuration.
    EXPECT_EQ(text_.find("0x10000007="), std::string::npos);
    EXPECT_EQ(text_.find("0x10000073="), std::string::npos);
}

TEST_F(ConfigurationFileTest, SavedValuesComeBackOnAFreshBoard) {
    std::string path = dir_.file("cl0_tap2_w1024_h643.vlcf");
    ASSERT_TRUE(saveConfiguration(store_, config_.name, path).ok());
    ParameterStore fresh(config_);
    ASSERT_NE(fresh.persistentValues(), store_.persistentValues());
    Status s = loadConfiguration(fresh, path);
    ASSERT_TRUE(s.ok()) << s.text;
    EXPECT_EQ(fresh.persistentValues(), store_.persistentValues());
    EXPECT_EQ(fresh.frameBytes(), 1024u * 643u * 2u);
    // Only the file is left: no temporary beside it.
    EXPECT_EQ(dir_.entries(), std::vector<std::string>{"cl0_tap2_w1024_h643.vlcf"});
}

TEST_F(ConfigurationFileTest, DamagedForeignOrNewerFilesAreRefusedAndChangeNothing) {
    const std::string body = bodyOf(text_);
    const struct {
        const char* what;
        std::string text;
        int32_t code;
    } cases[] = {
        {"a changed byte", replaceLine(text_, "0x10000001=1024", "0x10000001=1025"),
         ORVIX_ERR_FILE_DAMAGED},
        {"half the file", text_.substr(0, text_.size() / 2), ORVIX_ERR_FILE_DAMAGED},
        {"no final newline", text_.substr(0, text_.size() - 1), ORVIX_ERR_FILE_DAMAGED},
        {"no checksum", body, ORVIX_ERR_FILE_DAMAGED},
        {"empty", "", ORVIX_ERR_FILE_DAMAGED},
        {"a line after the checksum", text_ + "0x10000001=1\n", ORVIX_ERR_FILE_DAMAGED},
        {"another version",
         withChecksum(replaceLine(body, "OrvixBoardConfiguration 1", "OrvixBoardConfiguration 2")),
         ORVIX_ERR_FILE_VERSION},
        // Even when the rest of a newer file is not understood.
        {"a newer file", "OrvixBoardConfiguration 3\nwhatever\n", ORVIX_ERR_FILE_VERSION},
        {"an INI file", "[board0]\nwidth=1\n", ORVIX_ERR_FILE_DAMAGED},
        {"another header", "OrvixBoardConfigurationX 1\n", ORVIX_ERR_FILE_DAMAGED},
        {"a missing entry", withChecksum(replaceLine(body, "0x10000002=643\n", "")),
         ORVIX_ERR_FILE_DAMAGED},
        {"a repeated entry", withChecksum(body + "0x10000002=643\n"), ORVIX_ERR_FILE_DAMAGED},
        {"a read-only entry", withChecksum(body + "0x10000007=5\n"), ORVIX_ERR_INVALID_PARAMETER},
        {"an unknown id", withChecksum(body + "0x10000004=5\n"), ORVIX_ERR_INVALID_PARAMETER},
        {"a name for an id", withChecksum(body + "width=5\n"), ORVIX_ERR_FILE_DAMAGED},
        {"an empty value", withChecksum(body + "0x10000001=\n"), ORVIX_ERR_FILE_DAMAGED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ParameterStore fresh(config_);
        ParameterValues before = fresh.persistentValues();
        std::string path = dir_.file("bad.vlcf");
        test::writeFile(path, c.text);
        Status s = loadConfiguration(fresh, path);
        EXPECT_EQ(s.code, c.code) << s.text;
        EXPECT_EQ(fresh.persistentValues(), before);
    }
}

TEST_F(ConfigurationFileTest, AnOutOfRangeValueLateInTheFileLeavesEarlierOnesUnapplied) {
    // Width comes first in the file; the bad data format after it must keep it from applying.
    std::string body = replaceLine(bodyOf(text_), "0x10000003=12", "0x10000003=9");
    ParameterStore fresh(config_);
    std::string path = dir_.file("range.vlcf");
    test::writeFile(path, withChecksum(body));
    Status s = loadConfiguration(fresh, path);
    EXPECT_EQ(s.code, ORVIX_ERR_OUT_OF_RANGE);
    EXPECT_NE(s.text.find("data format"), std::string::npos) << s.text;
    EXPECT_EQ(fresh.value(ORVIX_IMAGE_WIDTH), 1920u);
    EXPECT_EQ(fresh.value(ORVIX_STROBE_PARAM3), 0u);
}

TEST_F(ConfigurationFileTest, MissingFilesAndFoldersAreInputOutputErrors) {
    ParameterStore fresh(config_);
    Status s = loadConfiguration(fresh, dir_.file("absent.vlcf"));
    EXPECT_EQ(s.code, ORVIX_ERR_FILE_IO);
    EXPECT_NE(s.text.find("absent.vlcf"), std::string::npos);
    s = saveConfiguration(store_, config_.name, dir_.file("no/such/dir/x.vlcf"));
    EXPECT_EQ(s.code, ORVIX_ERR_FILE_IO);
    EXPECT_TRUE(dir_.entries().empty());
}

TEST_F(ConfigurationFileTest, AFailedSaveLeavesTheExistingFileIntact) {
    std::string path = dir_.file("keep.vlcf");
    test::writeFile(path, "precious contents\n");
    // Let every write beyond 64 bytes fail (EFBIG) rather than raise SIGXFSZ.
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = old;
    small.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    Status s = saveConfiguration(store_, config_.name, path);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(s.code, ORVIX_ERR_FILE_IO);
    EXPECT_EQ(test::readFile(path), "precious contents\n");
    EXPECT_EQ(dir_.entries(), std::vector<std::string>{"keep.vlcf"});
}

TEST_F(ConfigurationFileTest, FailSetRefusesAChangeFromAFileButNotAnUnchangedValue) {
    config_.failSet = {ORVIX_TAP_NUMBER};
    ParameterStore limited(config_);
    std::string same = serializeConfiguration(limited, config_.name);
    std::string path = dir_.file("same.vlcf");
    test::writeFile(path, same);
    EXPECT_TRUE(loadConfiguration(limited, path).ok());

    test::writeFile(path, text_);  // taps 2 instead of 8
    Status s = loadConfiguration(limited, path);
    EXPECT_EQ(s.code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(limited.value(ORVIX_TAP_NUMBER), 8u);
    EXPECT_EQ(limited.value(ORVIX_IMAGE_WIDTH), 1920u);
}

}  // namespace
}  // namespace orvix::sim
