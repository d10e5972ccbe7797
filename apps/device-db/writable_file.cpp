// SPDX-License-Identifier: MIT
#include "writable_file.h"

#include "open_processes.h"

#include <QFileInfo>

#include <cstdio>

#include <unistd.h>

namespace device_db
{

Status mayBeWritten(const WriteOptions &options)
{
    const QFileInfo file(options.path);
    if (!file.exists())
        return failure(options.path, QStringLiteral("there is no such file; check the name"));
    if (!file.isFile())
        return failure(options.path, QStringLiteral("this is no file; name a database file"));
    if (!file.isWritable())
        return failure(options.path, QStringLiteral("it may not be written; check its rights, or work on a copy"));
    if (options.lock)
        return {};
    if (const auto others = processesThatHave(options.path); !others.isEmpty())
        return failure(options.path, QStringLiteral("%1 has it open, and what it writes meanwhile could be lost; stop "
                                                    "it, or take that upon you with --lock")
                                         .arg(listed(others)));
    return {};
}

Result<Database> openForWriting(const WriteOptions &options)
{
    if (const Status may = mayBeWritten(options); !may)
        return may.error();
    return Database::open(options.path, Database::ReadWrite);
}

Result<device::Library> storeLibrary(const WriteOptions &options)
{
    return device::Library::load(options.library);
}

Status confirmed(const QString &input, const QString &question, bool yes)
{
    if (yes)
        return {};
    if (!isatty(STDIN_FILENO))
        return failure(input, QStringLiteral("nobody can be asked here; --yes goes ahead"));
    std::fprintf(stderr, "%s [yes/no] ", question.toUtf8().constData());
    std::fflush(stderr);
    char answer[16] = "";
    if (!std::fgets(answer, sizeof answer, stdin) || (qstricmp(answer, "yes\n") != 0 && qstricmp(answer, "y\n") != 0))
        return failure(input, QStringLiteral("left as it is"));
    return {};
}

} // namespace device_db
