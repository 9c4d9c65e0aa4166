#pragma once
// The process logger. Every line is the message followed by "(", the function's name and ")", at
// WARN (steps) or ERROR (failures); where the line goes is the configuration's business
// (config/log4cplus.properties beside the executable).
//
//   QLOG_WARN("ServiceMain enter.");
//   QLOG_ERROR("fail to open scm manager. error=" << error);

#include <string>
#include <string_view>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

// Opens the process log under `name` ("QuillbarService" for the service). The file is
// logDir/<name>.log of the machine profile. Safe to call more than once; the last name wins.
void InitProcessLogger(const wchar_t* name);

// The logger of the process; before InitProcessLogger, the root logger.
log4cplus::Logger GetLogger();

namespace qlb::logging {

// "int CServiceManager::Install(const wchar_t*, ...)" -> "CServiceManager::Install"; a lambda is
// named after the function that holds it.
std::string_view FunctionName(std::string_view prettyFunction) noexcept;

// Opens the logger with an explicit configuration file and log directory (tools and tests).
void InitLogger(const std::string& name, const std::string& configFile, const std::string& logDir);

}  // namespace qlb::logging

#define QLB_LOG_FUNCTION ::qlb::logging::FunctionName(__PRETTY_FUNCTION__)

#define QLOG_WARN(expr) LOG4CPLUS_WARN(GetLogger(), expr << "(" << QLB_LOG_FUNCTION << ")")
#define QLOG_ERROR(expr) LOG4CPLUS_ERROR(GetLogger(), expr << "(" << QLB_LOG_FUNCTION << ")")
