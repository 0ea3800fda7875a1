// The choosers: files to open and save, and the label font.
//
// The chooser is reached through the chooser port in use, as messages are through the message
// port. Until a front end installs its own, every choice is cancelled. ScriptedChoosers answers
// from a list, for the tests.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "platform/surface.h"

namespace corvane {

struct FileFilter {
    std::string description; // "Fitting input files (*.qpi)"
    std::string pattern;     // "*.qpi"
};

struct OpenFileRequest {
    std::vector<FileFilter> filters;
    int filterIndex = 1;          // the filter shown first, numbered from 1
    std::string defaultExtension; // "QPI", without the dot: appended to a name typed without one
    std::string initialPath;      // shown as the initial file name; "" for none
};

// path with ".extension" appended when its file name has no dot; when that file does not
// exist but one with the extension in lower case does, that one (a typed "run" finds
// "run.qpi" for "QPI"). path unchanged when extension is empty.
std::string withDefaultExtension(const std::string& path, const std::string& extension);

struct SaveFileRequest {
    std::vector<FileFilter> filters; // the pattern's extension is appended to a bare name
    int filterIndex = 1;             // the filter shown first, numbered from 1
    std::string initialPath;         // shown as the initial file name; "" for none
};

struct SavedFile {
    std::string path;    // with the chosen filter's extension when the name had none
    int filterIndex = 1; // the filter chosen, numbered from 1
};

// A font with its colour, as the font chooser gives them.
struct FontChoice {
    LogFont font;
    Colour colour = black;
};

class ChooserPort {
public:
    virtual ~ChooserPort() = default;
    // The chosen path, with the default extension applied; nothing when the user cancels.
    virtual std::optional<std::string> chooseOpenFile(const OpenFileRequest& request) = 0;
    // The path to save to; nothing when the user cancels. A file that exists has been
    // confirmed by the user for replacing.
    virtual std::optional<SavedFile> chooseSaveFile(const SaveFileRequest&) { return {}; }
    // A screen font with its effects (underline, strike-out, colour), the colour starting as
    // initialColour and no font preselected; nothing when the user cancels.
    virtual std::optional<FontChoice> chooseFont(Colour /*initialColour*/) { return {}; }
};

std::optional<std::string> chooseOpenFile(const OpenFileRequest& request);
std::optional<SavedFile> chooseSaveFile(const SaveFileRequest& request);
std::optional<FontChoice> chooseFont(Colour initialColour);

// Installed for its lifetime: keeps every request and answers with the next of answers (a path
// as the user would type it, or nothing for Cancel); cancels when none is left.
class ScriptedChoosers final : public ChooserPort {
public:
    ScriptedChoosers();
    ~ScriptedChoosers() override;
    ScriptedChoosers(const ScriptedChoosers&) = delete;
    ScriptedChoosers& operator=(const ScriptedChoosers&) = delete;
    std::optional<std::string> chooseOpenFile(const OpenFileRequest& request) override;
    std::optional<SavedFile> chooseSaveFile(const SaveFileRequest& request) override;
    std::optional<FontChoice> chooseFont(Colour initialColour) override;

    std::deque<std::optional<std::string>> answers;
    std::vector<OpenFileRequest> requests;
    std::deque<std::optional<SavedFile>> saveAnswers; // the path as chosen, extension applied
    std::vector<SaveFileRequest> saveRequests;
    std::deque<std::optional<FontChoice>> fontAnswers;
    std::vector<Colour> fontRequests; // the initial colour of each
};

} // namespace corvane
