// SPDX-License-Identifier: MIT
//
// iconv and not Qt's codecs: Qt 6 has lost all but the Unicode ones and Latin-1.
#include "import/decoded_input.h"

#include <cerrno>

#include <iconv.h>

namespace device_db
{

namespace
{

constexpr qint64 blockSize = 1 << 16;
const auto noConverter = reinterpret_cast<iconv_t>(-1);

} // namespace

Result<std::unique_ptr<DecodedInput>> DecodedInput::open(QIODevice *input, const QString &encoding)
{
    const iconv_t converter = iconv_open("UTF-8", encoding.toLatin1().constData());
    if (converter == noConverter)
        return failure(encoding, QStringLiteral("there is no such encoding; \"iconv --list\" lists them, such as "
                                                "windows-1252 and UTF-16"));
    return std::unique_ptr<DecodedInput>(new DecodedInput(input, converter));
}

DecodedInput::DecodedInput(QIODevice *input, void *converter) : m_input(input), m_converter(converter)
{
    QIODevice::open(QIODevice::ReadOnly);
}

DecodedInput::~DecodedInput()
{
    iconv_close(m_converter);
}

qint64 DecodedInput::readData(char *data, qint64 size)
{
    char *out = data;
    size_t room = size_t(size);
    while (out == data) {
        if (!m_ended) {
            const QByteArray more = m_input->read(blockSize - m_undecoded.size());
            m_ended = more.isEmpty();
            m_undecoded += more;
        }
        if (m_undecoded.isEmpty())
            return m_ended ? -1 : 0;
        char *in = m_undecoded.data();
        size_t left = size_t(m_undecoded.size());
        const bool converted = iconv(m_converter, &in, &left, &out, &room) != size_t(-1);
        // EINVAL is a character whose end is still to be read; at the end of the input it is a wrong one.
        if (!converted && (errno == EILSEQ || (errno == EINVAL && m_ended)) && room > 0) {
            ++in;
            --left;
            *out++ = '\xff';
            --room;
        }
        m_undecoded.remove(0, int(m_undecoded.size()) - int(left));
        if (!converted && errno == E2BIG && out == data)
            return 0; // not even one character fits
    }
    return out - data;
}

} // namespace device_db
