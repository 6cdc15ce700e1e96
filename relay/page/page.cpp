#include "page/page.h"

#include <cstdio>

namespace {

constexpr char HTML_HEAD[] =
    "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><meta http-equiv=\"refresh\" "
    "content=\"5\"><title>gwrelay</title><style>body{font-family:sans-serif;margin:2em}"
    "table{border-collapse:collapse;margin-bottom:1em}td,th{border:1px solid #ccc;padding:.3em "
    ".7em;text-align:left;font-weight:normal}th{background:#f3f3f3}.down{color:#b00}"
    "</style></head><body>\n<h1>gwrelay</h1>\n";
constexpr char HTML_END[] =
    "<p>A request to a port of a device: /DEVICE/PORT/PATH. "
    "The same as JSON: <a href=\"/status.json\">/status.json</a>.</p>\n</body></html>\n";

std::string bytes_text(uint64_t bytes) {
    constexpr uint64_t STEP = 1024;
    char text[32];
    if (bytes < STEP) {
        return std::to_string(bytes) + " B";
    }
    auto scaled = static_cast<double>(bytes) / STEP;
    const char* unit = "KMGTPE";
    while (scaled >= STEP) {
        scaled /= STEP;
        ++unit;
    }
    snprintf(text, sizeof text, "%.1f %ciB", scaled, *unit);
    return text;
}

std::string row(std::string_view name, std::string_view html) {
    return std::string("<tr><th>").append(name).append("</th><td>").append(html) + "</td></tr>\n";
}

std::string cells(const char* kind, std::initializer_list<std::string> texts) {
    std::string html = "<tr>";
    for (const std::string& text : texts) {
        html += std::string("<") + kind + ">" + text + "</" + kind + ">";
    }
    return html + "</tr>\n";
}

uint64_t waiting_bytes(const data_link& link) {
    uint64_t bytes = 0;
    for (const auto& [id, user] : link.streams) {
        bytes += user->out.size();
    }
    return bytes;
}

// Its connections, each with its streams below.
std::string connections_html(const device& box) {
    std::string html =
        "<table>\n" + cells("th", {"data connection", "stream", "port", "request",
                                   "from the device", "to the device", "waits for the user"});
    for (const auto& link : box.data) {
        html += cells(
            "td", {link->name.substr(0, link->name.find(' ')),
                   std::to_string(link->open_streams()) + " open", "",
                   link->held_back ? "held back by a slow user" : "", bytes_text(link->bytes_in),
                   bytes_text(link->bytes_out), bytes_text(waiting_bytes(*link))});
        for (const kept_stream& each : link->kept) {
            html += cells("td", {"", std::to_string(each.id), std::to_string(each.port),
                                 "kept for the next request", "", "", ""});
        }
        for (const auto& [id, user] : link->streams) {
            html += cells("td", {"", std::to_string(id), std::to_string(user->port),
                                 html_escape(user->what), bytes_text(user->from_device),
                                 bytes_text(user->to_device), bytes_text(user->out.size())});
        }
    }
    return html + "</table>\n";
}

std::string device_html(const device& box) {
    const std::string path = "/" + percent_encode(box.id) + "/";
    std::string html = "<h2>" + html_escape(box.id) + "</h2>\n<table>\n";
    html += row("control connection", box.control != nullptr ? "up" : "<b class=\"down\">down</b>");
    if (box.dlna_status) {
        char word[16];
        snprintf(word, sizeof word, "0x%x", *box.dlna_status);
        html += row("DLNA status", word);
    }
    for (const auto& [key, port] : box.ports) {
        const std::string link = path + std::to_string(port) + "/";
        html += row(html_escape(key), "<a href=\"" + link + "\">" + std::to_string(port) + "</a>");
    }
    html += row("streams cut", std::to_string(box.cuts));
    html += row("the daemon itself", "<a href=\"" + path + "10010/?x-qv-gwad-opt=echo\">echo</a>");
    for (const auto& [key, value] : box.info) {
        html += row(html_escape(key), html_escape(value));
    }
    return html + "</table>\n" + connections_html(box);
}

std::string counts_json(uint64_t in, uint64_t out, uint64_t waiting) {
    return "\"bytes_from_device\":" + std::to_string(in) +
           ",\"bytes_to_device\":" + std::to_string(out) +
           ",\"bytes_waiting\":" + std::to_string(waiting);
}

// One after the other, what `element` makes of each.
template <typename Elements, typename Function>
std::string joined(const Elements& elements, Function element) {
    std::string json;
    for (const auto& each : elements) {
        json += (json.empty() ? "" : ",") + element(each);
    }
    return json;
}

std::string connection_json(const data_link& link) {
    const auto stream = [](const auto& entry) {
        const user_link& user = *entry.second;
        return "{\"id\":" + std::to_string(entry.first) + ",\"port\":" + std::to_string(user.port) +
               ",\"request\":" + json_quote(user.what) + "," +
               counts_json(user.from_device, user.to_device, user.out.size()) + "}";
    };
    return std::string("{\"held_back\":") + (link.held_back ? "true" : "false") + "," +
           counts_json(link.bytes_in, link.bytes_out, waiting_bytes(link)) + ",\"streams\":[" +
           joined(link.streams, stream) + "]}";
}

std::string device_json(const device& box) {
    size_t streams = 0, kept = 0;
    uint64_t in = box.bytes_in, out = box.bytes_out, waiting = 0;
    for (const auto& link : box.data) {
        streams += link->open_streams();
        kept += link->kept.size();
        waiting += waiting_bytes(*link);
        in += link->bytes_in;
        out += link->bytes_out;
    }
    const auto text = [](const auto& pair) {
        return json_quote(pair.first) + ":" + json_quote(pair.second);
    };
    const auto port = [](const auto& pair) {
        return json_quote(pair.first) + ":" + std::to_string(pair.second);
    };
    const auto link = [](const auto& each) { return connection_json(*each); };
    return "{\"id\":" + json_quote(box.id) + ",\"name\":" + json_quote(box.label) +
           ",\"path\":" + json_quote("/" + percent_encode(box.id) + "/") +
           ",\"control\":" + (box.control != nullptr ? "true" : "false") + ",\"info\":{" +
           joined(box.info, text) + "},\"ports\":{" + joined(box.ports, port) +
           "},\"dlna_status\":" + (box.dlna_status ? std::to_string(*box.dlna_status) : "null") +
           ",\"data_connections\":" + std::to_string(box.data.size()) +
           ",\"open_streams\":" + std::to_string(streams) +
           ",\"kept_streams\":" + std::to_string(kept) + "," + counts_json(in, out, waiting) +
           ",\"streams_cut\":" + std::to_string(box.cuts) + ",\"connections\":[" +
           joined(box.data, link) + "]}";
}

std::string page_html(const relay& hub) {
    std::string html = HTML_HEAD;
    html += "<p>" + std::to_string(hub.admitted.users) + " users, " +
            std::to_string(hub.admitted.refused) + " refused; " + bytes_text(hub.pool.used) +
            " wait for users.</p>\n";
    if (hub.devices.empty()) {
        html += "<p>No device has logged in yet.</p>\n";
    }
    for (const auto& [id, box] : hub.devices) {
        html += device_html(*box);
    }
    return html + HTML_END;
}

std::string page_json(const relay& hub) {
    const auto box = [](const auto& entry) { return device_json(*entry.second); };
    return "{\"devices\":[" + joined(hub.devices, box) +
           "],\"users\":" + std::to_string(hub.admitted.users) +
           ",\"users_refused\":" + std::to_string(hub.admitted.refused) +
           ",\"bytes_waiting\":" + std::to_string(hub.pool.used) + "}\n";
}

}  // namespace

std::string page_answer(const relay& hub, const http_request& request) {
    const bool front_page = request.path == "/";
    if (!front_page && request.path != "/status.json") {
        return {};
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return http_reply(405, "text/plain", "Use GET.\n", "Allow: GET, HEAD\r\n");
    }
    return front_page ? http_reply(200, "text/html; charset=utf-8", page_html(hub))
                      : http_reply(200, "application/json", page_json(hub));
}
