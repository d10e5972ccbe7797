// SPDX-License-Identifier: MIT
#include "device/library.h"

#include "message_capture.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>

#include <dlfcn.h>

namespace device
{

struct Library::Loaded {
    QString path;
    QStringList (*supportList)() = nullptr;
    interface_data_base *(*create)(QString) = nullptr;
    void (*close)(interface_data_base *) = nullptr;
};

namespace
{

Error refusal(const QString &path, const QString &cause)
{
    return Error(Error::LibraryError, QStringLiteral("load %1").arg(path), QString(), cause);
}

// The Qt that a library file asks the loader for, read from its text: the wrong one must not even be loaded.
// 0 when it names none.
int qtMajorOf(const QByteArray &content)
{
    if (content.contains("libQt6Core.so"))
        return 6;
    if (content.contains("libQt5Core.so"))
        return 5;
    return content.contains("libQtCore.so") ? 4 : 0;
}

// Where this code lies: with a shared host layer its own library, else the program or plugin that it was linked into.
QString ownFolder()
{
    Dl_info info;
    if (dladdr(reinterpret_cast<const void *>(&qtMajorOf), &info) == 0)
        return QString();
    return QFileInfo(QFile::decodeName(info.dli_fname)).absolutePath();
}

QString firstExisting()
{
    const QString named = QFile::decodeName(qgetenv("DEVICE_DATABASE_LIBRARY"));
    if (!named.isEmpty())
        return named;
    const QStringList folders = Library::places();
    for (const QString &folder : folders) {
        for (const char *name : {"/libdevice_database.so", "/libdevice_database.so.1"}) {
            if (QFileInfo::exists(folder + QLatin1String(name)))
                return folder + QLatin1String(name);
        }
    }
    return QString();
}

} // namespace

QStringList Library::places()
{
    QStringList folders;
    if (QCoreApplication::instance()) {
        const QString own = QCoreApplication::applicationDirPath();
        folders << own << own + QLatin1String("/../lib");
    }
    folders << ownFolder() << QFile::decodeName(qgetenv("LD_LIBRARY_PATH")).split(QLatin1Char(':'));
    folders << QStringLiteral(DEVICE_HOST_INSTALL_LIBDIR) << QStringLiteral("/usr/local/lib")
            << QStringLiteral("/usr/lib");
#ifdef DEVICE_HOST_LIBRARY_ARCHITECTURE
    folders << QStringLiteral("/usr/lib/" DEVICE_HOST_LIBRARY_ARCHITECTURE);
#endif
    folders.removeAll(QString());
    folders.removeDuplicates();
    return folders;
}

Result<Library> Library::load(const QString &path)
{
    const QString file = path.isEmpty() ? firstExisting() : path;
    if (file.isEmpty())
        return refusal(QStringLiteral("libdevice_database.so"),
                       QStringLiteral("there is none in ") + places().join(QLatin1String(", ")));
    QFile content(file);
    if (!QFileInfo(file).isFile())
        return refusal(file, QStringLiteral("there is no such file"));
    if (!content.open(QIODevice::ReadOnly))
        return refusal(file, content.errorString());
    const int qt = qtMajorOf(content.readAll());
    if (qt != 0 && qt != QT_VERSION_MAJOR)
        return refusal(file, QStringLiteral("it was built for Qt %1 and this program runs Qt %2")
                                 .arg(QString::number(qt), QString::number(QT_VERSION_MAJOR)));

    QLibrary library(QFileInfo(file).absoluteFilePath());
    if (!library.load())
        return refusal(file, library.errorString());
    const auto loaded = std::make_shared<Loaded>();
    loaded->path = library.fileName();
    QStringList missing;
    const auto resolve = [&](auto &function, const char *name) {
        function = reinterpret_cast<std::decay_t<decltype(function)>>(library.resolve(name));
        if (!function)
            missing << QLatin1String(name);
    };
    resolve(loaded->supportList, "device_getSupportList");
    resolve(loaded->create, "device_createDB");
    resolve(loaded->close, "device_closeDB");
    if (!missing.isEmpty()) {
        library.unload();
        return refusal(file, QStringLiteral("it has no function ") + missing.join(QLatin1String(" and no ")));
    }
    MessageCapture::install();
    return Library(loaded);
}

QString Library::path() const
{
    return m_loaded->path;
}

QStringList Library::supportList() const
{
    return m_loaded->supportList();
}

interface_data_base *Library::createStore(const QString &key) const
{
    return m_loaded->create(key);
}

void Library::closeStore(interface_data_base *store) const
{
    m_loaded->close(store);
}

} // namespace device
