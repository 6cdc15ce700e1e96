// firmware - the firmware version file, whatever is in it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "runtime/gwa_util_file.h"
#include "support/network.h"
#include "support/process.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        const owned_fd file(memfd_create("firmware", MFD_CLOEXEC));
        must(write(file.fd, bytes, size) == static_cast<ssize_t>(size));
        const std::string path = "/proc/self/fd/" + std::to_string(file.fd);
        exact_bytes values[] = {exact_bytes(std::string(sizeof(gwa_firmware_value), '#')),
                                exact_bytes(std::string(sizeof(gwa_firmware_value), '#')),
                                exact_bytes(std::string(sizeof(gwa_firmware_value), '#'))};
        const auto value = [&](int i) -> gwa_firmware_value& {
            return *reinterpret_cast<gwa_firmware_value*>(values[i].data());
        };
        const int result = gwa_fwver_get(path.c_str(), value(0), value(1), value(2));
        for (int i = 0; i < 3; i++) {
            const bool read = memchr(value(i), '\0', sizeof(gwa_firmware_value)) != nullptr;
            must(read || (result != 0 && value(i)[0] == '#'));
        }
    });
    return 0;
}
