// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_SERVE_JSON_H
#define DEVICE_DB_SERVE_JSON_H

#include <QByteArray>
#include <QString>

#include <optional>

namespace device_db
{

/// Writes JSON, commas by itself. Not QJsonDocument, which cannot hold cells that are not UTF-8: each byte of these
/// that is no part of a character becomes one of U+DC80 to U+DCFF, as in viewer/src/reading/cells.ts.
class Json
{
public:
    Json &beginObject() { return open('{'); }
    Json &endObject() { return close('}'); }
    Json &beginArray() { return open('['); }
    Json &endArray() { return close(']'); }
    Json &key(const char *name);

    Json &text(const QByteArray &utf8);
    Json &text(const QString &text);
    Json &text(const char *text) { return this->text(QByteArray(text)); }
    Json &cell(const QByteArray &cell) { return cell.isNull() ? null() : text(cell); }
    Json &number(qint64 number);
    Json &number(double number); ///< Null for what JSON cannot hold.
    Json &boolean(bool value) { return plain(value ? "true" : "false"); }
    Json &null() { return plain("null"); }

    const QByteArray &written() const { return m_text; }

private:
    Json &open(char bracket);
    Json &close(char bracket);
    Json &plain(const QByteArray &value);
    void separate();

    QByteArray m_text;
    bool m_needsComma = false;
};

} // namespace device_db

#endif
