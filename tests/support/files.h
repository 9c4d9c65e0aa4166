#pragma once
// Whole-file and line readers for the files the system writes: logs, spools, status files.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qlb::testing {

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> ReadLines(const std::filesystem::path& path) {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(path));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// How many lines of the file hold the text.
inline int CountLines(const std::filesystem::path& path, const std::string& text) {
    int n = 0;
    for (const auto& line : ReadLines(path)) {
        n += line.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

// The part of a growing file (a log) written after a mark taken with ReadFile(path).size().
class FileTail {
  public:
    explicit FileTail(std::filesystem::path path) : path_(std::move(path)), mark_(ReadFile(path_).size()) {}
    std::string Text() const {
        const std::string all = ReadFile(path_);
        return all.size() > mark_ ? all.substr(mark_) : std::string();
    }
    bool Has(const std::string& text) const { return Text().find(text) != std::string::npos; }

  private:
    std::filesystem::path path_;
    std::size_t mark_;
};

}  // namespace qlb::testing
