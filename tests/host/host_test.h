// SPDX-License-Identifier: MIT
#pragma once

#include "plain_connection.h"
#include "qt_printers.h"
#include "text_literal.h"

#include "device/recorder.h"

#include <QTemporaryDir>

#include <QDir>

#include <gtest/gtest.h>

#include <stdexcept>

inline device::TableName table(const QString &name)
{
    return device::TableName::from(name).value();
}

inline device::LocalTime at(const QString &text)
{
    return QDateTime::fromString(text, text.size() == 23 ? "yyyy-MM-dd hh:mm:ss.zzz"_q : "yyyy-MM-dd hh:mm:ss"_q);
}

namespace device
{

inline void PrintTo(LocalTime time, std::ostream *stream)
{
    *stream << time.toDateTime().toString(Qt::ISODateWithMs).toStdString();
}

inline void PrintTo(const Error &error, std::ostream *stream)
{
    *stream << error.text().toStdString();
}

} // namespace device

/// The value of a result that must be there.
template<typename T>
T require(device::Result<T> result)
{
    if (!result)
        throw std::runtime_error(result.error().text().toStdString());
    return std::move(result).value();
}

inline void require(const device::Status &status)
{
    if (!status)
        throw std::runtime_error(status.error().text().toStdString());
}

inline void require(const device::Settled &settled)
{
    if (!settled)
        throw std::runtime_error(settled.why->text().toStdString());
}

template<typename T>
device::Error::Code codeOf(const device::Result<T> &result)
{
    if (result)
        throw std::runtime_error("it succeeded");
    return result.error().code();
}

/// A temporary folder and the library under test.
class HostTest : public ::testing::Test
{
protected:
    QString path(const char *name = "store.db") const { return m_folder.filePath(QString::fromLatin1(name)); }
    static const device::Library &library()
    {
        static const device::Library loaded =
            require(device::Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY)));
        return loaded;
    }

private:
    QTemporaryDir m_folder;
};
