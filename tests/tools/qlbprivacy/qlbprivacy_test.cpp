// The qlbprivacy tool as an administrator runs it: exit statuses, round trips, reproducible packing.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct RunResult {
    int status = -1;
    std::string out;
};

RunResult RunTool(const std::string& arguments) {
    const std::string command = std::string(QLB_PROGRAM_DIR) + "/qlbprivacy " + arguments + " 2>/dev/null";
    RunResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer{};
    std::size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.out.append(buffer.data(), n);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class QlbPrivacyTool : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "qlbprivacy-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string Path(const std::string& name) const { return (dir_ / name).string(); }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(dir_ / name, std::ios::binary) << text;
    }
    std::filesystem::path dir_;
};

TEST_F(QlbPrivacyTool, PackThenUnpackGivesTheTextBack) {
    const std::string xml = "<privacy><brand name=\"lumira\">\xC3\xA9</brand></privacy>\n";
    Write("in.xml", xml);
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("out.dat")).status, 0);
    const std::string packed = ReadFile(dir_ / "out.dat");
    EXPECT_EQ(packed.size(), 256 + (xml.size() / 16 + 1) * 16);
    const RunResult unpacked = RunTool("unpack " + Path("out.dat"));
    EXPECT_EQ(unpacked.status, 0);
    EXPECT_EQ(unpacked.out, xml);
}

TEST_F(QlbPrivacyTool, RandomPackingDiffersAndReproduciblePackingDoesNot) {
    Write("in.xml", "<a/>");
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("r1.dat")).status, 0);
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("r2.dat")).status, 0);
    EXPECT_NE(ReadFile(dir_ / "r1.dat"), ReadFile(dir_ / "r2.dat"));
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("d1.dat") + " --reproducible").status, 0);
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("d2.dat") + " --reproducible").status, 0);
    EXPECT_EQ(ReadFile(dir_ / "d1.dat"), ReadFile(dir_ / "d2.dat"));
    EXPECT_EQ(RunTool("unpack " + Path("d1.dat")).out, "<a/>");
}

TEST_F(QlbPrivacyTool, PackRefusesMissingAndMalformedInput) {
    EXPECT_EQ(RunTool("pack " + Path("absent.xml") + " " + Path("o.dat")).status, 1);
    Write("bad.xml", "<a><b></a>");
    EXPECT_EQ(RunTool("pack " + Path("bad.xml") + " " + Path("o.dat")).status, 1);
    Write("empty.xml", "");
    EXPECT_EQ(RunTool("pack " + Path("empty.xml") + " " + Path("o.dat")).status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir_ / "o.dat"));
    Write("good.xml", "<a/>");
    EXPECT_EQ(RunTool("pack " + Path("good.xml") + " " + Path("nodir/o.dat")).status, 1);
}

TEST_F(QlbPrivacyTool, UnpackRefusesFilesThatAreNoDocument) {
    EXPECT_EQ(RunTool("unpack " + Path("absent.dat")).status, 1);
    Write("short.dat", std::string(271, 'x'));
    EXPECT_EQ(RunTool("unpack " + Path("short.dat")).status, 1);
    Write("odd.dat", std::string(273, 'x'));
    EXPECT_EQ(RunTool("unpack " + Path("odd.dat")).status, 1);
    EXPECT_EQ(RunTool("unpack " + dir_.string()).status, 1);
}

TEST_F(QlbPrivacyTool, UsageErrorsExitWithTwo) {
    EXPECT_EQ(RunTool("").status, 2);
    EXPECT_EQ(RunTool("pack onlyone").status, 2);
    EXPECT_EQ(RunTool("pack a b --other").status, 2);
    EXPECT_EQ(RunTool("unpack").status, 2);
    EXPECT_EQ(RunTool("seal a b").status, 2);
}

}  // namespace
