// qlbctl: joins the IPC channel as a module to send a message and print the answers, or to watch the
// frames addressed to a module. See ctl_command.h and docs/ipc.md.

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <csignal>
#include <iostream>

#include "ctl_command.h"
#include "runtime/common/machine_profile.h"

namespace {
std::atomic<bool> g_stop{false};
void OnSignal(int) {
    g_stop = true;
}

// What the channel library logs (a refused HELLO, a lost hub) goes to standard error: a tool run by a
// developer has no log file of its own, and may not be allowed to write the product's.
void LogToStandardError() {
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%p %m%n"));
    log4cplus::Logger::getRoot().addAppender(appender);
}
}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    const auto options = qlb::ctl::ParseCtlArguments(args, error);
    if (!options) {
        std::cerr << "qlbctl: " << error << "\n"
                  << "usage: qlbctl [--socket PATH] [--module ID] send MESSAGE [--to ID] "
                     "[--text TEXT | --hex HEX | --file PATH] [--sync N] [--wait SECONDS]\n"
                  << "       qlbctl [--socket PATH] [--module ID] watch [--wait SECONDS]\n";
        return 2;
    }
    if (options->socket.empty() && !qlb::MachineProfile::LoadError().empty()) {
        std::cerr << "qlbctl: " << qlb::MachineProfile::LoadError() << "\n";
        return 1;
    }
    LogToStandardError();
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    return qlb::ctl::RunCtl(*options, std::cout, std::cerr, g_stop);
}
