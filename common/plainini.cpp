#include "plainini.h"

#include <algorithm>

namespace plainini {

namespace {

bool isNameChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
}

}  // namespace

bool isPlainName(const QByteArray& name)
{
    if (name.isEmpty() || name.compare("general", Qt::CaseInsensitive) == 0)
        return false;  // QSettings writes the section "General" as "%General"
    for (char c : name)
        if (!isNameChar(c))
            return false;
    return true;
}

bool isPlainValue(const QByteArray& value)
{
    if (value.startsWith('@'))
        return false;  // QSettings doubles a leading "@"
    for (char c : value)
        if (!isNameChar(c) && c != '#' && c != '+')
            return false;
    return true;
}

QByteArray format(const Text& sections)
{
    int size = 0;
    for (auto section = sections.cbegin(); section != sections.cend(); ++section) {
        size += section.key().size() + 4;
        for (auto key = section->cbegin(); key != section->cend(); ++key)
            size += key.key().size() + key.value().size() + 2;
    }
    // Copied piece by piece into a text of the final size: the progress
    // file, 256 lines, is formed after every bucket.
    QByteArray text(size, '\0');
    char* end = text.data();
    auto put = [&end](const QByteArray& piece) { end = std::copy(piece.cbegin(), piece.cend(), end); };
    for (auto section = sections.cbegin(); section != sections.cend(); ++section) {
        if (end != text.data())
            *end++ = '\n';
        *end++ = '[';
        put(section.key());
        *end++ = ']';
        *end++ = '\n';
        for (auto key = section->cbegin(); key != section->cend(); ++key) {
            put(key.key());
            *end++ = '=';
            put(key.value());
            *end++ = '\n';
        }
    }
    text.truncate(int(end - text.constData()));  // the first section has no blank line before it
    return text;
}

std::optional<Text> parse(const QByteArray& text)
{
    Text sections;
    QMap<QByteArray, QByteArray>* current = nullptr;
    for (const QByteArray& line : text.split('\n')) {
        if (line.isEmpty())
            continue;  // blank lines, order and line ends are checked against format() below
        if (line.startsWith('[') && line.endsWith(']')) {
            const QByteArray name = line.mid(1, line.size() - 2);
            if (!isPlainName(name) || sections.contains(name))
                return std::nullopt;
            current = &sections[name];
            continue;
        }
        const int equals = line.indexOf('=');
        if (!current || equals < 0)
            return std::nullopt;
        const QByteArray key = line.left(equals), value = line.mid(equals + 1);
        if (!isPlainName(key) || !isPlainValue(value) || current->contains(key))
            return std::nullopt;
        current->insert(key, value);
    }
    if (format(sections) != text)
        return std::nullopt;
    return sections;
}

}  // namespace plainini
