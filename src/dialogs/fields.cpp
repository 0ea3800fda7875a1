#include "dialogs/fields.h"

#include <cctype>
#include <climits>
#include <vector>

#include "text/text.h"

namespace corvane {

std::string fieldText(const Dialog& dialog, int id, int length) {
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1, '\0');
    dialog.text(id).copy(buffer.data(), static_cast<std::size_t>(length));
    trimLeft(buffer.data());
    trimRight(buffer.data());
    return buffer.data();
}

bool passes(const std::string& text, FieldKind kind) {
    return kind == FieldKind::Integer ? isInteger(text.c_str()) : isReal(text.c_str());
}

bool checkField(Dialog& dialog, int id, FieldKind kind, int length) {
    if (passes(fieldText(dialog, id, length), kind)) return true;
    refuse(dialog, id);
    return false;
}

namespace {

// Whether a number starts text after its leading blanks: a digit, or a sign or point (or a sign
// and a point) before one.
bool startsNumber(const std::string& text, bool allowPoint) {
    std::size_t i = text.find_first_not_of(' ');
    if (i == std::string::npos) return false;
    if (text[i] == '+' || text[i] == '-') ++i;
    if (allowPoint && i < text.size() && text[i] == '.') ++i;
    return i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) != 0;
}

} // namespace

bool scanReal(const std::string& text, float& value) {
    if (!startsNumber(text, true)) return false;
    value = static_cast<float>(readLeadingReal(text));
    return true;
}

bool scanInteger(const std::string& text, int& value) {
    if (!startsNumber(text, false)) return false;
    value = readLeadingInteger(text);
    return true;
}

int unsignedValue(const std::string& text) {
    std::size_t i = text.find_first_not_of(' ');
    if (i == std::string::npos) return 0;
    long long value = 0;
    std::size_t digits = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) != 0; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > INT_MAX) return 0;
        ++digits;
    }
    if (digits == 0 || text.find_first_not_of(' ', i) != std::string::npos) return 0;
    return static_cast<int>(value);
}

void refuse(Dialog& dialog, int id) {
    dialog.beep();
    dialog.setFocus(id);
}

} // namespace corvane
