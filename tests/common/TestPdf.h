#pragma once

#include <QByteArray>

// A one-page US-letter PDF with the text on it and an Info dictionary (title "Tax Report", author
// "Ann Smith", keywords "finance, audit"), written by hand with a correct cross-reference table, so tests
// need no PDF library.
QByteArray makePdf(const QByteArray &text);
