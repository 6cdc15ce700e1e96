// relay_websocket - where gwrelay finds the end of one side of a WebSocket: at the same byte, in
// whatever pieces it comes.
#include "http/websocket.h"
#include "support/process.h"

static size_t end_in(std::string_view bytes, size_t piece) {
    websocket_side side;
    size_t taken = 0;
    while (taken < bytes.size() && !side.closed()) {
        const exact_bytes exact(bytes.substr(taken, piece));
        side.take({exact.bytes.get(), exact.size});
        taken += exact.size;
    }
    return side.closed() ? taken : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const size_t piece = size_t{input.byte()} + 1;
    const size_t end = end_in(input.rest, 1), later = end_in(input.rest, piece);
    must(end == 0 ? later == 0 : later >= end && later < end + piece);
    must((end_in(input.rest.substr(0, end), SIZE_MAX) == end));
    return 0;
}
