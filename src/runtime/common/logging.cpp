#include "runtime/common/logging.h"

#include <filesystem>
#include <mutex>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/helpers/property.h>
#include <log4cplus/layout.h>

#include "runtime/common/machine_profile.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"

namespace {

std::mutex g_loggerMutex;
std::string g_loggerName;  // empty until InitProcessLogger

// Used when config/log4cplus.properties is missing: the same file and layout as the shipped one.
void ConfigureFallback(const std::string& name, const std::string& logDir) {
    using namespace log4cplus;
    auto logger = Logger::getInstance(name);
    logger.removeAllAppenders();
    SharedAppenderPtr file(new RollingFileAppender(logDir + name + ".log", 10 * 1024 * 1024, 5, true, true));
    file->setLayout(std::make_unique<PatternLayout>("%D{%Y-%m-%d %H:%M:%S.%q} [%t] %p %m%n"));
    logger.addAppender(file);
    logger.setLogLevel(WARN_LOG_LEVEL);
}

}  // namespace

namespace qlb::logging {

std::string_view FunctionName(std::string_view pretty) noexcept {
    // Template arguments: gcc "f(T) [with T = int]", clang "f(T) [T = int]".
    if (!pretty.empty() && pretty.back() == ']') {
        if (const auto open = pretty.rfind(" ["); open != std::string_view::npos) {
            pretty = pretty.substr(0, open);
        }
    }
    // A lambda names itself after its enclosing function: gcc "void f()::<lambda()>", clang
    // "auto f()::(anonymous class)::operator()() const" or "auto f()::(lambda at x.cpp:1:2)::...".
    for (const std::string_view marker : {"::<lambda", "::(anonymous class)", "::(lambda at "}) {
        if (const auto lambda = pretty.find(marker); lambda != std::string_view::npos) {
            pretty = pretty.substr(0, lambda);
        }
    }
    // The parameter list is the last balanced "( ... )"; qualifiers after it go with it.
    size_t end = pretty.rfind(')');
    if (end != std::string_view::npos) {
        int depth = 0;
        for (size_t i = end + 1; i-- > 0;) {
            if (pretty[i] == ')') {
                ++depth;
            } else if (pretty[i] == '(' && --depth == 0) {
                pretty = pretty.substr(0, i);
                break;
            }
        }
    }
    // The return type ends at the last blank outside template brackets and parentheses ("(anonymous
    // namespace)" keeps its blank). An operator's own symbols and blank ("operator<", "operator()",
    // "operator delete") are part of its name.
    size_t scanFrom = pretty.size();
    if (const auto op = pretty.rfind("operator"); op != std::string_view::npos) {
        scanFrom = op;
    }
    int nesting = 0;
    for (size_t i = scanFrom; i-- > 0;) {
        const char c = pretty[i];
        if (c == '>' || c == ')') {
            ++nesting;
        } else if (c == '<' || c == '(') {
            --nesting;
        } else if (c == ' ' && nesting == 0) {
            pretty = pretty.substr(i + 1);
            break;
        }
    }
    // A file's own helpers are named as their file's reader knows them: "Helper", not
    // "{anonymous}::Helper".
    for (const std::string_view anonymous : {"{anonymous}::", "(anonymous namespace)::"}) {
        if (pretty.substr(0, anonymous.size()) == anonymous) {
            pretty.remove_prefix(anonymous.size());
        }
    }
    return pretty;
}

void InitLogger(const std::string& name, const std::string& configFile, const std::string& logDir) {
    std::error_code ec;
    std::filesystem::create_directories(logDir, ec);

    std::lock_guard lock(g_loggerMutex);
    g_loggerName = name;
    if (std::filesystem::exists(configFile, ec)) {
        log4cplus::helpers::Properties props(configFile);
        // The configuration names its file by these two; the profile, not the environment, decides.
        props.setProperty("logDir", logDir);
        props.setProperty("processName", name);
        log4cplus::PropertyConfigurator configurator(props, log4cplus::Logger::getDefaultHierarchy(),
                                                     log4cplus::PropertyConfigurator::fShadowEnvironment);
        configurator.configure();
        // The shipped configuration describes one logger; every process logs under its own name.
        auto logger = log4cplus::Logger::getInstance(name);
        if (logger.getAllAppenders().empty() && log4cplus::Logger::getRoot().getAllAppenders().empty()) {
            ConfigureFallback(name, logDir);
        }
    } else {
        ConfigureFallback(name, logDir);
    }
}

}  // namespace qlb::logging

void InitProcessLogger(const wchar_t* name) {
    const std::string narrow = DE::UnicodeToANSI(name ? name : L"process");
    auto logDir = qlb::MachineProfile::Current().logDir.string();
    if (!logDir.empty() && logDir.back() != '/') {
        logDir += '/';
    }
    const auto config = (qlb::ProgramDir() / "config" / "log4cplus.properties").string();
    qlb::logging::InitLogger(narrow, config, logDir);
    if (const auto& error = qlb::MachineProfile::LoadError(); !error.empty()) {
        QLOG_ERROR("machine profile ignored, using the defaults: " << error);
    }
}

log4cplus::Logger GetLogger() {
    std::lock_guard lock(g_loggerMutex);
    return g_loggerName.empty() ? log4cplus::Logger::getRoot() : log4cplus::Logger::getInstance(g_loggerName);
}
