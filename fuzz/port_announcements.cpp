// port_announcements - datagrams of any size, as services send them.
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "connection/gwa_connection.h"
#include "reporters/port_info.h"
#include "support/network.h"
#include "support/process.h"

// What has been reported, each of which is one short object.
static void drop_reports() {
    gwa_connection_cntl& cntl = gwa_connections.cntl;
    while (gwa_output_node* const node = gwa_connection_dequeue(&cntl.output)) {
        const std::string_view frame(reinterpret_cast<const char*>(node->cursor), node->remaining);
        must(frame.substr(GWA_HEADER_SIZE).starts_with("{\"") && frame.ends_with('}'));
        gwa_connection_cntl_node_done(&cntl, node);
    }
    must(cntl.reports == 0);
}

// Each datagram has its length in front.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    const std::string path = socket_folder() + "/port.sock";
    process_run([=] {
        input_text input(bytes, size);
        must(poll_init(&cntl->poller) == 0);
        port_info_start(cntl, path.c_str());
        const owned_fd service = unix_client(path, SOCK_DGRAM);
        while (!input.empty()) {
            const exact_bytes said(input.take(input.byte()));
            send(service.fd, said.unsigned_data(), said.size, MSG_NOSIGNAL);
            if (input.rest.size() % 4 == 0) {  // sometimes several wait
                poll_now(&cntl->poller);
                drop_reports();
            }
        }
        poll_now(&cntl->poller);
        drop_reports();
    });
    poll_exit(&cntl->poller);
    unlink(path.c_str());
    return 0;
}
