#pragma once
/// @file
/// A directory of a test's own below the working directory, removed with all it holds at the end.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

class TempDirectory {
public:
    TempDirectory() {
        std::string name = (std::filesystem::current_path() / "tmp-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp " + name);
        path_ = name;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string Path(std::string_view name) const { return (path_ / name).string(); }

    std::string AddFile(std::string_view name, std::string_view content) const {
        std::ofstream(Path(name), std::ios::binary) << content;
        return Path(name);
    }

    /// Empty when there is no such file.
    std::string ReadFile(std::string_view name) const {
        std::ifstream in(Path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    bool Exists(std::string_view name) const { return std::filesystem::exists(Path(name)); }

private:
    std::filesystem::path path_;
};
