#include "platform/surface.h"

#include <algorithm>
#include <cstring>

namespace corvane {

void setFaceName(LogFont& font, std::string_view face) {
    font.lfFaceName.fill('\0');
    const std::size_t n = std::min(face.size(), font.lfFaceName.size() - 1);
    std::memcpy(font.lfFaceName.data(), face.data(), n);
}

} // namespace corvane
