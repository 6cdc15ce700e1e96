// discovery_reply - what an address manager answers: one reply in a block of exactly its size, and
// the same over a socket.
#include "login/gwa_login_discovery.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        const std::string_view input(reinterpret_cast<const char*>(bytes), size);
        uint32_t address = 0;
        uint16_t port = 0;
        exact_bytes reply(input, true);
        const int result = gwa_cntrl_ip_parse(reply.data(), size, &address, &port);
        must(result == 0 ? port != 0 : port == 0 && address == 0);
        must(input == std::string_view(reply.data(), size));  // whole again

        server manager(input);
        network_accept = [&](uint16_t) { return manager.connection(); };
        clock_others = [&] { manager.goes_on(); };
        gwa_cntrl_ip_get(&address, &port);
    });
    return 0;
}
