// SPDX-License-Identifier: MIT
#include "import/json_reader.h"

#include "storefile/texts.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <cstring>
#include <utility>

namespace device_db
{

namespace
{

constexpr qint64 usualLine = 4096;
constexpr qint64 longestLine = 64 << 20; // something that is not lines must not be taken into memory as a whole

// Null when the value is not a cell's.
std::optional<QByteArray> cellOf(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        return QByteArray();
    case QJsonValue::Undefined:
        return QByteArray("");
    case QJsonValue::Bool:
        return QByteArray(value.toBool() ? "true" : "false");
    case QJsonValue::String: {
        const QByteArray text = value.toString().toUtf8();
        return text.isNull() ? QByteArray("") : text;
    }
    default:
        return std::nullopt;
    }
}

/// The text of each number of an object, by its key, as it is in the line: as a double it would lose digits.
/// `json` is a valid object without lists and objects in it.
QHash<QString, QByteArray> numbersOf(const QByteArray &json)
{
    QHash<QString, QByteArray> numbers;
    QByteArray key;
    const char *at = json.constData();
    const char *const end = at + json.size();
    for (bool isValue = false; at < end;) {
        const char *const begin = at;
        if (*at == '"') {
            for (++at; at < end && *at != '"'; ++at)
                at += *at == '\\' ? 1 : 0;
            ++at;
            if (!isValue)
                key = QByteArray(begin, int(at - begin));
        } else if (isValue && (*at == '-' || (*at >= '0' && *at <= '9'))) {
            while (at < end && std::strchr("+-.0123456789eE", *at))
                ++at;
            const QString name = QJsonDocument::fromJson('[' + key + ']').array().at(0).toString();
            numbers.insert(name, QByteArray(begin, int(at - begin)));
        } else {
            isValue = *at == ':' || (isValue && *at != ',');
            ++at;
        }
    }
    return numbers;
}

// A number of JSON may be of any size, one of Qt's is a double. What the numbers are is read by numbersOf().
QByteArray withSmallNumbers(const QByteArray &json)
{
    static const QRegularExpression textOrNumber(
        QStringLiteral("\"(?:[^\"\\\\]|\\\\.)*+\"|[-+.0-9eE]*[0-9][-+.0-9eE]*"));
    QByteArray result;
    int copied = 0;
    auto tokens = textOrNumber.globalMatch(QString::fromLatin1(json)); // a character for each byte
    while (tokens.hasNext()) {
        const auto token = tokens.next();
        const int begin = int(token.capturedStart());
        const int size = int(token.capturedLength());
        if (!isJsonNumber(json.mid(begin, size)))
            continue;
        result += json.mid(copied, begin - copied) + '0';
        copied = begin + size;
    }
    return result + json.mid(copied);
}

QJsonObject objectOf(const QByteArray &line, QJsonParseError &error)
{
    // Qt takes U+FEFF away at the beginning of a text, but not its escape.
    const QByteArray json = QByteArray(line).replace("\xef\xbb\xbf", "\\ufeff");
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::IllegalNumber)
        return document.object();
    return QJsonDocument::fromJson(withSmallNumbers(json), &error).object();
}

// Of an object without lists and objects in it.
qsizetype countOfMembers(const QByteArray &json)
{
    qsizetype colons = 0;
    bool isText = false;
    for (const char *at = json.constData(); *at; ++at) {
        if (isText && *at == '\\')
            ++at;
        else if (*at == '"')
            isText = !isText;
        else
            colons += *at == ':' && !isText ? 1 : 0;
    }
    return colons;
}

/// The first key that such an object has twice. Qt takes the last of them.
QString repeatedKey(const QByteArray &json)
{
    static const QRegularExpression text(QStringLiteral("(\"(?:[^\"\\\\]|\\\\.)*+\")\\s*(:?)"));
    QStringList keys;
    auto texts = text.globalMatch(QString::fromUtf8(json));
    while (texts.hasNext()) {
        const auto found = texts.next();
        if (found.captured(2).isEmpty())
            continue;
        const QByteArray array = '[' + found.captured(1).toUtf8() + ']';
        const QString key = QJsonDocument::fromJson(array).array().at(0).toString();
        if (keys.contains(key))
            return key;
        keys << key;
    }
    return QString();
}

} // namespace

JsonReader::JsonReader(QIODevice *input, QStringList keys, qint64 offset, qint64 line)
    : m_input(input), m_keys(std::move(keys)), m_offset(offset), m_line(line)
{
    if (offset == 0 && input->peek(3) == "\xef\xbb\xbf")
        m_offset += input->read(3).size();
}

// In parts: Qt takes memory for the longest line that it may read.
QByteArray JsonReader::readLine()
{
    QByteArray line = m_input->readLine(usualLine);
    while (!line.isEmpty() && !line.endsWith('\n') && line.size() < longestLine) {
        const QByteArray more = m_input->readLine(usualLine);
        if (more.isEmpty())
            break;
        line += more;
    }
    return line;
}

std::optional<QStringList> JsonReader::header()
{
    while (m_waiting.isNull()) {
        m_waiting = readLine();
        if (m_waiting.isEmpty())
            return std::nullopt;
        if (m_waiting.trimmed().isEmpty()) {
            m_offset += m_waiting.size();
            ++m_line;
            m_waiting = QByteArray();
        }
    }
    QJsonParseError error{};
    m_keys = objectOf(m_waiting, error).keys();
    return m_keys.isEmpty() ? std::nullopt : std::optional(m_keys);
}

bool JsonReader::next(InputRow &row)
{
    for (;;) {
        const QByteArray text = m_waiting.isNull() ? readLine() : std::exchange(m_waiting, QByteArray());
        if (text.isEmpty())
            return false;
        row = {m_line++, {}, {}};
        m_offset += text.size();
        if (!text.trimmed().isEmpty()) {
            QJsonParseError error{};
            const QJsonObject object = objectOf(text, error);
            const auto refuse = [&](const QByteArray &why) {
                row.cells = {text.trimmed()};
                row.fault = why;
                return true;
            };
            if (object.isEmpty())
                return refuse(error.error == QJsonParseError::NoError
                                  ? QByteArray("it is not a JSON object with keys")
                                  : "it is not JSON: " + error.errorString().toUtf8());
            int found = 0;
            QHash<QString, QByteArray> numbers; // looked for only in a line that has one
            for (const QString &key : std::as_const(m_keys)) {
                found += object.contains(key);
                const QJsonValue value = object.value(key);
                if (value.isDouble() && numbers.isEmpty())
                    numbers = numbersOf(text);
                const auto cell = value.isDouble() ? numbers.value(key) : cellOf(value);
                if (!cell)
                    return refuse("\"" + key.toUtf8() + "\" is a list or an object, not a cell");
                if (value.isString() && !value.toString().isValidUtf16())
                    return refuse("\"" + key.toUtf8() + "\" holds half of a character (\\ud800 to \\udfff)");
                row.cells << *cell;
            }
            if (found < object.size()) {
                for (const QString &key : object.keys()) {
                    if (!m_keys.contains(key))
                        return refuse("\"" + key.toUtf8() + "\" is not a key of the first line");
                }
            }
            if (countOfMembers(text) > object.size())
                return refuse("it has the key \"" + repeatedKey(text).toUtf8() + "\" twice");
            return true;
        }
    }
}

} // namespace device_db
