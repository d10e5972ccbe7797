// SPDX-License-Identifier: MIT
#ifndef PRIVATE_STATEMENT_H
#define PRIVATE_STATEMENT_H

#include <QByteArray>
#include <QString>
#include <QVarLengthArray>

#include <cstddef>

namespace detail
{

/// The text with its markers "%1" to "%9" filled by one QString::arg() call per value, lowest marker first. A marker
/// inside a value is therefore filled by the values after it. Hosts rely on that: this defines the statements' texts,
/// and StatementTemplate below only gives the same texts faster.
template<typename... Values>
QString chained(const char *text, const Values &...values)
{
    QString filled = QString::fromLatin1(text);
    const int steps[] = {(filled = filled.arg(values), 0)...};
    Q_UNUSED(steps);
    return filled;
}

inline const QString &cellText(const QString &text)
{
    return text;
}

inline QString cellText(int number)
{
    return QString::number(number);
}

/// A statement template that is filled row after row, with the same result as chained(). The cells are copied into one
/// buffer; the chain itself runs only if a cell contains a marker.
class StatementTemplate
{
public:
    /// `text` holds "%1" to "%9", each once, in ascending order, and must outlive the template.
    explicit StatementTemplate(const char *text);

    /// The statement in UTF-8, one value (QString or int) per marker. It is valid until the next call.
    template<typename... Values>
    const char *fill(const Values &...values)
    {
        if (const char *const spliced = spliceTexts(cellText(values)...))
            return spliced;
        // From the values, not from their texts: arg() formats a number in another way for a marker such as "%L1".
        m_chained = chained(m_text, values...).toUtf8();
        return m_chained.constData();
    }

private:
    Q_DISABLE_COPY(StatementTemplate)

    template<typename... Texts>
    const char *spliceTexts(const Texts &...texts)
    {
        const QString *const cells[] = {&texts...};
        return splice(cells);
    }
    const char *splice(const QString *const *cells); ///< Null if the text can only be had from the chain.
    bool appendCell(const QString &cell, bool isLast);
    void append(const char *bytes, size_t size);

    const char *m_text;
    int m_markers;
    size_t m_pieces[10]; ///< Sizes of the texts before each marker, and after the last one with its NUL.
    QVarLengthArray<char, 1024> m_bytes;
    char *m_end; ///< Where the next piece goes.
    QByteArray m_chained;
};

/// One statement in UTF-8, from a template as above.
template<typename... Values>
QByteArray statement(const char *text, const Values &...values)
{
    return QByteArray(StatementTemplate(text).fill(values...));
}

} // namespace detail

#endif
