#pragma once

#include <QString>

// Whether two items hold the same content, as a file manager compares them: files byte for byte, folders by
// the same names (hidden ones included) with equal contents, recursively; symbolic links by their targets,
// never followed. Items of different kinds, or that cannot be read, are not equal.
bool contentsEqual(const QString &first, const QString &second);
