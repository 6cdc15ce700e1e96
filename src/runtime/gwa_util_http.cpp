#include "runtime/gwa_util_http.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "main/gwa_log.h"
#include "runtime/gwa_types.h"

namespace {

constexpr size_t HEAD_SIZE_MIN = 18;    // "GET / HTTP/1.0" and an empty line
constexpr size_t HEAD_SIZE_MAX = 4096;  // of a request head that is examined
constexpr size_t LOGGED_URL_MAX = 255;  // a log line need not hold more: exception 64

constexpr std::string_view METHODS[] = {"GET ", "POST ", "HEAD "};

struct mime_type {
    std::string_view extension;
    const char* type;
};
constexpr char MIME_DEFAULT[] = "application/octet-stream";
constexpr mime_type MIME_TYPES[] = {
    {"rm", "application/vnd.rn-realmedia"},
    {"js", "application/x-javascript"},
    {"jpg", "image/jpeg"},
    {"png", "image/png"},
    {"gif", "image/gif"},
    {"ico", "image/x-icon"},
    {"jpe", "image/jpeg"},
    {"bmp", "application/x-bmp"},
    {"tif", "image/tiff"},
    {"avi", "video/avi"},
    {"mp4", "video/mpeg4"},
    {"wmv", "video/x-ms-wmv"},
    {"asf", "video/x-ms-asf"},
    {"afx", "video/x-ms-asf"},
    {"swf", "application/x-shockwave-flash"},
    {"m1v", "video/x-mpeg"},
    {"m2v", "video/x-mpeg"},
    {"m4e", "video/mpeg4"},
    {"mpg", "video/mpg"},
    {"mpa", "video/mpg"},
    {"mpe", "video/x-mpeg"},
    {"txt", "text/plain"},
    {"xml", "text/xml"},
    {"htm", "text/html"},
    {"css", "text/css"},
    {"pdf", "application/pdf"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"doc", "application/msword"},
    {"mp3", "audio/mp3"},
    {"wma", "audio/x-ms-wma"},
    {"wav", "audio/wav"},
    {"m3u", "audio/mpegurl"},
    {"mid", "audio/mid"},
    {"mp1", "audio/mp1"},
    {"mp2", "audio/mp2"},
    {"jpeg", "image/jpeg"},
    {"tiff", "image/tiff"},
    {"rmvb", "application/vnd.rn-realmedia-vbr"},
    {"html", "image/html"},  // oddity 11
    {"midi", "audio/mid"},
};

}  // namespace

// The URI's offset in the head, or 0 when the method is none that is served.
static size_t uri_offset(std::string_view head) {
    for (const std::string_view method : METHODS) {
        if (head.starts_with(method)) {
            return method.size();
        }
    }
    return 0;
}

int gwa_http_uri_get(const char* head, size_t length, char* uri, size_t size) {
    if (size == 0) {
        return -1;
    }
    if (length < HEAD_SIZE_MIN) {
        GWA_LOG(REFUSAL, "HTTP head size too short");
        return -1;
    }
    std::string_view rest(head, std::min(length, HEAD_SIZE_MAX));
    const size_t offset = uri_offset(rest);
    if (offset == 0) {
        GWA_LOG(REFUSAL, "HTTP method not support!!!");
        return -1;
    }
    rest.remove_prefix(offset);
    if (rest.front() != '/') {
        GWA_LOG(REFUSAL, "HTTP requeset URI error");
        return -1;
    }
    const size_t taken = std::min(std::min(rest.find(' '), rest.size()), size - 1);
    uri[rest.copy(uri, taken)] = '\0';
    return 0;
}

// What follows "name=", or null. Only the first occurrence of the name counts, wherever it is: "id"
// is found inside "uid".
static const char* param_value(const char* text, std::string_view name) {
    const size_t at = std::string_view(text).find(name);
    if (at == std::string_view::npos || text[at + name.size()] != '=') {
        return nullptr;
    }
    return text + at + name.size() + 1;
}

int gwa_uri_param_int_get(const char* text, const char* name, size_t name_length, int32_t* out) {
    const char* value = param_value(text, {name, name_length});
    if (value == nullptr) {
        return -1;
    }
    char* end = nullptr;
    const long number = strtol(value, &end, 10);
    if (end == value) {
        GWA_LOG(DEBUG, "integer is invalid");
        return -1;
    }
    *out = static_cast<int32_t>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
    return 0;
}

int gwa_uri_param_str_get(const char* text, const char* name, size_t name_length, char* out,
                          size_t* size) {
    const char* value = param_value(text, {name, name_length});
    if (value == nullptr || *size == 0) {
        return -1;
    }
    const size_t length = std::min(strcspn(value, " &"), *size - 1);
    *std::copy_n(value, length, out) = '\0';
    *size = length;
    return 0;
}

int gwa_json_str_get(const char* text, const char* key, size_t key_length, char* out, size_t size) {
    std::string_view rest(text);
    const size_t at = rest.find({key, key_length});
    if (at == std::string_view::npos || size == 0) {
        return -1;
    }
    rest.remove_prefix(std::min(at + key_length + 1, rest.size()));  // past the key's closing quote
    const size_t opening = rest.find('"');
    if (opening == std::string_view::npos) {
        return -1;
    }
    rest.remove_prefix(opening + 1);
    const size_t written =
        rest.copy(out, std::min(std::min(rest.find('"'), rest.size()), size - 1));
    rest.remove_prefix(written);
    return rest.starts_with('"') ? 0 : -1;
}

// A text that need not be terminated, for a log line.
struct logged_text {
    char text[LOGGED_URL_MAX + 1];
    explicit logged_text(std::string_view from) { text_copy(text, from); }
};

const char* gwa_url_mime_get(const char* url, size_t length) {
    const std::string_view text(url, length);
    const size_t dot = text.rfind('.');
    if (length <= 1 || dot == std::string_view::npos || dot == 0) {
        GWA_LOG(ERROR, "url not contains dot %s", logged_text(text).text);
        return MIME_DEFAULT;
    }
    const std::string_view extension(url + dot + 1, length - dot - 1);
    if (extension.empty()) {
        GWA_LOG(ERROR, "url contains dot but not contains valid extension %s",
                logged_text(text).text);
        return MIME_DEFAULT;
    }
    GWA_LOG(DEBUG, "extension = %s, size = %d", logged_text(extension).text,
            static_cast<int>(extension.size()));
    for (const mime_type& known : MIME_TYPES) {
        if (known.extension == extension) {
            return known.type;
        }
    }
    GWA_LOG(ERROR, "unsupport mime type %s", logged_text(extension).text);
    return MIME_DEFAULT;
}

size_t gwa_url_percent_drop(const char* from, size_t length, char* to, size_t size) {
    size_t written = 0;
    for (size_t i = 0; i < length && written < size; i++) {
        if (from[i] == '%' && ++i == length) {
            break;
        }
        to[written++] = from[i];
    }
    return written;
}
