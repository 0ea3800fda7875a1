// Reading and checking the text fields of the dialogs, as they all do it: a field's text is
// read into a buffer of fixed length and trimmed of blanks at both ends; a field that fails its
// check beeps and takes the focus back.
#pragma once

#include <string>

#include "platform/dialog.h"

namespace corvane {

// The text of control id as it is read: its first length characters, trimmed.
std::string fieldText(const Dialog& dialog, int id, int length);

enum class FieldKind { Real, Integer };

// Whether text passes isReal or isInteger.
bool passes(const std::string& text, FieldKind kind);

// The check made whenever a field reports anything: true when its text passes; otherwise a
// beep and the focus back into the field.
bool checkField(Dialog& dialog, int id, FieldKind kind, int length);

// The number at the start of text, as a "%f" or "%d" scan finds it: false, with value left as
// it was, when text holds no number at all.
bool scanReal(const std::string& text, float& value);
bool scanInteger(const std::string& text, int& value);

// text read as an unsigned decimal integer with nothing after it but blanks; 0 when it is not
// one (empty, signed, other characters after the digits, or too large).
int unsignedValue(const std::string& text);

// A beep and the focus into control id: how a dialog refuses a value at OK.
void refuse(Dialog& dialog, int id);

} // namespace corvane
