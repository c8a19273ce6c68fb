// host_ini.cpp: see host_ini.h. The host links only the library's control
// API, so it carries its own small UTF-16 coder for this one file.
#include "host_ini.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

static void host_utf8_put(std::string* out, uint32_t cp)
{
    if (cp < 0x80) {
        *out += char(cp);
    } else if (cp < 0x800) {
        *out += char(0xC0 | cp >> 6);
        *out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out += char(0xE0 | cp >> 12);
        *out += char(0x80 | (cp >> 6 & 0x3F));
        *out += char(0x80 | (cp & 0x3F));
    } else {
        *out += char(0xF0 | cp >> 18);
        *out += char(0x80 | (cp >> 12 & 0x3F));
        *out += char(0x80 | (cp >> 6 & 0x3F));
        *out += char(0x80 | (cp & 0x3F));
    }
}

static std::string host_utf16le_to_utf8(const std::string& bytes, size_t start)
{
    std::string out;
    for (size_t i = start; i + 1 < bytes.size(); i += 2) {
        uint32_t unit = uint8_t(bytes[i]) | uint8_t(bytes[i + 1]) << 8;
        if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < bytes.size()) {
            uint32_t low = uint8_t(bytes[i + 2]) | uint8_t(bytes[i + 3]) << 8;
            if (low >= 0xDC00 && low < 0xE000) {
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            }
        }
        host_utf8_put(&out, unit);
    }
    return out;
}

static std::string host_latin1_to_utf8(const std::string& bytes)
{
    std::string out;
    for (unsigned char c : bytes)
        host_utf8_put(&out, c);
    return out;
}

std::vector<std::string> host_ini_decode(const std::string& bytes)
{
    bool utf16 = bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFF && uint8_t(bytes[1]) == 0xFE;
    std::string text = utf16 ? host_utf16le_to_utf8(bytes, 2) : host_latin1_to_utf8(bytes);
    std::vector<std::string> lines;
    std::string line;
    for (char c : text) {
        if (c == '\n' || c == '\r') {
            if (!line.empty())
                lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

// Decodes one UTF-8 sequence; a broken one is taken as a Latin-1 byte.
static uint32_t host_utf8_next(const std::string& s, size_t* i)
{
    unsigned char c = uint8_t(s[*i]);
    int extra = c >= 0xF0 && c < 0xF8 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
    if (c >= 0xF8 || *i + extra >= s.size())
        extra = 0;
    uint32_t cp = extra ? c & (0x3F >> extra) : c;
    for (int k = 1; k <= extra; k++) {
        unsigned char d = uint8_t(s[*i + k]);
        if ((d & 0xC0) != 0x80) {
            (*i)++;
            return c;
        }
        cp = cp << 6 | (d & 0x3F);
    }
    *i += 1 + extra;
    return cp;
}

static void host_utf16le_put(std::string* out, uint32_t unit)
{
    *out += char(unit & 0xFF);
    *out += char(unit >> 8);
}

std::string host_ini_encode(const std::vector<std::string>& lines)
{
    std::string out("\xFF\xFE", 2);
    for (const std::string& line : lines) {
        std::string text = line + "\r\n";
        for (size_t i = 0; i < text.size();) {
            uint32_t cp = host_utf8_next(text, &i);
            if (cp >= 0x10000) {
                cp -= 0x10000;
                host_utf16le_put(&out, 0xD800 + (cp >> 10));
                host_utf16le_put(&out, 0xDC00 + (cp & 0x3FF));
            } else {
                host_utf16le_put(&out, cp);
            }
        }
    }
    return out;
}

static bool host_key_matches(const std::string& line, const std::string& key)
{
    return line.size() > key.size() && line.compare(0, key.size(), key) == 0 && line[key.size()] == '=';
}

static bool host_write_replace(const std::string& path, const std::string& bytes, std::string* error)
{
    std::string temp = path + ".new";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()) && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    if (ok && rename(temp.c_str(), path.c_str()) == 0)
        return true;
    *error = "cannot write " + path + ": " + strerror(errno);
    unlink(temp.c_str());
    return false;
}

bool host_ini_apply(const std::string& path, const host_ini_settings& settings, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    if (in)
        all << in.rdbuf();
    std::vector<std::string> lines = host_ini_decode(all.str());
    if (lines.empty())
        lines.push_back("[main]");
    for (const auto& [key, value] : settings) {
        bool found = false;
        for (std::string& line : lines)
            if (host_key_matches(line, key)) {
                line = key + "=" + value;
                found = true;
            }
        if (!found)
            lines.push_back(key + "=" + value);
    }
    return host_write_replace(path, host_ini_encode(lines), error);
}
