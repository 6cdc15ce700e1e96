#include "step.h"

#include <sstream>

namespace {

constexpr op_description DESCRIPTIONS[] = {
    {"round", 1, "so many rounds; of the control connection: waits"},
    {"spend", 1, "rounds until so many ms have passed"},
    {"time", 1, "so many ms pass, in which the daemon does not run"},
    {"clock", 1, "the wall clock is set by so many seconds"},
    {"room", 2, "send buffers from the next socket on: the server's, the services' (bytes)"},
    {"open", 4, "a request: stream id, how its port answers, priority, bytes behind the head"},
    {"ask", 3, "a request without a service: stream id, kind, priority"},
    {"upload", 2, "data for a stream: id, bytes"},
    {"flood", 3, "many frames for a stream: id, frames, bytes of each"},
    {"close", 1, "the server closes a stream: id"},
    {"command", 2, "another frame of the server: kind, bytes"},
    {"answer", 1, "heartbeats are answered: 0 rightly, else wrongly"},
    {"deliver", 1, "so many bytes of what the server has said arrive; 0: all"},
    {"take", 1, "the server takes so many bytes; 0: all"},
    {"end", 0, "the server ends its side"},
    {"reset", 0, "the server resets the connection"},
    {"link", 1, "the link to the server: 0 goes silent, else it is there again"},
    {"say", 2, "a service says something: stream id, bytes"},
    {"read", 2, "a service reads: stream id, bytes; 0: all"},
    {"service-end", 1, "a service ends its side: stream id"},
    {"service-reset", 1, "a service resets its connection: stream id"},
    {"fail", 3, "a call fails: which, errno, calls until then"},
    {"order", 1, "a newer order for the data connections; on the control connection: kind"},
    {"stop", 0, "data connections are no longer wanted, and then are again"},
    {"ballast", 1, "so many bytes are charged to the memory figure by others"},
    {"settle", 0, "everybody reads and answers, until all is said and done"},
    {"control", 0, "as the first step: it is the control connection"},
    {"report", 2, "the box reports something to the server: bytes, times"},
};
static_assert(sizeof DESCRIPTIONS / sizeof DESCRIPTIONS[0] == OP_COUNT);

}  // namespace

const op_description& description(op what) { return DESCRIPTIONS[static_cast<size_t>(what)]; }

std::string text_of(const schedule& steps) {
    std::ostringstream text;
    for (const step& one : steps) {
        text << description(one.what).name;
        for (size_t i = 0; i < description(one.what).arguments; i++) {
            text << ' ' << one.with[i];
        }
        text << '\n';
    }
    return text.str();
}

static bool step_read(std::istringstream& words, step* out) {
    std::string name, more;
    words >> name;
    for (size_t i = 0; i < OP_COUNT; i++) {
        if (DESCRIPTIONS[i].name == name) {
            out->what = static_cast<op>(i);
            for (size_t argument = 0; argument < DESCRIPTIONS[i].arguments; argument++) {
                words >> out->with[argument];
            }
            return !words.fail() && !(words >> more);
        }
    }
    return false;
}

bool schedule_read(std::string_view text, schedule* steps, std::string* error) {
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        std::istringstream words(line);
        if (!step_read(words, &steps->emplace_back())) {
            *error = line;
            return false;
        }
    }
    return true;
}
