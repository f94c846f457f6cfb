#pragma once

#include <QIcon>

// The tray icon in its two states: colour while a WebApp user is active, grey otherwise. Drawn here, the
// same picture as the SVG files installed in the hicolor theme, so the tray never shows an empty square
// where Qt has no SVG reader. On a dark panel the light (symbolic) variants are used.
namespace StatusIcons {

QIcon colour();
QIcon grey();

// Whether the desktop's palette is dark, in which case the symbolic variants are chosen.
bool darkPanel();

} // namespace StatusIcons
