#pragma once
/// @file
/// Files and texts as tests look at them.

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

/// Empty when there is no such file.
inline std::string Content(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::vector<std::string> Lines(const std::string& content) {
    std::vector<std::string> lines;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}
