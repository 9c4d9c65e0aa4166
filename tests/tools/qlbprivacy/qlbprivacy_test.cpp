// The qlbprivacy tool as an administrator runs it: exit statuses, round trips, reproducible packing.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/child_process.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

using qlb::testing::ReadFile;

struct RunResult {
    int status = -1;
    std::string out;
};

// The tool's exit status and standard output; what it says on stderr is not looked at.
RunResult RunTool(const std::string& arguments) {
    qlb::testing::ChildProcess tool(
        {"/bin/sh", "-c", std::string(QLB_PROGRAM_DIR) + "/qlbprivacy " + arguments + " 2>/dev/null"});
    RunResult result{tool.Wait(), ""};
    while (const auto line = tool.ReadLine()) {
        result.out += *line + "\n";
    }
    return result;
}

class QlbPrivacyTool : public ::testing::Test {
  protected:
    std::string Path(const std::string& name) const { return (dir_ / name).string(); }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(dir_ / name, std::ios::binary) << text;
    }
    qlb::testing::TempDir dir_;
};

TEST_F(QlbPrivacyTool, PackThenUnpackGivesTheTextBack) {
    const std::string xml = "<privacy><brand name=\"lumira\">\xC3\xA9</brand></privacy>\n";
    Write("in.xml", xml);
    ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path("out.dat")).status, 0);
    EXPECT_EQ(ReadFile(dir_ / "out.dat").size(), 256 + (xml.size() / 16 + 1) * 16);
    const RunResult unpacked = RunTool("unpack " + Path("out.dat"));
    EXPECT_EQ(unpacked.status, 0);
    EXPECT_EQ(unpacked.out, xml);
}

TEST_F(QlbPrivacyTool, RandomPackingDiffersAndReproduciblePackingDoesNot) {
    Write("in.xml", "<a/>\n");
    for (const std::string name : {"r1", "r2"}) {
        ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path(name)).status, 0);
        ASSERT_EQ(RunTool("pack " + Path("in.xml") + " " + Path(name + "d") + " --reproducible").status, 0);
    }
    EXPECT_NE(ReadFile(dir_ / "r1"), ReadFile(dir_ / "r2"));
    EXPECT_EQ(ReadFile(dir_ / "r1d"), ReadFile(dir_ / "r2d"));
    EXPECT_EQ(RunTool("unpack " + Path("r1d")).out, "<a/>\n");
}

TEST_F(QlbPrivacyTool, BadInputExitsWithOneAndUsageErrorsWithTwo) {
    Write("bad.xml", "<a><b></a>");
    Write("good.xml", "<a/>");
    Write("short.dat", std::string(271, 'x'));
    const std::pair<std::string, int> cases[] = {
        {"pack " + Path("absent.xml") + " " + Path("o.dat"), 1},
        {"pack " + Path("bad.xml") + " " + Path("o.dat"), 1},
        {"pack " + Path("good.xml") + " " + Path("nodir/o.dat"), 1},
        {"unpack " + Path("absent.dat"), 1},
        {"unpack " + Path("short.dat"), 1},
        {"", 2},
        {"pack onlyone", 2},
        {"pack a b --other", 2},
        {"unpack", 2},
        {"seal a b", 2},
    };
    for (const auto& [arguments, status] : cases) {
        EXPECT_EQ(RunTool(arguments).status, status) << arguments;
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "o.dat"));
}

}  // namespace
