#include "text/text.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale.h>

namespace corvane {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The check of isInteger (allowPoint false) and isReal (allowPoint true).
bool allDigitsWithSign(const char* s, bool allowPoint) {
    if (s == nullptr || *s == '\0') return false;
    bool pointSeen = false;
    for (const char* p = s; *p != '\0'; ++p) {
        if (isDigit(*p)) continue;
        if (p == s && (*p == '+' || *p == '-')) continue;
        if (allowPoint && *p == '.' && !pointSeen) {
            pointSeen = true;
            continue;
        }
        return false;
    }
    return true;
}

// The process-wide "C" locale object used by formatC; created once, never freed.
locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

} // namespace

void trimLeft(char* s) {
    if (s == nullptr) return;
    std::size_t skip = 0;
    while (s[skip] == ' ') ++skip;
    if (skip > 0) std::memmove(s, s + skip, std::strlen(s + skip) + 1);
}

void trimRight(char* s) {
    if (s == nullptr) return;
    std::size_t n = std::strlen(s);
    while (n > 0 && s[n - 1] == ' ') --n;
    s[n] = '\0';
}

bool isInteger(const char* s) { return allDigitsWithSign(s, false); }

bool isReal(const char* s) { return allDigitsWithSign(s, true); }

std::string upperCopy(std::string_view text) {
    std::string copy(text);
    for (char& c : copy) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return copy;
}

double readLeadingReal(std::string_view text) {
    std::size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string_view::npos) return 0.0;
    const std::size_t start = i;
    if (text[i] == '+' || text[i] == '-') ++i;
    const std::size_t intStart = i;
    while (i < text.size() && isDigit(text[i])) ++i;
    std::size_t digits = i - intStart;
    if (i < text.size() && text[i] == '.') {
        const std::size_t fracStart = ++i;
        while (i < text.size() && isDigit(text[i])) ++i;
        digits += i - fracStart;
    }
    if (digits == 0) return 0.0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        std::size_t e = i + 1;
        if (e < text.size() && (text[e] == '+' || text[e] == '-')) ++e;
        const std::size_t expStart = e;
        while (e < text.size() && isDigit(text[e])) ++e;
        if (e > expStart) i = e;
    }
    // The prefix is known to be a plain decimal number; strtod_l converts it, overflow giving an
    // infinity and underflow zero, in the "C" locale whatever the process locale is.
    const std::string number(text.substr(start, i - start));
    return strtod_l(number.c_str(), nullptr, cLocale());
}

int readLeadingInteger(std::string_view text) {
    std::size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string_view::npos) return 0;
    bool negative = false;
    if (text[i] == '+' || text[i] == '-') negative = text[i++] == '-';
    constexpr long long beyond = static_cast<long long>(INT_MAX) + 1; // saturates here
    long long value = 0;
    for (; i < text.size() && isDigit(text[i]); ++i)
        value = std::min(value * 10 + (text[i] - '0'), beyond);
    return static_cast<int>(std::clamp(negative ? -value : value, static_cast<long long>(INT_MIN),
                                       static_cast<long long>(INT_MAX)));
}

bool parseReal(std::string_view token, double& value) {
    if (token.empty() || token.find_first_of(" \t\n\v\f\r") != std::string_view::npos) return false;
    std::size_t i = 0;
    if (token[i] == '+' || token[i] == '-') ++i;
    std::size_t digits = 0;
    for (; i < token.size() && isDigit(token[i]); ++i) ++digits;
    if (i < token.size() && token[i] == '.')
        for (++i; i < token.size() && isDigit(token[i]); ++i) ++digits;
    if (digits == 0) return false;
    if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
        ++i;
        if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
        const std::size_t expStart = i;
        while (i < token.size() && isDigit(token[i])) ++i;
        if (i == expStart) return false;
    }
    if (i != token.size()) return false;
    const double read = readLeadingReal(token);
    if (!std::isfinite(read)) return false;
    value = read;
    return true;
}

bool parseInteger(std::string_view token, int& value) {
    std::size_t i = 0;
    if (!token.empty() && (token[0] == '+' || token[0] == '-')) ++i;
    if (i == token.size()) return false;
    for (std::size_t k = i; k < token.size(); ++k)
        if (!isDigit(token[k])) return false;
    const bool negative = token[0] == '-';
    long long magnitude = 0;
    for (; i < token.size(); ++i) {
        magnitude = magnitude * 10 + (token[i] - '0');
        if (magnitude > static_cast<long long>(INT_MAX) + 1) return false;
    }
    const long long signedValue = negative ? -magnitude : magnitude;
    if (signedValue < INT_MIN || signedValue > INT_MAX) return false;
    value = static_cast<int>(signedValue);
    return true;
}

std::string formatExact(double value) {
    // The shortest fixed-point text that reads back as value, widened to six decimals.
    char buffer[400];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    std::string text(buffer, result.ptr);
    const std::size_t point = text.find('.');
    const std::size_t decimals = point == std::string::npos ? 0 : text.size() - point - 1;
    if (decimals < 6) return formatC("%f", value);
    return text;
}

std::string formatC(const char* format, ...) {
    const locale_t previous = uselocale(cLocale());
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    char small[128];
    const int needed = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    std::string result;
    if (needed >= 0 && static_cast<std::size_t>(needed) < sizeof small) {
        result.assign(small, static_cast<std::size_t>(needed));
    } else if (needed >= 0) {
        result.resize(static_cast<std::size_t>(needed));
        std::vsnprintf(result.data(), result.size() + 1, format, again);
    }
    va_end(again);
    uselocale(previous);
    return result;
}

std::string formatTimeC(const char* format, const std::tm& time) {
    char buffer[256];
    const std::size_t n = strftime_l(buffer, sizeof buffer, format, &time, cLocale());
    return std::string(buffer, n);
}

std::string printableText(std::string_view text, std::size_t maxLength) {
    std::string out;
    for (char c : text.substr(0, maxLength))
        out += c >= ' ' && c <= '~' ? c : '?';
    if (text.size() > maxLength) out += "...";
    return out;
}

std::string_view trimmedField(std::string_view field) {
    const std::size_t begin = field.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    field = field.substr(begin, field.find_last_not_of(" \t") - begin + 1);
    if (field.size() >= 2 && field.front() == '"' && field.back() == '"')
        field = field.substr(1, field.size() - 2);
    return field;
}

} // namespace corvane
