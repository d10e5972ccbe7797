// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_DECODED_INPUT_H
#define DEVICE_DB_DECODED_INPUT_H

#include "storefile/error.h"

#include <QIODevice>

#include <memory>

namespace device_db
{

/// An input in another encoding, read as UTF-8. Bytes that are not of that encoding come as 0xff, which no UTF-8 has,
/// so that the row they are in is refused and no other.
class DecodedInput : public QIODevice
{
public:
    /// `encoding`: as iconv calls it. `input` is open, at its beginning, and outlives the result. An Error when there
    /// is no such encoding.
    static Result<std::unique_ptr<DecodedInput>> open(QIODevice *input, const QString &encoding);
    ~DecodedInput() override;

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char *data, qint64 size) override;
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    DecodedInput(QIODevice *input, void *converter);

    QIODevice *m_input;
    void *m_converter;
    QByteArray m_undecoded;
    bool m_ended = false;
};

} // namespace device_db

#endif
