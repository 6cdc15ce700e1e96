#include "page/page.h"

#include <algorithm>

#include "page/files.h"
#include "page/status.h"

namespace {

// Nothing from elsewhere, nothing in the page's own text that runs, no other site around it.
#define PAGE_SAFETY                                                                      \
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; " \
    "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "          \
    "frame-ancestors 'none'\r\nX-Content-Type-Options: nosniff\r\nReferrer-Policy: "     \
    "same-origin\r\nX-Frame-Options: DENY\r\nCross-Origin-Resource-Policy: same-origin\r\n"
constexpr char FRESH[] = PAGE_SAFETY "Cache-Control: no-store\r\n";
constexpr char EVENTS_HEAD[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nX-Accel-Buffering: no\r\n" PAGE_SAFETY
    "Cache-Control: no-store\r\n\r\n";

std::string_view type_of(std::string_view name) {
    return name.ends_with(".css")   ? "text/css; charset=utf-8"
           : name.ends_with(".js")  ? "text/javascript; charset=utf-8"
           : name.ends_with(".svg") ? "image/svg+xml"
                                    : "text/html; charset=utf-8";
}

std::string file_answer(const page_file& file, const http_request& request) {
    const std::string headers =
        PAGE_SAFETY "Cache-Control: no-cache\r\nETag: " + std::string(file.tag) + "\r\n";
    if (http_header(request.headers, "if-none-match") == file.tag) {
        return "HTTP/1.1 304 Not Modified\r\n" + headers + "\r\n";
    }
    return http_reply(200, type_of(file.name), file.text, headers);
}

// Whether the page itself asks, and not another one that a browser shows. A browser tells; what
// tells nothing is no browser of today, and has no page to click on. Pages of boxes that are
// reached by a path have the same origin, and who serves them can do as much as the user.
bool comes_from_page(const http_request& request) {
    const std::string_view origin = http_header(request.headers, "origin");
    const std::string_view site = http_header(request.headers, "sec-fetch-site");
    const size_t host = origin.find("://");
    return host != origin.npos && origin.substr(host + 3) == http_header(request.headers, "host") &&
           (site.empty() || site == "same-origin");
}

std::string close_stream(const relay& hub, const http_request& request) {
    const auto found = hub.devices.find(query_take(request.query, "device").value_or(""));
    const auto number = number_parse<uint64_t>(query_take(request.query, "user").value_or(""));
    if (!comes_from_page(request)) {
        return http_text_reply(403, "Only the relay's own page may ask for this.");
    }
    if (found == hub.devices.end() || !number) {
        return http_text_reply(404, "No such stream.");
    }
    for (const auto& link : found->second->data) {
        for (const auto& [id, user] : link->streams) {
            if (user->number == *number) {
                const std::string what = user->name + ": " + user->what;
                log_line(EVENT, "device %s: stream %u of %s is closed on the page",
                         found->second->name.c_str(), id, what.c_str());
                found->second->lately.note(happening::CLOSED, what);
                user->cut = "closed on the page";
                user->close();
                return http_text_reply(200, "Closed.");
            }
        }
    }
    return http_text_reply(404, "No such stream.");
}

std::string read_answer(const relay& hub, user_link& user, const http_request& request) {
    if (request.path == "/status.events") {
        user.persistent = false;  // they have no length
        if (request.method == "GET") {
            user.watches = request.query;
        }
        return EVENTS_HEAD;
    }
    if (request.path == "/status.json") {
        return http_reply(200, "application/json", status_json(hub), FRESH);
    }
    const std::string_view name = request.path == "/" ? "index.html" : request.path.substr(1);
    const auto file = std::ranges::find(PAGE_FILES, name, &page_file::name);
    return file == PAGE_FILES.end() ? "" : file_answer(*file, request);
}

}  // namespace

std::string page_answer(const relay& hub, user_link& user, const http_request& request) {
    if (request.path == "/close-stream") {
        return request.method == "POST"
                   ? close_stream(hub, request)
                   : http_reply(405, "text/plain", "Use POST.\n", "Allow: POST\r\n");
    }
    std::string answer = read_answer(hub, user, request);
    const bool reads = request.method == "GET" || request.method == "HEAD";
    return answer.empty() || reads
               ? answer
               : http_reply(405, "text/plain", "Use GET.\n", "Allow: GET, HEAD\r\n");
}
