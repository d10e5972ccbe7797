// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_SHIPPER_H
#define DEVICE_SHIP_SHIPPER_H

#include "device_archive.h"
#include "store_reader.h"

#include <memory>
#include <vector>

namespace device_ship
{

/// Carries the rows of one device's files into the archive, each once.
///
/// Nothing is remembered beyond the process: where to go on is what the archive says. Whatever goes wrong, the streams
/// are read again from the archive, and rows are sent from there; the archive refuses those that it has. So every
/// operation may be cut off at any moment.
class Shipper
{
public:
    explicit Shipper(Configuration configuration);

    /// One batch, if there is something: of each file what fits. True if there is more.
    Result<bool> ship();
    /// Tells the archive how far the files are, and the files how far the archive is. `failure`: what stops the
    /// shipper.
    Status report(const QString &failure = {});
    /// A file could not be read because the device wrote into it.
    bool wasDisturbed() const;
    /// There is something to report.
    bool hasMoved() const { return m_moved || trouble() != m_reportedTrouble; }
    /// These were written a moment ago. From the first call on, a file at which nobody writes is not looked at again
    /// once it was looked at for long enough after that: commits may come a little later than what announces them.
    void wereWritten(const QStringList &paths);
    /// All files are looked at again.
    void lookAgain();
    /// Names of series and all ends of alarms are looked at again.
    void refresh();

    /// A file that cannot be read, and the like; empty while all is well. The other files are shipped.
    QString trouble() const;

private:
    /// A table of which the archive takes no row, not even one without its cells: the others are shipped.
    struct Aside {
        QString trouble;
        Clock::time_point until;
    };

    struct File {
        explicit File(const ConfiguredFile &file) : reader(file) {}
        StoreReader reader;
        QString trouble;
        QString statementTrouble;
        QString tablesTrouble;
        quint64 judged = 0;                 ///< By the streams as they were read then.
        int rows = 2000;                    ///< What a read may take: less while reads are disturbed.
        bool again = false;                 ///< The last read was disturbed.
        Clock::time_point still;            ///< When one last was not, or the first one was.
        Clock::time_point written;          ///< As far as anybody said.
        bool isQuiet = false;               ///< Read after that, and nothing is to come.
        bool named = false;                 ///< The names of its series are in the archive.
        QMap<QString, qint64> stated;       ///< In the file beside it.
        QMap<QString, Aside> aside;         ///< By their names.
        QMap<QString, QString> refused;     ///< Tables that the archive does not take, and why.
        QMap<QString, QString> endTroubles; ///< Of tables with an end that the archive does not take.
    };

    struct Round {
        QList<Piece> pieces;
        bool more = false; ///< There is more than was taken, or could be read.
    };

    Status haveStreams();
    Result<std::optional<Round>> lookAtAll();
    Result<bool> shipRound();
    QString sameBefore(const File &file) const;
    Result<QList<Piece>> look(File &file, Budget &budget);
    QString troubleOfTables(const File &file) const;
    Status enrolNew(File &file);
    Status describe(File &file);
    Result<std::optional<bool>> continues(File &file, const Piece &piece);
    Result<bool> judge(File &file, const Stream &stream, const RowMark &row, std::optional<bool> &same);
    std::optional<QList<RowMark>> nextRows(File &file, const Stream &stream, qint64 after, qint64 upTo);
    Result<bool> judgeByOthers(File &file, const Stream &stream, const RowMark &row, std::optional<bool> &same);
    struct Shared {
        int generation = 0;
        qint64 after = 0;
    };
    Result<std::optional<Shared>> lastShared(File &file, const Piece &piece);
    Result<std::optional<qint64>> lastSharedWith(File &file, const Stream &stream, int generation, qint64 shared,
                                                 qint64 upTo);
    Status carryOut(QList<Piece> &pieces);
    Status shipRows(QList<Piece> &pieces);
    void refuse(Piece &piece, const device::Error &error);
    Status endAlarms(File &file, Stream &stream, const QList<AlarmEnd> &ends);
    Status compareEnds(File &file, Stream &stream);
    File *fileOf(const QString &name);
    Stream *streamOf(const File &file, const device_db::Table &table);
    Status failed(const device::Error &error);

    const Configuration m_configuration;
    std::vector<std::unique_ptr<File>> m_files;
    std::optional<DeviceArchive> m_archive;
    std::vector<std::unique_ptr<Stream>> m_streams; ///< As the archive has said; empty: to be read.
    bool m_haveStreams = false;
    quint64 m_timesRead = 0; ///< Each time, they are others.
    std::size_t m_first = 0; ///< The file that is looked at first, so that none starves.
    int m_timesBehind = 0;   ///< One after the other, another shipper was quicker.
    QString m_reportedTrouble;
    bool m_moved = false;  ///< Since the last report.
    bool m_isTold = false; ///< Which files are written.
};

} // namespace device_ship

#endif
