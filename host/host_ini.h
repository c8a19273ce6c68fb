// host_ini.h: the host's edit of the server's ini file before a start: a
// few keys are set, every other line is kept. The library reads the file at
// start and writes it back in full, with its comments.
#pragma once
#include <string>
#include <utility>
#include <vector>

typedef std::vector<std::pair<std::string, std::string>> host_ini_settings;

// Sets each key to its value in the ini file at path (created when missing).
// The file is written as UTF-16LE with its mark and CRLF line ends, as the
// library writes it. Returns false with a message in *error on failure.
bool host_ini_apply(const std::string& path, const host_ini_settings& settings, std::string* error);

// The ini text as UTF-8 lines: UTF-16LE with the mark, else Latin-1 bytes.
std::vector<std::string> host_ini_decode(const std::string& bytes);
std::string host_ini_encode(const std::vector<std::string>& lines);
