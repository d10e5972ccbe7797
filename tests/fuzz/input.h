// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

#include <fuzzer/FuzzedDataProvider.h>

/// Decodes a fuzzer's bytes into arguments, the usual ones and the odd ones.
class Input
{
public:
    Input(const uint8_t *bytes, size_t size) : m_bytes(bytes, size) {}

    bool isAtEnd() { return m_bytes.remaining_bytes() == 0; }
    /// Before the arguments of a statement. Markers in arguments multiply, so a statement's are bounded together.
    void startStatement() { m_copies = m_units = 1; }
    /// 0 to `last`.
    int choose(int last) { return m_bytes.ConsumeIntegralInRange(0, last); }
    bool flag() { return m_bytes.ConsumeBool(); }

    int number();
    /// Null, empty, usual, in any script, with half surrogates, with U+0000, long.
    QString text();
    QString table();
    QString time();
    QString order();
    /// A list of cells whose number need not fit.
    QStringList cells(int usual);
    QList<QStringList> rows(int usualCells);
    std::string bytes(size_t most) { return m_bytes.ConsumeBytesAsString(most); }
    std::string rest() { return m_bytes.ConsumeRemainingBytesAsString(); }

private:
    template<size_t Size>
    QString oneOf(const char *const (&texts)[Size])
    {
        return QString::fromUtf8(texts[choose(Size - 1)]);
    }

    QString anyText();
    QString bounded(QString text);

    FuzzedDataProvider m_bytes;
    long long m_copies = 1; ///< How often the last argument may stand in the statement.
    long long m_units = 1;
};
