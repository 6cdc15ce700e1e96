// relay_response - gwrelay's reading of what services answer: wherever it is cut, the user gets the
// same.
#include <algorithm>
#include <string>

#include "http/http_message.h"
#include "support/process.h"

namespace {

struct reading {
    std::string passed_on;
    size_t taken = 0;
    bool complete = false, broken = false, sloppy = false, endless = false;
    int code = 0;
    bool operator==(const reading&) const = default;
};

void take(http_response& response, std::string_view bytes, reading* read) {
    const exact_bytes exact(bytes);
    const http_response::taken taken = response.take({exact.bytes.get(), exact.size});
    must(taken.size <= exact.size);
    switch (taken.what) {
        case http_response::part::NOTHING: break;
        case http_response::part::HEAD: read->passed_on += response.head(""); break;
        case http_response::part::BODY: read->passed_on += bytes.substr(0, taken.size); break;
        case http_response::part::FOREIGN: read->passed_on += response.raw(); break;
    }
    must(taken.size > 0 || response.over());
    read->taken += taken.size;
}

reading read_in(size_t piece, std::string_view text, bool to_head, bool may_switch) {
    http_response response(to_head, may_switch);
    reading read;
    while (read.taken < text.size() && !response.over()) {
        take(response, text.substr(read.taken, piece), &read);
    }
    read.complete = response.complete();
    read.broken = response.broken();
    read.sloppy = response.sloppy();
    read.endless = response.endless();
    read.code = response.code();
    response.waits_s();
    return read;
}

}  // namespace

// The first byte says in what pieces it comes, the second what has been asked for.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const size_t piece = size_t{input.byte()} + 1;
    const uint8_t request = input.byte();
    const auto read = [&](size_t length) {
        return read_in(length, input.rest, request % 2 == 1, request / 2 % 2 == 1);
    };
    const reading whole = read(std::max<size_t>(input.rest.size(), 1)), pieces = read(piece);
    must(whole.broken == pieces.broken && (whole.broken || whole == pieces));
    return 0;
}
