#include "platform/choosers.h"

#include "platform/ports.h"

#include <filesystem>

namespace corvane {

namespace {

std::string lowerCopy(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

} // namespace

std::string withDefaultExtension(const std::string& path, const std::string& extension) {
    std::size_t slash = path.rfind('/');
    std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    if (extension.empty() || path.find('.', nameStart) != std::string::npos ||
        nameStart == path.size())
        return path;
    std::string given = path + "." + extension;
    std::string lower = path + "." + lowerCopy(extension);
    std::error_code ignored;
    if (!std::filesystem::exists(given, ignored) && std::filesystem::exists(lower, ignored))
        return lower;
    return given;
}

std::optional<std::string> chooseOpenFile(const OpenFileRequest& request) {
    return ports().choosers->chooseOpenFile(request);
}

std::optional<SavedFile> chooseSaveFile(const SaveFileRequest& request) {
    return ports().choosers->chooseSaveFile(request);
}

std::optional<FontChoice> chooseFont(Colour initialColour) {
    return ports().choosers->chooseFont(initialColour);
}

namespace {

template <typename T> std::optional<T> next(std::deque<std::optional<T>>& answers) {
    if (answers.empty()) return {};
    std::optional<T> answer = std::move(answers.front());
    answers.pop_front();
    return answer;
}

} // namespace

std::optional<SavedFile> ScriptedChoosers::chooseSaveFile(const SaveFileRequest& request) {
    saveRequests.push_back(request);
    return next(saveAnswers);
}

std::optional<FontChoice> ScriptedChoosers::chooseFont(Colour initialColour) {
    fontRequests.push_back(initialColour);
    return next(fontAnswers);
}

std::optional<std::string> ScriptedChoosers::chooseOpenFile(const OpenFileRequest& request) {
    requests.push_back(request);
    if (answers.empty()) return {};
    std::optional<std::string> answer = std::move(answers.front());
    answers.pop_front();
    if (answer) return withDefaultExtension(*answer, request.defaultExtension);
    return {};
}

ScriptedChoosers::ScriptedChoosers() { setChooserPort(this); }
ScriptedChoosers::~ScriptedChoosers() { setChooserPort(nullptr); }

} // namespace corvane
