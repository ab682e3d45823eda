#ifndef NXI_PLAININI_H
#define NXI_PLAININI_H

// The INI text that QSettings writes when every section, key and value is
// plain (letters, digits and a few marks): "[section]" and "key=value" lines
// with nothing escaped or quoted, sections and the keys within each in
// ascending order of their bytes, one blank line before every section but
// the first, "\n" line ends. The program's own INI files have this shape, so
// they are read and edited here without a round through QSettings; anything
// else is left to QSettings.

#include <QByteArray>
#include <QMap>

#include <optional>

namespace plainini {

// section -> key -> value
using Text = QMap<QByteArray, QMap<QByteArray, QByteArray>>;

// The sections of text; nullopt unless text is exactly what format() gives.
std::optional<Text> parse(const QByteArray& text);
QByteArray format(const Text& sections);

// True when QSettings writes the name (section or key) or the value unescaped.
bool isPlainName(const QByteArray& name);
bool isPlainValue(const QByteArray& value);

}  // namespace plainini

#endif
