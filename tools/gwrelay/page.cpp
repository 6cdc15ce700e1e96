#include "page.h"

#include <cstdio>

namespace {

constexpr char HTML_HEAD[] =
    "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><meta http-equiv=\"refresh\" "
    "content=\"5\"><title>gwrelay</title><style>body{font-family:sans-serif;margin:2em}"
    "table{border-collapse:collapse;margin-bottom:2em}td,th{border:1px solid #ccc;padding:.3em "
    ".7em;text-align:left;font-weight:normal}th{background:#f3f3f3}</style></head><body>\n"
    "<h1>gwrelay</h1>\n";
constexpr char HTML_END[] =
    "<p>A request to a port of a device: /&lt;device id&gt;/&lt;port&gt;/&lt;path&gt;. "
    "The same as JSON: <a href=\"/status.json\">/status.json</a>.</p>\n</body></html>\n";

struct device_totals {
    size_t streams = 0;
    uint64_t in, out;
};

device_totals totals_of(const device& box) {
    device_totals totals{0, box.bytes_in, box.bytes_out};
    for (const auto& link : box.data) {
        totals.streams += link->streams.size();
        totals.in += link->bytes_in;
        totals.out += link->bytes_out;
    }
    return totals;
}

std::string status_word(const device& box) {
    char word[16] = "none yet";
    if (box.dlna_status) {
        snprintf(word, sizeof word, "0x%x", *box.dlna_status);
    }
    return word;
}

std::string row(std::string_view name, std::string_view html) {
    return std::string("<tr><th>").append(name).append("</th><td>").append(html) + "</td></tr>\n";
}

std::string device_html(const device& box) {
    const device_totals totals = totals_of(box);
    std::string html = "<h2>" + html_escape(box.id) + "</h2>\n<table>\n";
    html += row("control connection", box.control != nullptr ? "up" : "down");
    html += row("data connections", std::to_string(box.data.size()) + " up");
    html += row("open streams", std::to_string(totals.streams));
    html += row("bytes from the device", std::to_string(totals.in));
    html += row("bytes to the device", std::to_string(totals.out));
    html += row("DLNA status", status_word(box));
    for (const auto& [key, port] : box.ports) {
        const std::string path = "/" + percent_encode(box.id) + "/" + std::to_string(port) + "/";
        html += row(html_escape(key), "<a href=\"" + path + "\">" + std::to_string(port) + "</a>");
    }
    for (const auto& [key, value] : box.info) {
        html += row(html_escape(key), html_escape(value));
    }
    return html + "</table>\n";
}

std::string streams_json(const data_link& link) {
    std::string json;
    for (const auto& [id, user] : link.streams) {
        json += (json.empty() ? "" : ",") + ("{\"id\":" + std::to_string(id)) +
                ",\"port\":" + std::to_string(user->port) +
                ",\"bytes_from_device\":" + std::to_string(user->from_device) +
                ",\"bytes_to_device\":" + std::to_string(user->to_device) + "}";
    }
    return "[" + json + "]";
}

std::string connections_json(const device& box) {
    std::string json;
    for (const auto& link : box.data) {
        json += json.empty() ? "" : ",";
        json += std::string("{\"held_back\":") + (link->held_back ? "true" : "false") +
                ",\"bytes_from_device\":" + std::to_string(link->bytes_in) +
                ",\"bytes_to_device\":" + std::to_string(link->bytes_out) +
                ",\"streams\":" + streams_json(*link) + "}";
    }
    return "[" + json + "]";
}

std::string device_json(const device& box) {
    const device_totals totals = totals_of(box);
    std::string info, ports;
    for (const auto& [key, value] : box.info) {
        info += (info.empty() ? "" : ",") + json_quote(key) + ":" + json_quote(value);
    }
    for (const auto& [key, port] : box.ports) {
        ports += (ports.empty() ? "" : ",") + json_quote(key) + ":" + std::to_string(port);
    }
    return "{\"id\":" + json_quote(box.id) +
           ",\"path\":" + json_quote("/" + percent_encode(box.id) + "/") +
           ",\"control\":" + (box.control != nullptr ? "true" : "false") + ",\"info\":{" + info +
           "},\"ports\":{" + ports +
           "},\"dlna_status\":" + (box.dlna_status ? std::to_string(*box.dlna_status) : "null") +
           ",\"data_connections\":" + std::to_string(box.data.size()) +
           ",\"open_streams\":" + std::to_string(totals.streams) +
           ",\"bytes_from_device\":" + std::to_string(totals.in) +
           ",\"bytes_to_device\":" + std::to_string(totals.out) +
           ",\"connections\":" + connections_json(box) + "}";
}

}  // namespace

std::string page_html(const relay& hub) {
    std::string html = HTML_HEAD;
    if (hub.devices.empty()) {
        html += "<p>No device has logged in yet.</p>\n";
    }
    for (const auto& [id, box] : hub.devices) {
        html += device_html(*box);
    }
    return html + HTML_END;
}

std::string page_json(const relay& hub) {
    std::string json;
    for (const auto& [id, box] : hub.devices) {
        json += (json.empty() ? "" : ",") + device_json(*box);
    }
    return "{\"devices\":[" + json + "]}\n";
}
