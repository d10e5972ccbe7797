// SPDX-License-Identifier: MIT
//
// The committed cases of the viewer, asked of the server: what it answers is what device-db says.
#include "served_tool.h"
#include "storefile/tables.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <set>

namespace
{

// What the page says beyond "info", and what "check" does.
const QStringList ofPage{"rollback"_q, "noIndex"_q};
const QStringList ofCheck{"foreign"_q, "damaged"_q, "rule"_q, "freePages"_q};

QStringList caseFiles()
{
    return QDir(QString::fromLocal8Bit(VIEWER_CASES)).entryList({"file_*.json"_q}, QDir::Files);
}

// The bytes of a cell: those that are no part of a character are U+DC80 to U+DCFF.
QByteArray bytesOf(const QString &cell)
{
    QByteArray bytes;
    for (int i = 0; i < cell.size(); ++i) {
        const ushort unit = cell.at(i).unicode();
        if (cell.at(i).isHighSurrogate() && i + 1 < cell.size()) {
            bytes += cell.mid(i++, 2).toUtf8();
        } else if (unit >= 0xdc80 && unit <= 0xdcff) {
            bytes += char(unit - 0xdc00);
        } else {
            bytes += QString(cell.at(i)).toUtf8();
        }
    }
    return bytes;
}

QByteArray csvLine(const QList<QByteArray> &cells)
{
    QList<QByteArray> quoted;
    for (QByteArray cell : cells) {
        const bool isQuoted = std::any_of(cell.begin(), cell.end(),
                                          [](char c) { return c == ',' || c == '"' || c == '\n' || c == '\r'; });
        if (isQuoted)
            cell = '"' + cell.replace("\"", "\"\"") + '"';
        quoted << cell;
    }
    const QByteArray line = quoted.join(',');
    return (line.isEmpty() ? "\"\"" : line) + '\n';
}

// Points that may have another last digit.
QStringList pointsOf(const QJsonArray &flat)
{
    QStringList points;
    for (int i = 0; i + 1 < flat.size(); i += 2)
        points << "%1 %2"_q.arg(qint64(flat.at(i).toDouble())).arg(flat.at(i + 1).toDouble(), 0, 'g', 12);
    return points;
}

QString lineOf(const QJsonObject &finding, const QString &id)
{
    return QString::fromUtf8(QJsonDocument(QJsonArray{finding["table"_q], finding["what"_q], finding["rows"_q],
                                                      finding[id], finding["detail"_q]})
                                 .toJson(QJsonDocument::Compact));
}

device_db::Kind kindNamed(const QString &name)
{
    for (const auto kind : {device_db::Kind::Samples, device_db::Kind::Alarms, device_db::Kind::Log}) {
        if (name == QLatin1String(device_db::nameOf(kind)))
            return kind;
    }
    return device_db::Kind::Foreign;
}

class ServedCases : public ServedTool
{
protected:
    QJsonArray list(const QByteArray &target) const
    {
        const HttpReply reply = get(target);
        EXPECT_EQ(reply.status, 200) << reply.body.constData();
        return QJsonDocument::fromJson(reply.body).array();
    }
    /// The exact answer; those before have the same form.
    QJsonObject ask(const QByteArray &target) const
    {
        const HttpReply reply = get(target);
        EXPECT_EQ(reply.status, 200) << reply.body.constData();
        QJsonObject last;
        for (const QByteArray &line : reply.body.trimmed().split('\n')) {
            EXPECT_TRUE(last.isEmpty() || last.contains("part"_q));
            last = QJsonDocument::fromJson(line).object();
        }
        EXPECT_TRUE(last.contains("done"_q)) << reply.body.constData();
        return last["done"_q].toObject();
    }

