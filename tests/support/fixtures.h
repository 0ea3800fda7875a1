// Test helpers: a message port that records instead of showing, and a scratch directory.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/messages.h"
#include "platform/ports.h"

namespace corvane::testing {

struct ShownMessage {
    std::string text, caption;
    unsigned style;
};

// Installed for its lifetime: keeps every message box and beep, and answers with the next of
// answers (idOk when none is left).
class RecordingPort final : public MessagePort {
public:
    RecordingPort() { setMessagePort(this); }
    ~RecordingPort() override { setMessagePort(nullptr); }
    int messageBox(const std::string& text, const std::string& caption, unsigned style) override {
        messages.push_back({text, caption, style});
        if (answers.empty()) return idOk;
        int answer = answers.front();
        answers.pop_front();
        return answer;
    }
    void beep(unsigned type) override { beeps.push_back(type); }
    std::vector<ShownMessage> messages;
    std::vector<unsigned> beeps;
    std::deque<int> answers;
};

// A fresh directory under the system's temporary directory, removed with all it holds.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "corvane-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    bool has(const std::string& name) const { return std::filesystem::exists(file(name)); }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }
    std::string read(const std::string& name) const { // "" when there is no such file
        std::ifstream in(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // The names in the directory, sorted and joined by blanks: shows stray temporaries too.
    std::string listing() const { return listingOf(path_); }
    static std::string listingOf(const std::string& directory) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        std::string joined;
        for (const auto& name : names) joined += (joined.empty() ? "" : " ") + name;
        return joined;
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

} // namespace corvane::testing
