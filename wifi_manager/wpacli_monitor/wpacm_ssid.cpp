// Network names between wpa_supplicant's text and the names the daemon
// keeps, shows and stores. wpa_supplicant prints an SSID with C-like escapes
// (bytes outside 32..126, the quote and the backslash escaped), stores and
// saves it quoted or in hexadecimal; the daemon keeps the name as the bytes
// the access point sends when they are readable UTF-8 text, and as the
// quoted escaped form P"..." otherwise, so that every name it shows is UTF-8
// text that a client can send back to join that very network.
#include <stdio.h>
#include <string.h>

#include "wpacm_internal.h"

static int wpacm_hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// One \x escape: two hexadecimal digits, or one when only one follows.
static size_t wpacm_decode_hex_escape(const std::string& text, size_t at, std::string* out) {
    int high = at < text.size() ? wpacm_hex_digit(text[at]) : -1;
    if (high < 0) {
        return at;
    }
    int low = at + 1 < text.size() ? wpacm_hex_digit(text[at + 1]) : -1;
    if (low < 0) {
        *out += static_cast<char>(high);
        return at + 1;
    }
    *out += static_cast<char>(high * 16 + low);
    return at + 2;
}

// Up to three octal digits.
static size_t wpacm_decode_octal_escape(const std::string& text, size_t at, std::string* out) {
    int value = 0;
    size_t end = at;
    while (end < text.size() && end < at + 3 && text[end] >= '0' && text[end] <= '7') {
        value = value * 8 + (text[end] - '0');
        end++;
    }
    *out += static_cast<char>(value & 0xff);
    return end;
}

// The escapes wpa_supplicant reads, as it reads them: an unknown escape
// drops its backslash.
std::string wpacm_decode_wpa_text(const std::string& text) {
    std::string out;
    size_t at = 0;
    while (at < text.size()) {
        if (text[at] != '\\') {
            out += text[at++];
            continue;
        }
        at++;
        if (at >= text.size()) {
            break;
        }
        char c = text[at];
        static const char plain_from[] = "\\\"nrte";
        static const char plain_to[] = "\\\"\n\r\t\033";
        const char* known = strchr(plain_from, c);
        if (c != '\0' && known != nullptr) {
            out += plain_to[known - plain_from];
            at++;
        } else if (c == 'x') {
            at = wpacm_decode_hex_escape(text, at + 1, &out);
        } else if (c >= '0' && c <= '7') {
            at = wpacm_decode_octal_escape(text, at, &out);
        }
    }
    return out;
}

std::string wpacm_encode_wpa_text(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\033':
                out += "\\e";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c >= 32 && c <= 126) {
                    out += static_cast<char>(c);
                } else {
                    char escape[8];
                    snprintf(escape, sizeof(escape), "\\x%02x", c);
                    out += escape;
                }
        }
    }
    return out;
}

// The length of the UTF-8 sequence at the start of text, or 0 when it is
// not a well-formed one (overlong forms, surrogates and values past
// U+10FFFF are not).
static size_t wpacm_utf8_sequence(const unsigned char* text, size_t left) {
    unsigned char c = text[0];
    if (c < 0x80) {
        return 1;
    }
    size_t length = c >= 0xc2 && c <= 0xdf   ? 2
                    : c >= 0xe0 && c <= 0xef ? 3
                    : c >= 0xf0 && c <= 0xf4 ? 4
                                             : 0;
    if (length == 0 || length > left) {
        return 0;
    }
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (c == 0xe0) {
        low = 0xa0;
    } else if (c == 0xed) {
        high = 0x9f;
    } else if (c == 0xf0) {
        low = 0x90;
    } else if (c == 0xf4) {
        high = 0x8f;
    }
    if (text[1] < low || text[1] > high) {
        return 0;
    }
    for (size_t i = 2; i < length; i++) {
        if (text[i] < 0x80 || text[i] > 0xbf) {
            return 0;
        }
    }
    return length;
}

// Readable text: well-formed UTF-8 without control characters, which XML
// answers and the profile file's lines could not carry.
bool wpacm_is_readable_name(const std::string& bytes) {
    const unsigned char* text = reinterpret_cast<const unsigned char*>(bytes.data());
    size_t at = 0;
    while (at < bytes.size()) {
        if (text[at] < 32 || text[at] == 127) {
            return false;
        }
        size_t length = wpacm_utf8_sequence(text + at, bytes.size() - at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

std::string wpacm_ssid_from_bytes(const std::string& bytes) {
    if (wpacm_is_readable_name(bytes)) {
        return bytes;
    }
    return "P\"" + wpacm_encode_wpa_text(bytes) + "\"";
}

// A name in the P"..." form stands for other bytes only when those bytes
// would be shown in that very form; any other name is its own bytes.
std::string wpacm_ssid_to_bytes(const std::string& name) {
    if (name.size() < 3 || name.compare(0, 2, "P\"") != 0 || name.back() != '"') {
        return name;
    }
    std::string bytes = wpacm_decode_wpa_text(name.substr(2, name.size() - 3));
    return wpacm_ssid_from_bytes(bytes) == name ? bytes : name;
}

std::string wpacm_ssid_from_wpa_text(const std::string& text) {
    return wpacm_ssid_from_bytes(wpacm_decode_wpa_text(text));
}

static bool wpacm_is_plain_ascii(const std::string& bytes) {
    for (unsigned char c : bytes) {
        if (c < 32 || c > 126 || c == '"' || c == '\\') {
            return false;
        }
    }
    return true;
}

std::string wpacm_ssid_network_value(const std::string& name, bool* quoted) {
    std::string bytes = wpacm_ssid_to_bytes(name);
    *quoted = wpacm_is_plain_ascii(bytes);
    if (*quoted) {
        return bytes;
    }
    std::string hex;
    for (unsigned char c : bytes) {
        char digits[4];
        snprintf(digits, sizeof(digits), "%02x", c);
        hex += digits;
    }
    return hex;
}

static bool wpacm_is_hex_text(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0) {
        return false;
    }
    for (char c : text) {
        if (wpacm_hex_digit(c) < 0) {
            return false;
        }
    }
    return true;
}

// A saved network's ssid value: "text", P"escaped text" or bare hexadecimal.
std::string wpacm_ssid_from_config_value(const std::string& value) {
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        return wpacm_ssid_from_bytes(value.substr(1, value.size() - 2));
    }
    if (value.size() >= 3 && value.compare(0, 2, "P\"") == 0 && value.back() == '"') {
        return wpacm_ssid_from_wpa_text(value.substr(2, value.size() - 3));
    }
    if (wpacm_is_hex_text(value)) {
        std::string bytes;
        for (size_t i = 0; i < value.size(); i += 2) {
            bytes +=
                static_cast<char>(wpacm_hex_digit(value[i]) * 16 + wpacm_hex_digit(value[i + 1]));
        }
        return wpacm_ssid_from_bytes(bytes);
    }
    return wpacm_remove_quote(value);
}
