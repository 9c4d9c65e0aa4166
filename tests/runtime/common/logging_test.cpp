// Log lines: the function name that ends every line, and a line written through the shipped
// configuration (or without it) as tests and operators read it.

#include <gtest/gtest.h>

#include <regex>

#include "runtime/common/logging.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

TEST(FunctionName, IsTheQualifiedNameAlone) {
    const std::pair<const char*, const char*> cases[] = {
        {"int CServiceManager::Install(const wchar_t*, int)", "CServiceManager::Install"},
        {"virtual bool IPCServerProc::Call(const Item&) const", "IPCServerProc::Call"},
        {"std::map<int, std::string> ns::Make(std::vector<std::pair<int, int> >)", "ns::Make"},
        {"T Tf(T) [with T = int]", "Tf"},       // gcc
        {"T Tf(T) [T = void (*)(int)]", "Tf"},  // clang
        {"void Register(void (*)(int), int)", "Register"},
        // A lambda is named after its function.
        {"S::M() const::<lambda(int)>", "S::M"},                             // gcc
        {"auto S::M()::(lambda at a.cpp:3:9)::operator()() const", "S::M"},  // clang
        // The anonymous namespace is left out.
        {"void {anonymous}::Helper()", "Helper"},
        {"void (anonymous namespace)::Helper(int)", "Helper"},
        // Operators keep their symbols.
        {"bool S::operator()(int) const", "S::operator()"},
        {"S::operator bool() const", "S::operator bool"},
    };
    for (const auto& [signature, name] : cases) {
        EXPECT_EQ(qlb::logging::FunctionName(signature), name) << signature;
    }
}

void WriteStepLine() {
    QLOG_WARN("step one " << 42);
}
void WriteFailureLine() {
    QLOG_ERROR("fail to open scm manager. error=" << 5);
}

TEST(LogFile, LinesCarryLevelAndMessageWithFunctionName) {
    qlb::testing::TempDir dir;
    qlb::logging::InitLogger("LoggingTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                             (dir / "log/").string());
    WriteStepLine();
    WriteFailureLine();
    LOG4CPLUS_INFO(GetLogger(), "below the threshold");
    const auto lines = qlb::testing::ReadLines(dir / "log" / "LoggingTest.log");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_search(lines[0], std::regex(R"( WARN step one 42\(WriteStepLine\)$)")))
        << lines[0];
    EXPECT_TRUE(std::regex_search(
        lines[1], std::regex(R"( ERROR fail to open scm manager\. error=5\(WriteFailureLine\)$)")))
        << lines[1];
}

TEST(LogFile, MissingConfigurationFallsBackToTheSameFile) {
    qlb::testing::TempDir dir;
    qlb::logging::InitLogger("FallbackTest", "/nonexistent/log4cplus.properties",
                             (dir / "nested/log/").string());
    WriteStepLine();
    const auto lines = qlb::testing::ReadLines(dir / "nested" / "log" / "FallbackTest.log");
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_search(lines[0], std::regex(R"(WARN.* step one 42\(WriteStepLine\)$)")))
        << lines[0];
}

}  // namespace
