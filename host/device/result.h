// SPDX-License-Identifier: MIT
#ifndef DEVICE_RESULT_H
#define DEVICE_RESULT_H

#include "device/device_host_export.h"

#include <QMetaType>
#include <QString>

#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

namespace device
{

/// Why an operation failed: what was done, on which table, what stopped it and what to do about it.
class DEVICE_HOST_EXPORT Error
{
public:
    enum Code {
        Failed,       ///< SQLite refused; the cause says why.
        LibraryError, ///< The library is missing or is not the one expected.
        FileError,    ///< The file cannot be opened or is not a database.
        TableMissing,
        TableLayout,   ///< The table exists with other columns.
        NameRefused,   ///< The text is not a table name.
        TextRefused,   ///< The text would not come back as it went in.
        TimeRefused,   ///< The time is invalid or outside the years 1 to 9999.
        Locked,        ///< Another connection kept the file locked past the deadline.
        StorageFailed, ///< The disk is full, read-only or failing.
        QueueFull,     ///< The recorder's queue is full.
        Cancelled,     ///< The host cancelled this operation.
        Stopped,       ///< The recorder was stopped.
        TimedOut,      ///< Not done at the deadline, and nothing else is wrong.
        NotStarted,    ///< The recorder was never started.
        FileMoved,     ///< The file was moved or deleted while it was open.
        ReadOnly,      ///< A question only reads.
        OptionRefused  ///< An option has a value that cannot work.
    };

    Error() = default;
    Error(Code code, QString operation, QString table, QString cause)
        : m_code(code), m_operation(std::move(operation)), m_table(std::move(table)), m_cause(std::move(cause))
    {
    }

    Code code() const { return m_code; }
    QString operation() const { return m_operation; } ///< What was done: "append", "count", ...
    QString table() const { return m_table; }         ///< Empty when no table was involved.
    QString cause() const { return m_cause; }         ///< What stopped it, with the text it is about.
    QString advice() const;                           ///< What to do.
    QString text() const;                             ///< All of it in one line.

private:
    Code m_code = Failed;
    QString m_operation;
    QString m_table;
    QString m_cause;
};

/// Either a value or an Error. Looking at the wrong one is a mistake in the program and ends it.
template<typename T>
class [[nodiscard]] Result
{
public:
    Result(T value) : m_either(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : m_either(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return m_either.index() == 0; }
    explicit operator bool() const { return ok(); }
    const T &value() const & { return *checked(std::get_if<0>(&m_either)); }
    T &value() & { return *checked(std::get_if<0>(&m_either)); }
    T value() && { return std::move(value()); }
    const T &operator*() const & { return value(); }
    T &operator*() & { return value(); }
    T operator*() && { return std::move(*this).value(); }
    const T *operator->() const { return &value(); }
    T *operator->() { return &value(); }
    const Error &error() const { return *checked(std::get_if<1>(&m_either)); }

    /// The value, or `other` after a failure.
    T valueOr(T other) const & { return ok() ? value() : std::move(other); }
    T valueOr(T other) && { return ok() ? std::move(*this).value() : std::move(other); }

    /// A Result of what `function` makes of the value. After a failure it is not called and the Error stays.
    template<typename Function>
    auto map(Function &&function) const & -> Result<std::invoke_result_t<Function, const T &>>
    {
        if (!ok())
            return error();
        return std::forward<Function>(function)(value());
    }
    template<typename Function>
    auto map(Function &&function) && -> Result<std::invoke_result_t<Function, T>>
    {
        if (!ok())
            return error();
        return std::forward<Function>(function)(std::move(*this).value());
    }

private:
    template<typename Wanted>
    static Wanted *checked(Wanted *wanted)
    {
        if (!wanted)
            qFatal("device::Result: looked at the value of a failure or at the error of a success");
        return wanted;
    }

    std::variant<T, Error> m_either;
};

/// Done, or an Error.
template<>
class [[nodiscard]] Result<void>
{
public:
    Result() = default;
    Result(Error error) : m_error(std::move(error)) {}

    bool ok() const { return !m_error; }
    explicit operator bool() const { return ok(); }
    const Error &error() const
    {
        if (!m_error)
            qFatal("device::Status: looked at the error of a success");
        return *m_error;
    }

private:
    std::optional<Error> m_error;
};

using Status = Result<void>;

} // namespace device

Q_DECLARE_METATYPE(device::Error)

#endif