    void compareTables(const QJsonObject &expected, const QJsonArray &tables) const;
    void compareFindings(const QJsonObject &expected, const QJsonArray &open, const QJsonArray &tables) const;
    void compareRows(const QJsonObject &expected, const QJsonArray &tables) const;
    void comparePictures(const QJsonObject &expected) const;
};

void ServedCases::compareTables(const QJsonObject &expected, const QJsonArray &tables) const
{
    QStringList wanted;
    for (const auto &each : expected["tables"_q].toArray()) {
        const QJsonObject table = each.toObject();
        if (kindNamed(table["kind"_q].toString()) != device_db::Kind::Foreign)
            wanted << "%1 %2 %3 %4"_q.arg(table["name"_q].toString(), table["kind"_q].toString())
                          .arg(table["indexed"_q].toBool())
                          .arg(table["lastId"_q].toInt());
    }
    QStringList found;
    for (const auto &each : tables) {
        const QJsonObject table = each.toObject();
        found << "%1 %2 %3 %4"_q.arg(table["name"_q].toString(), table["kind"_q].toString())
                     .arg(table["indexed"_q].toBool())
                     .arg(table["lastId"_q].toInt());
    }
    EXPECT_EQ(found, wanted);
}

void ServedCases::compareFindings(const QJsonObject &expected, const QJsonArray &open, const QJsonArray &tables) const
{
    QStringList found;
    const auto add = [&](const QJsonArray &findings) {
        for (const auto &each : findings) {
            const QString cause = each.toObject()["cause"_q].toString();
            EXPECT_FALSE(cause.isEmpty());
            if (!ofPage.contains(cause) && !ofCheck.contains(cause))
                found << lineOf(each.toObject(), "firstId"_q);
        }
    };
    add(open.at(0).toObject()["findings"_q].toArray());
    for (const auto &each : tables) {
        const QJsonObject table = each.toObject();
        const QJsonObject overview =
            ask("/api/overview?table=" + table["key"_q].toString().toUtf8().toPercentEncoding());
        for (const auto &other : expected["tables"_q].toArray()) {
            if (other.toObject()["name"_q] != table["name"_q])
                continue;
            EXPECT_EQ(overview["rows"_q].toInt(), other.toObject()["rows"_q].toInt());
            EXPECT_EQ(overview["first"_q], other.toObject()["first"_q]);
            EXPECT_EQ(overview["last"_q], other.toObject()["last"_q]);
        }
        EXPECT_TRUE(overview["exact"_q].toBool());
        add(overview["findings"_q].toArray());
    }
    QStringList wanted;
    for (const auto &each : expected["findings"_q].toArray())
        wanted << lineOf(each.toObject(), "id"_q);
    found.sort();
    wanted.sort();
    EXPECT_EQ(found, wanted);
}

void ServedCases::compareRows(const QJsonObject &expected, const QJsonArray &tables) const
{
    const QJsonObject cells = expected["cells"_q].toObject();
    for (const QString &name : cells.keys()) {
        const auto table = std::find_if(tables.begin(), tables.end(),
                                        [&](const auto &each) { return each.toObject()["name"_q] == name; });
        ASSERT_NE(table, tables.end());
        QList<QByteArray> head;
        for (const auto &column : device_db::columnsOf(kindNamed(table->toObject()["kind"_q].toString())))
            head << column.key;
        QByteArray csv = csvLine(head);
        const QByteArray key = table->toObject()["key"_q].toString().toUtf8().toPercentEncoding();
        for (const auto &row :
             ask("/api/rows?table=" + key + "&order=recorded&offset=0&limit=100000")["rows"_q].toArray()) {
            QList<QByteArray> texts;
            for (const auto &cell : row.toArray())
                texts << bytesOf(cell.toString());
            csv += csvLine(texts.mid(1));
        }
        EXPECT_EQ(csv.toBase64(), cells[name].toString().toLatin1()) << qPrintable(name);
    }
    for (const auto &each : expected["finds"_q].toArray()) {
        const QByteArray wanted = each.toObject()["containing"_q].toString().toUtf8().toPercentEncoding();
        QJsonArray ids;
        for (const auto &row : ask("/api/rows?table=0/" + each.toObject()["table"_q].toString().toUtf8() +
                                   "&containing=" + wanted + "&order=oldest&offset=0&limit=1000")["rows"_q]
                                   .toArray())
            ids.append(row.toArray().at(0).toString().toInt());
        EXPECT_EQ(ids, each.toObject()["ids"_q].toArray()) << wanted.constData();
    }
}

void ServedCases::comparePictures(const QJsonObject &expected) const
{
    for (const auto &each : expected["pictures"_q].toArray()) {
        const QJsonObject picture = each.toObject();
        const QByteArray question = "/api/trend?table=0/" + picture["table"_q].toString().toUtf8() +
                                    "&from=" + QByteArray::number(qint64(picture["from"_q].toDouble())) +
                                    "&to=" + QByteArray::number(qint64(picture["to"_q].toDouble())) +
                                    "&columns=" + QByteArray::number(picture["columns"_q].toInt());
        QStringList wanted;
        for (const auto &line : picture["lines"_q].toArray())
            wanted << pointsOf(line.toArray());
        for (int pass = 0; pass < 2; ++pass) {
            const QJsonObject answer = ask(question);
            EXPECT_EQ(answer["numbers"_q], picture["numbers"_q]);
            EXPECT_EQ(pointsOf(answer["points"_q].toArray()), wanted) << question.constData();
            if (answer["lines"_q].toArray().size() == 1) {
                EXPECT_EQ(pointsOf(answer["lines"_q].toArray().at(0).toArray()), wanted);
            }
        }
    }
}

class EachCase : public ServedCases, public ::testing::WithParamInterface<QString>
{
};

TEST_P(EachCase, IsAnsweredAsDeviceDbDoes)
{
    QFile file(QDir(QString::fromLocal8Bit(VIEWER_CASES)).filePath(GetParam()));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonObject expected = QJsonDocument::fromJson(file.readAll()).object();
    for (const bool isWriteAhead : {false, true}) {
        const QString name = isWriteAhead ? "wal.db"_q : "case.db"_q;
        {
            PlainConnection connection(path(name));
            connection.run("pragma synchronous=off"_q);
            for (const auto &sql : expected["sql"_q].toArray())
                connection.run(sql.toString());
            if (isWriteAhead)
                connection.run("pragma journal_mode=wal"_q);
        }
        serve({name});
        const QJsonArray open = list("/api/open");
        EXPECT_EQ(open.at(0).toObject()["error"_q].toString(), QString());
        QJsonArray configuration;
        for (const auto &each : open.at(0).toObject()["configuration"_q].toArray()) {
            QString title;
            for (const QChar c : each.toObject()["name"_q].toString())
                title += c.unicode() >= 0xdc80 && c.unicode() <= 0xdcff ? QChar(0xfffd) : c;
            configuration.append(QJsonObject{{"collector"_q, each.toObject()["collector"_q]},
                                             {"name"_q, title},
                                             {"table"_q, each.toObject()["hasTable"_q]}});
        }
        EXPECT_EQ(configuration, expected["configuration"_q].toArray());
        const QJsonArray tables = list("/api/tables");
        compareTables(expected, tables);
        comparePictures(expected); // first: a pass was made for none of them yet
        compareFindings(expected, open, tables);
        compareRows(expected, tables);
        EXPECT_EQ(stop(), 0);
        const QDir folder(path(QString()));
        EXPECT_FALSE(folder.exists(name + "-wal"_q)) << "what the reading made goes again";
    }
}

INSTANTIATE_TEST_SUITE_P(Served, EachCase, ::testing::ValuesIn(caseFiles()));

} // namespace
