// dlna_words - what media servers say, several at a time, and what comes of it when time passes.
#include <sys/socket.h>

#include <cstdlib>
#include <utility>

#include "connection/gwa_connection.h"
#include "reporters/dlna_client.h"
#include "reporters/dlna_status.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_timer_list.h"
#include "runtime/gwa_types.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

namespace {

constexpr size_t CLIENTS = DLNA_CLIENTS_MAX + 4;

void drop_reports() {
    gwa_connection_cntl& cntl = gwa_connections.cntl;
    while (gwa_output_node* const node = gwa_connection_dequeue(&cntl.output)) {
        must(node->remaining == GWA_HEADER_SIZE + 4);
        gwa_connection_cntl_node_done(&cntl, node);
    }
    must(cntl.reports == 0);
}

// One step: who speaks, how much time passes, the length of what is said; half of the steps end
// with the speaker leaving or new reporting times.
void step(input_text* input, owned_fd (&clients)[CLIENTS]) {
    owned_fd& client = clients[input->byte() % CLIENTS];
    const uint8_t what = input->byte();
    const std::string_view said = input->take(input->byte());
    if (client.fd == -1) {
        client = unix_client(gwa_process_paths.dlna_socket, SOCK_STREAM);
    }
    send(client.fd, said.data(), said.size(), MSG_NOSIGNAL);
    if (what % 4 == 1) {
        client = owned_fd();
    } else if (what % 4 == 2) {
        dlna_status_interval_set(input->byte(), 3600 + uint32_t{input->byte()});
    }
    poll_now(&gwa_connections.cntl.poller);
    poll_now(&gwa_connections.cntl.poller);
    clock_advance(what / 4);
    gwa_timer_expire_check(gwa_timer_default_list);
    drop_reports();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        input_text input(bytes, size);
        owned_fd clients[CLIENTS];
        must(gwa_timer_list_make(&gwa_timer_default_list) == 0);
        text_copy(gwa_process_paths.dlna_socket, socket_folder() + "/dlna.sock");
        must(poll_init(&gwa_connections.cntl.poller) == 0);
        dlna_status_start(&gwa_connections.cntl);
        while (!input.empty()) {
            step(&input, clients);
        }
    });
    dlna_status_timers_stop();
    poll_exit(&gwa_connections.cntl.poller);
    dlna_status_exit();
    free(std::exchange(gwa_timer_default_list, nullptr));
    return 0;
}
