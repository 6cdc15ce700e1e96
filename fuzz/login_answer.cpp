// login_answer - both handshakes, with a server that answers the input.
#include <unistd.h>

#include <cstring>

#include "login/gwa_login_handshake.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

// Runs one login and closes what it hands over.
static void log_in(std::string_view input, int (*login)()) {
    process_run([=] {
        server relay(input);
        network_accept = [&](uint16_t) { return relay.connection(); };
        clock_others = [&] { relay.goes_on(); };
        const owned_fd fd(login());
    });
}

static int control() {
    static gwa_traffic traffic;
    return gwa_login_control(0x7f000001, 9998,
                             {&traffic, [](const char* text) { must(strlen(text) < 1008); }});
}

static int data() { return gwa_login_data(0x7f000001, 9997); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(bytes), size);
    log_in(input, control);
    log_in(input, data);
    return 0;
}
