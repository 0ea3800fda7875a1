// The dialogs that change how the plot looks, each modal and editing plotSettings:
//
//   SelectDOS    DL_SELDOS   the displayed temperature and chi ranges (Select > Customize)
//   Label        DL_LABEL    axis titles, ranges, numbering and the label font (Preference)
//   Style        DL_STYLE    colours, markers, line styles and pen width (Preference)
//   Zoom         DL_ZOOM     a factor on the size of the frame (Zoom > Customize)
//   Border       DL_BORDER   factors on its width and height (after Zoom, ratio not fixed)
//   BorderWidth  DL_BORDERW  the line width of frame and ticks (Preference)
//
// A field that fails its check while the user types beeps and takes the focus back. OK refuses
// values the plot cannot show (a range of zero width, an interval or factor not above 0, ...)
// the same way and stores nothing; otherwise it stores every field at once. The caller repaints
// after each. In the M view SelectDOS and Label edit that view's field and M axes, and say so.
#pragma once

#include <cstdint>

#include "platform/dialog.h"

namespace corvane {

std::intptr_t SelectDOS(Dialog& dialog, DialogMessage message, int control,
                        Notification notification);
std::intptr_t Label(Dialog& dialog, DialogMessage message, int control, Notification notification);
std::intptr_t Style(Dialog& dialog, DialogMessage message, int control, Notification notification);
std::intptr_t Zoom(Dialog& dialog, DialogMessage message, int control, Notification notification);
std::intptr_t Border(Dialog& dialog, DialogMessage message, int control, Notification notification);
std::intptr_t BorderWidth(Dialog& dialog, DialogMessage message, int control,
                          Notification notification);

} // namespace corvane
