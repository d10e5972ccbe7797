// SPDX-License-Identifier: MIT
#include "serve/json.h"

#include "device/number.h"

#include <cmath>

namespace device_db
{

namespace
{

// The length of the UTF-8 sequence at this place; 0 if there is none.
int sequenceAt(const QByteArray &bytes, int at)
{
    const auto byte = [&](int i) { return static_cast<unsigned char>(bytes.at(i)); };
    const int lead = byte(at);
    const int size = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (size == 0 || at + size > bytes.size())
        return 0;
    // Neither longer than needed, nor a surrogate, nor beyond Unicode.
    const int lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const int highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (size > 1 && (byte(at + 1) < lowest || byte(at + 1) > highest))
        return 0;
    for (int i = 2; i < size; ++i) {
        if ((byte(at + i) & 0xc0) != 0x80)
            return 0;
    }
    return size;
}

} // namespace

void Json::separate()
{
    if (m_needsComma)
        m_text += ',';
    m_needsComma = true;
}

Json &Json::open(char bracket)
{
    separate();
    m_text += bracket;
    m_needsComma = false;
    return *this;
}

Json &Json::close(char bracket)
{
    m_text += bracket;
    m_needsComma = true;
    return *this;
}

Json &Json::plain(const QByteArray &value)
{
    separate();
    m_text += value;
    return *this;
}

Json &Json::key(const char *name)
{
    text(name);
    m_text += ':';
    m_needsComma = false;
    return *this;
}

Json &Json::text(const QByteArray &utf8)
{
    static constexpr char digits[] = "0123456789abcdef";
    separate();
    m_text += '"';
    for (int i = 0; i < utf8.size();) {
        const int size = sequenceAt(utf8, i);
        const auto byte = static_cast<unsigned char>(utf8.at(i));
        if (size == 0) {
            m_text += "\\udc";
            m_text += digits[byte >> 4];
            m_text += digits[byte & 15];
        } else if (byte < 0x20) {
            m_text += "\\u00";
            m_text += digits[byte >> 4];
            m_text += digits[byte & 15];
        } else {
            if (byte == '"' || byte == '\\')
                m_text += '\\';
            m_text.append(utf8.constData() + i, size);
        }
        i += std::max(1, size);
    }
    m_text += '"';
    return *this;
}

Json &Json::text(const QString &text)
{
    return this->text(text.toUtf8());
}

Json &Json::number(qint64 number)
{
    return plain(QByteArray::number(number));
}

Json &Json::number(double number)
{
    return std::isfinite(number) ? plain(device::numberText(number).toLatin1()) : null();
}

} // namespace device_db
