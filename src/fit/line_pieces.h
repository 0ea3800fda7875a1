// The files of a fit are read line by line: the input file in whole lines, the engine output
// and the report in pieces of fixed length.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// A line of a file, or a piece of a line longer than the piece length. `text` ends with '\n'
// when the line's end falls in this piece; a CR before the LF is not part of the line.
struct LinePiece {
    std::string text;
    std::string upper; // upperCopy(text), for keywords searched without regard to case
    int line;          // line number in the file, from 1
};

// Cuts contents into pieces of at most pieceLength characters, the ending newline counted.
std::vector<LinePiece> cutIntoPieces(const std::string& contents, std::size_t pieceLength);

// Cuts contents into its lines, each whole however long it is.
std::vector<LinePiece> cutIntoLines(const std::string& contents);

// Empty lines and comment lines ("!" anywhere) are skipped before keywords are looked for.
bool isSkipped(const LinePiece& piece);

// Word n (from 1) of text, words being separated by blanks, tabs and line ends; "" when the
// text has fewer words.
std::string_view word(std::string_view text, int n);

} // namespace corvane
