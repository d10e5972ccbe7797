// SPDX-License-Identifier: MIT
#include "import/input.h"

#include "import/csv_reader.h"
#include "import/decoded_input.h"
#include "import/json_reader.h"

namespace device_db
{

Result<std::unique_ptr<Input>> Input::open(const InputOptions &options)
{
    std::unique_ptr<Input> input(new Input(options));
    QFile &file = input->m_file;
    const bool opened =
        options.path == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!opened)
        return failure(options.path, file.errorString() + QStringLiteral("; check the name and its rights"));
    if (const Status looked = input->look(); !looked)
        return looked.error();
    return input;
}

// What it is, and where its rows begin.
Status Input::look()
{
    const QByteArray beginning = m_file.peek(16);
    if (beginning.startsWith("SQLite format 3"))
        return failure(m_options.path, QStringLiteral("this is a database; \"device-db export\" makes CSV of a table"));
    if (m_options.encoding.isEmpty() && (beginning.startsWith("\xff\xfe") || beginning.startsWith("\xfe\xff")))
        m_options.encoding = QStringLiteral("UTF-16");
    if (m_options.encoding.isEmpty() && beginning.contains('\0'))
        return failure(m_options.path,
                       QStringLiteral("this is not a text in UTF-8; name its --encoding, such as UTF-16LE"));
    if (const Status decoded = decode(); !decoded)
        return decoded;

    qint64 offset = 0;
    qint64 line = 1;
    if (text()->peek(3) == "\xef\xbb\xbf")
        offset += text()->read(3).size();
    const auto skipLine = [&] {
        offset += text()->readLine().size();
        ++line;
    };
    // As spreadsheets write it for themselves.
    const auto takeSeparator = [&] {
        const QByteArray first = text()->peek(7).toLower();
        if (!first.startsWith("sep=") || first.size() <= 5 || (first.at(5) != '\r' && first.at(5) != '\n'))
            return false;
        m_options.separator = m_options.separator.value_or(first.at(4));
        skipLine();
        return true;
    };
    const bool isTaken = takeSeparator();
    for (int i = 0; i < m_options.skip; ++i)
        skipLine();
    if (!isTaken)
        takeSeparator();
    m_isJson = text()->peek(64).trimmed().startsWith('{');
    read(offset, line);
    return {};
}

Status Input::decode()
{
    if (m_options.encoding.isEmpty())
        return {};
    auto decoded = DecodedInput::open(&m_file, m_options.encoding);
    if (!decoded)
        return decoded.error();
    m_decoded = std::move(decoded).value();
    return {};
}

void Input::read(qint64 offset, qint64 line)
{
    if (m_isJson)
        m_rows = std::make_unique<JsonReader>(text(), m_keys, offset, line);
    else
        m_rows = std::make_unique<CsvReader>(text(), m_options.separator.value_or(','), offset, line);
}

Result<QStringList> Input::header()
{
    if (m_options.noHeader && !m_isJson)
        return QStringList();
    const auto names = m_rows->header();
    if (!names)
        return failure(m_options.path, m_isJson ? QStringLiteral("its first line is not a JSON object with keys")
                                                : QStringLiteral("it is empty"));
    m_keys = *names;
    return *names;
}

Status Input::status() const
{
    if (m_file.error() == QFileDevice::NoError)
        return {};
    return failure(m_options.path,
                   m_file.errorString() + QStringLiteral("; run it again to go on after what is stored"));
}

Status Input::goTo(qint64 offset, qint64 line)
{
    // Places are those of the text; what was decoded to get there is decoded again.
    m_file.seek(m_decoded ? 0 : offset);
    if (const Status decoded = decode(); !decoded)
        return decoded;
    if (m_decoded) {
        constexpr qint64 block = 1 << 16;
        for (qint64 left = offset; left > 0;) {
            const QByteArray passed = m_decoded->read(std::min(left, block));
            if (passed.isEmpty())
                break; // the file was changed, which its marks have shown
            left -= passed.size();
        }
    }
    read(offset, line);
    return {};
}

} // namespace device_db
