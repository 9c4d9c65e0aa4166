// A stand-in for the product's programs in process tests: it runs until it is ended, or ends by
// itself after a given time. Copied under the product's names ("QLBMessageCenter.exe") so that its
// image name is theirs.
//
//   sleeper                   run until ended
//   sleeper --exit-after MS   end with status 0 after MS milliseconds

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--exit-after") == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[2])));
        return 0;
    }
    for (;;) {
        ::pause();
    }
}
