// SPDX-License-Identifier: MIT
#ifndef PRIVATE_QT_VERSIONS_H
#define PRIVATE_QT_VERSIONS_H

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#if QT_VERSION < QT_VERSION_CHECK(5, 0, 0)
#include <QTextCodec>
#endif

// Everything in which the library's source differs between Qt 4, 5 and 6. There is no other version conditional.

namespace detail
{

#if QT_VERSION < QT_VERSION_CHECK(5, 0, 0)

/// False only on Qt 4, and only if the host installed another codec for C strings.
inline bool cStringsAreLatin1()
{
    return !QTextCodec::codecForCStrings();
}

/// Reads bytes as Qt 4's QString(const char *) does, up to the first NUL.
inline QString fromCString(const QByteArray &bytes)
{
    return QString(bytes.constData());
}

#else

inline bool cStringsAreLatin1()
{
    return true;
}

inline QString fromCString(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.constData());
}

#endif

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)

/// Appends an empty element, to be filled in place.
template<typename T>
T &appendNew(QList<T> &list)
{
    list.append(T());
    return list.last();
}

/// Sets a new date-time to a local time, which is `sinceEpoch` milliseconds after the start of 1970 in UTC. The caller
/// knows the time in both forms because each Qt takes far longer from the other one.
inline void setLocalTime(QDateTime &dateTime, const QDate &day, const QTime &time, qint64)
{
    dateTime = QDateTime(day, time);
}

#else

template<typename T>
T &appendNew(QList<T> &list)
{
    return list.emplaceBack();
}

inline void setLocalTime(QDateTime &dateTime, const QDate &, const QTime &, qint64 sinceEpoch)
{
    dateTime.setMSecsSinceEpoch(sinceEpoch);
}

#endif

} // namespace detail

#endif
