// Position keys of the template, shared by the template reader and the renderer.
#pragma once

#include <QRegularExpression>

// The six named positions, in the order in which a page paints them.
namespace MarkerPosition {
enum : int { TopLeft, TopCenter, TopRight, BottomLeft, BottomCenter, BottomRight };
inline constexpr const char* Names[] = {"top-left",    "top-center",    "top-right",
                                        "bottom-left", "bottom-center", "bottom-right"};
inline constexpr int Count = 6;
} // namespace MarkerPosition

// Coordinates in user-space units, such as {20;30}. Compiled once.
const QRegularExpression& pointPositionPattern();

// Coordinates in millimetres, such as {10mm;12mm}. Compiled once.
const QRegularExpression& millimetrePositionPattern();
