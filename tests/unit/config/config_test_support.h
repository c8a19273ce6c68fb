// config_test_support.h: a scratch program folder with the shipped string
// files, the option store started in it, the locale pinned, a log to read.
#pragma once
#include "config/upnp_ini.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

// UTF-16LE bytes of UTF-8 text, optionally behind the FF FE mark.
inline std::string config_utf16(const std::string& utf8, bool mark = true)
{
    std::string out = mark ? std::string("\xFF\xFE", 2) : std::string();
    uint16_t* wide = upnp_string_utf8_to_utf16(utf8.c_str());
    for (uint16_t* w = wide; w && *w; w++) {
        out += char(*w & 0xFF);
        out += char(*w >> 8);
    }
    free(wide);
    return out;
}

// UTF-8 text of UTF-16LE bytes behind the FF FE mark ("" without the mark).
inline std::string config_from_utf16(const std::string& bytes)
{
    if (bytes.size() < 2 || bytes.compare(0, 2, "\xFF\xFE", 2) != 0)
        return "";
    std::vector<uint16_t> wide((bytes.size() - 2) / 2);
    memcpy(wide.data(), bytes.data() + 2, wide.size() * 2);   // little-endian, as the machines we run on
    char* text = upnp_string_utf16_to_utf8_n(wide.data(), wide.size());
    std::string out = text ? text : "";
    free(text);
    return out;
}

inline std::string config_or_null(const char* text) { return text ? text : "<null>"; }

inline bool config_has(const std::string& text, const std::string& piece) { return text.find(piece) != text.npos; }

// Keeps the locale variables for the length of a test and sets them (null
// unsets one).
struct config_locale {
    static constexpr const char* names[3] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    const char* saved[3] = {getenv(names[0]), getenv(names[1]), getenv(names[2])};
    std::string kept[3] = {config_or_null(saved[0]), config_or_null(saved[1]), config_or_null(saved[2])};
    ~config_locale() { set(saved[0] ? kept[0].c_str() : nullptr, saved[1] ? kept[1].c_str() : nullptr,
                           saved[2] ? kept[2].c_str() : nullptr); }
    static void set(const char* all, const char* messages, const char* lang)
    {
        const char* values[3] = {all, messages, lang};
        for (int i = 0; i < 3; i++)
            values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
    }
};

struct ConfigStart : ::testing::Test {
    test_dir dir;
    config_locale locale;
    std::string argv0 = dir.file("velmora");
    std::string ini = dir.file("velmora-mediaserver.ini");
    std::string log_path = dir.file("test.log");
    int32_t saved_full_mode = upnp_switches.full_mode, saved_tree_flat = upnp_switches.tree_flat;

    void SetUp() override
    {
        pin_language("C");
        upnp_switches.full_mode = 1;
        upnp_switches.tree_flat = 0;
        mkdir(dir.file("resources").c_str(), 0755);
        for (const char* name : {"strings-en.txt", "strings-de.txt"})
            ASSERT_TRUE(test_write_file(dir.file("resources/") + name,
                                        test_read_file(std::string(VELMORA_SOURCE_DIR "/resources/") + name)));
    }
    void TearDown() override
    {
        upnp_ini_release();
        upnp_log_set_mode(0);
        upnp_log_set_level(15);
        upnp_log_init(nullptr);
        upnp_switches.full_mode = saved_full_mode;
        upnp_switches.tree_flat = saved_tree_flat;
    }
    static void pin_language(const char* lang) { config_locale::set(nullptr, nullptr, lang); }

    // Runs the start-up load with argv0 and these arguments behind it; the
    // vector keeps the texts, which the load may change in place.
    std::vector<std::string> arguments;
    void start(std::vector<std::string> more = {})
    {
        arguments = {argv0};
        arguments.insert(arguments.end(), more.begin(), more.end());
        std::vector<char*> pointers;
        for (std::string& a : arguments)
            pointers.push_back(a.data());
        pointers.push_back(nullptr);
        upnp_ini_file_read_cmdline(int32_t(arguments.size()), pointers.data());
    }
    void log_to_file()
    {
        upnp_log_init(log_path.c_str());
        upnp_log_set_mode(UPNP_LOG_ALL_CHANNELS);
        upnp_log_set_level(15);
    }
    bool logged(const std::string& piece) { return config_has(test_read_file(log_path), piece); }
    std::string value(int32_t id) { return config_or_null(upnp_ini_get_string(id)); }
    std::string ini_text() { return config_from_utf16(test_read_file(ini)); }
    void write_ini(const std::string& utf8) { ASSERT_TRUE(test_write_file(ini, config_utf16(utf8))); }
    // A string file "resources/strings-<code>.txt" of these lines.
    void write_strings(const char* code, const std::string& lines)
    {
        ASSERT_TRUE(test_write_file(dir.file("resources/strings-") + code + ".txt", config_utf16(lines)));
    }
};
