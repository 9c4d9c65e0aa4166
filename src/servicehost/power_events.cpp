#include "servicehost/power_events.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/win_error.h"

void SentPowerEventToWDT(const unsigned char code) {
    SentPowerEventToDevice(qlb::MachineProfile::Current().watchdogDevice, code);
}

void SentPowerEventToDevice(const std::filesystem::path& device, const unsigned char code) {
    // Open existing, read and write, as the driver's device is opened; never created here.
    const int fd = ::open(device.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        QLOG_ERROR("CreateFile " << device.string() << " failed with code " << win::FromErrno(errno)
                                 << ". return");
        return;
    }
    // Only the first byte carries meaning; the rest of the request is whatever it holds.
    std::array<unsigned char, kWdtRequestSize> request{};
    request[0] = code;
    ssize_t written;
    do {
        written = ::write(fd, request.data(), request.size());
    } while (written < 0 && errno == EINTR);
    if (written != static_cast<ssize_t>(request.size())) {
        const std::uint32_t error = written < 0 ? win::FromErrno(errno) : win::ERROR_WRITE_FAULT;
        QLOG_ERROR(" DeviceIoControl  " << static_cast<unsigned>(code)
                                        << "  failed\xEF\xBC\x8C"
                                           "err="
                                        << error);
    }
    ::close(fd);
}
