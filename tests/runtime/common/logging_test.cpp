// Log lines: the function name that ends every line, and a line written through the shipped
// configuration as tests and operators read it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "runtime/common/logging.h"

namespace {

using qlb::logging::FunctionName;

TEST(FunctionNameOfSignature, DropsReturnTypeAndParameters) {
    EXPECT_EQ(FunctionName("int CServiceManager::Install(const wchar_t*, int)"), "CServiceManager::Install");
    EXPECT_EQ(FunctionName("void ServiceMain(DWORD, LPWSTR*)"), "ServiceMain");
    EXPECT_EQ(FunctionName("Foo::Foo()"), "Foo::Foo");
    EXPECT_EQ(FunctionName("main"), "main");
}

TEST(FunctionNameOfSignature, DropsQualifiersAfterTheParameters) {
    EXPECT_EQ(FunctionName("virtual bool IPCServerProc::Call(const Item&) const"), "IPCServerProc::Call");
    EXPECT_EQ(FunctionName("static LogMonitor& LogMonitor::Instance() noexcept"), "LogMonitor::Instance");
}

TEST(FunctionNameOfSignature, TemplateTypesInReturnAndParametersStayOut) {
    EXPECT_EQ(FunctionName("std::map<int, std::string> ns::Make(std::vector<std::pair<int, int> >)"),
              "ns::Make");
    EXPECT_EQ(FunctionName("T Tf(T) [with T = int]"), "Tf");       // gcc
    EXPECT_EQ(FunctionName("T Tf(T) [T = void (*)(int)]"), "Tf");  // clang
}

TEST(FunctionNameOfSignature, FunctionPointerParameters) {
    EXPECT_EQ(FunctionName("void Register(void (*)(int), int)"), "Register");
}

TEST(FunctionNameOfSignature, LambdaIsNamedAfterItsFunction) {
    EXPECT_EQ(FunctionName("S::M() const::<lambda(int)>"), "S::M");                             // gcc
    EXPECT_EQ(FunctionName("main()::<lambda()>"), "main");                                      // gcc
    EXPECT_EQ(FunctionName("auto S::M()::(anonymous class)::operator()(int) const"), "S::M");   // clang
    EXPECT_EQ(FunctionName("auto S::M()::(lambda at a.cpp:3:9)::operator()() const"), "S::M");  // clang
}

TEST(FunctionNameOfSignature, AnonymousNamespaceIsLeftOut) {
    EXPECT_EQ(FunctionName("void {anonymous}::Helper()"), "Helper");
    EXPECT_EQ(FunctionName("void (anonymous namespace)::Helper(int)"), "Helper");
    EXPECT_EQ(FunctionName("void {anonymous}::Worker::Run()"), "Worker::Run");
    EXPECT_EQ(FunctionName("{anonymous}::Helper()::<lambda()>"), "Helper");
}

TEST(FunctionNameOfSignature, OperatorsKeepTheirSymbols) {
    EXPECT_EQ(FunctionName("bool S::operator()(int) const"), "S::operator()");
    EXPECT_EQ(FunctionName("bool S::operator<(const S&) const"), "S::operator<");
    EXPECT_EQ(FunctionName("void operator delete(void*)"), "operator delete");
    EXPECT_EQ(FunctionName("S::operator bool() const"), "S::operator bool");
}

void WriteStepLine() {
    QLOG_WARN("step one " << 42);
}
void WriteFailureLine() {
    QLOG_ERROR("fail to open scm manager. error=" << 5);
}

TEST(LogFile, LinesCarryLevelAndMessageWithFunctionName) {
    char pattern[] = "/tmp/qlb-log-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir = std::filesystem::path(pattern) / "log/";
    qlb::logging::InitLogger("LoggingTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                             dir.string());
    WriteStepLine();
    WriteFailureLine();
    LOG4CPLUS_INFO(GetLogger(), "below the threshold");

    std::ifstream in(dir / "LoggingTest.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    std::filesystem::remove_all(pattern);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" WARN "), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("step one 42(WriteStepLine)"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" ERROR "), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("fail to open scm manager. error=5(WriteFailureLine)"), std::string::npos)
        << lines[1];
}

TEST(LogFile, MissingConfigurationFallsBackToTheSameFile) {
    char pattern[] = "/tmp/qlb-log-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir = std::filesystem::path(pattern) / "nested/log/";
    qlb::logging::InitLogger("FallbackTest", "/nonexistent/log4cplus.properties", dir.string());
    WriteStepLine();
    std::ifstream in(dir / "FallbackTest.log");
    std::string line;
    std::getline(in, line);
    std::filesystem::remove_all(pattern);
    EXPECT_NE(line.find("WARN"), std::string::npos) << line;
    EXPECT_NE(line.find("step one 42(WriteStepLine)"), std::string::npos) << line;
}

}  // namespace
