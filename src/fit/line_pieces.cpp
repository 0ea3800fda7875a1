#include "fit/line_pieces.h"

#include <algorithm>

#include "text/text.h"

namespace corvane {

std::vector<LinePiece> cutIntoPieces(const std::string& contents, std::size_t pieceLength) {
    std::vector<LinePiece> pieces;
    std::size_t pos = 0;
    for (int line = 1; pos < contents.size(); ++line) {
        const std::size_t lf = contents.find('\n', pos);
        std::string text = contents.substr(pos, lf == std::string::npos ? lf : lf - pos);
        if (lf != std::string::npos) {
            if (!text.empty() && text.back() == '\r') text.pop_back();
            text += '\n';
        }
        // text is never empty: it holds at least the line's newline or its last character.
        const std::size_t length = std::min(pieceLength, text.size());
        for (std::size_t at = 0; at < text.size(); at += length) {
            std::string part = text.substr(at, length);
            std::string upper = upperCopy(part);
            pieces.push_back({std::move(part), std::move(upper), line});
        }
        pos = lf == std::string::npos ? contents.size() : lf + 1;
    }
    return pieces;
}

std::vector<LinePiece> cutIntoLines(const std::string& contents) {
    return cutIntoPieces(contents, std::string::npos);
}

bool isSkipped(const LinePiece& piece) {
    return piece.text.front() == '\n' || piece.text.find('!') != std::string::npos;
}

std::string_view word(std::string_view text, int n) {
    constexpr std::string_view separators = " \t\r\n";
    for (int i = 1;; ++i) {
        const std::size_t begin = text.find_first_not_of(separators);
        if (begin == std::string_view::npos) return {};
        text.remove_prefix(begin);
        const std::size_t end = std::min(text.find_first_of(separators), text.size());
        if (i == n) return text.substr(0, end);
        text.remove_prefix(end);
    }
}

} // namespace corvane
