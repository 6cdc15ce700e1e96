// data_payloads - the dispatch of data frames, whose payloads lie in blocks of exactly their size.
#include "connection/gwa_connection.h"
#include "connection/gwa_connection_data_round.h"
#include "connection/gwa_connection_request.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

// One frame: its stream, its length in two bytes, and the payload.
static void dispatch(gwa_connection_data* conn, input_text* input) {
    gwa_header header{};
    header.stream_id = input->byte();
    const size_t length = input->byte() + size_t{input->byte()} % 32 * 256;
    const exact_bytes payload(input->take(length));
    header.length = static_cast<uint32_t>(payload.size);
    if (payload.size > 0) {
        gwa_connection_remote_data_parse(conn, &header, payload.unsigned_data(), header.length);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    gwa_connection_data* const conn = &gwa_connections.data[0];
    process_run([=] {
        input_text input(bytes, size);
        services local;
        network_accept = [&](uint16_t port) { return local.connection(port); };
        must(gwa_connection_data_init2(conn) == GWA_OK);
        while (!input.empty()) {
            dispatch(conn, &input);
            local.go_on();
            poll_now(&conn->poller);
        }
    });
    gwa_connection_data_free(conn);
    must(gwa_connection_memory(conn) == 0 && conn->output.count == 0 && conn->streams.count == 0);
    return 0;
}
