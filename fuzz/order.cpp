// order - the text that orders data connections.
#include <cstring>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_cntl_command.h"
#include "connection/gwa_connection_order.h"
#include "support/process.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        exact_bytes text({reinterpret_cast<const char*>(bytes), size}, true);
        gwa_host_list servers;
        const int result = gwa_host_list_get(text.data(), &servers);
        for (int i = 0; i < GWA_HOST_COUNT; i++) {
            must(memchr(servers.hosts[i], '\0', GWA_HOST_SIZE) != nullptr);
            must(result != 0 || (servers.hosts[i][0] != '\0' && servers.ports[i] != 0));
        }
        gwa_connection_cntl_remote_data_parse(&gwa_connections.cntl, text.data());
    });
    return 0;
}
