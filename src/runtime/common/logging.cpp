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
    // A lambda names itself after its enclosing function: "void f()::<lambda()>".
    if (const auto lambda = pretty.find("::<lambda"); lambda != std::string_view::npos) {
        pretty = pretty.substr(0, lambda);
    }
    if (const auto with = pretty.find(" [with "); with != std::string_view::npos) {
        pretty = pretty.substr(0, with);
    }
    // The parameter list is the last balanced "( ... )".
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
    // The return type ends at the last blank outside template brackets.
    int angle = 0;
    for (size_t i = pretty.size(); i-- > 0;) {
        const char c = pretty[i];
        if (c == '>') {
            ++angle;
        } else if (c == '<') {
            --angle;
        } else if (c == ' ' && angle == 0) {
            // "operator delete" and the like keep their blank.
            if (i >= 8 && pretty.substr(i - 8, 8) == "operator") {
                continue;
            }
            return pretty.substr(i + 1);
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
