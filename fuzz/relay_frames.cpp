// relay_frames - gwrelay's cutting of a device's bytes into frames, and the objects in them.
#include <algorithm>
#include <string>

#include "base/json.h"
#include "support/process.h"
#include "wire/frames.h"

// All frames of a text that comes in pieces, and how it ended.
static std::string frames_of(std::string_view text, size_t piece) {
    frame_input input(2 * FRAME_MAX);
    std::string all;
    while (!text.empty()) {
        const std::span<char> room = input.room();
        must(!room.empty());
        const size_t count = text.copy(room.data(), std::min(piece, room.size()));
        input.received(count);
        text.remove_prefix(count);
        frame got;
        frame_input::result result;
        while ((result = input.take(got)) == frame_input::result::FRAME) {
            must(command_name(got.code) != nullptr && got.payload.size() <= FRAME_PAYLOAD_MAX);
            json_pairs(got.payload);
            frame_append(all, got);
        }
        if (result == frame_input::result::BAD) {
            return all + input.error();
        }
    }
    return all;
}

// The first byte says in what pieces they come.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const size_t piece = size_t{input.byte()} + 1;
    must(frames_of(input.rest, piece) == frames_of(input.rest, SIZE_MAX));
    const exact_bytes exact(input.rest);
    json_pairs({exact.bytes.get(), exact.size});
    return 0;
}
