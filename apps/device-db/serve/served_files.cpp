// SPDX-License-Identifier: MIT
#include "serve/served_files.h"

#include "storefile/texts.h"

#include <QFileInfo>

#include <algorithm>

namespace device_db
{

namespace
{

constexpr size_t selectionsKept = 16;

bool isSameTable(const QByteArray &name, const Table &table)
{
    return QString::fromUtf8(name).compare(table.name, Qt::CaseInsensitive) == 0;
}

// What the host layer adds about a series, by the name of its table. A table of other columns is not its own.
std::map<QString, std::pair<QByteArray, QByteArray>> seriesInfosOf(const Database &database)
{
    std::map<QString, std::pair<QByteArray, QByteArray>> infos;
    const auto columns = database.text("select group_concat(name) from pragma_table_info((select name from "
                                       "sqlite_master where type='table' and rootpage>0 and name='device series'))");
    if (!columns || *columns != "COLLECTOR,UNIT,DESCRIPTION")
        return infos;
    auto rows = database.prepare("select COLLECTOR,UNIT,DESCRIPTION from \"device series\"");
    while (rows && rows->step())
        infos[QString::fromUtf8(rows->cell(0)).toLower()] = {rows->cell(1), rows->cell(2)};
    return infos;
}

// Rows of alarms change when an alarm ends. Those of the other tables do not: their IDs say all.
QByteArray fingerprintOf(const Database &database, const Table &table)
{
    if (table.kind != Kind::Alarms)
        return QByteArray();
    return database
        .text(
            "select count(*)||' '||total(EndDate='' and EndTime='')||' '||total(length(EndDate)+length(EndTime)) from " +
            identifier(table.name))
        .valueOr(QByteArray());
}

const char *nameOf(Severity severity)
{
    switch (severity) {
    case Severity::Note:
        return "note";
    case Severity::Attention:
        return "attention";
    case Severity::Damage:
        break;
    }
    return "damage";
}

void writeRows(Json &json, const ServedTable &table)
{
    json.beginObject().key("key").text(table.key).key("lastId").number(table.pass->ends().lastId).endObject();
}

void writeChange(Json &json, const ServedFile &file, const QList<QByteArray> &tables)
{
    json.beginObject()
        .key("file")
        .number(qint64(file.place))
        .key("version")
        .number(file.version)
        .key("error")
        .text(file.followed.error())
        .key("tables")
        .beginArray();
    for (const QByteArray &key : tables)
        writeRows(json, *file.tables.at(key));
    json.endArray().endObject();
}

} // namespace

void writeFinding(Json &json, const Finding &finding)
{
    json.beginObject()
        .key("severity")
        .text(nameOf(finding.severity))
        .key("cause")
        .text(finding.cause)
        .key("table")
        .text(finding.table)
        .key("what")
        .text(finding.what)
        .key("rows")
        .number(finding.rows)
        .key("firstId")
        .number(finding.firstId)
        .key("detail")
        .text(finding.detail)
        .endObject();
}

Result<std::unique_ptr<ServedFiles>> ServedFiles::of(const QStringList &paths)
{
    std::unique_ptr<ServedFiles> files(new ServedFiles);
    for (const QString &path : paths) {
        auto file = std::make_unique<ServedFile>(path);
        file->place = int(files->m_files.size());
        if (!file->followed.database())
            return failure(path, file->followed.error());
        QList<QByteArray> grown;
        if (const Status read = files->read(*file, true, grown); !read)
            return read.error();
        files->m_files.push_back(std::move(file));
    }
    return files;
}

// What of a file has changed, by the IDs of its tables: reading all rows again would take long.
Status ServedFiles::read(ServedFile &file, bool isOther, QList<QByteArray> &grown)
{
    const Database &database = *file.followed.database();
    const auto schema = database.number("pragma schema_version");
    if (!schema)
        return schema.error();
    if (isOther) {
        for (const QByteArray &key : file.order)
            forget(key);
        file.tables.clear();
        file.order.clear();
    }
    if (isOther || *schema != file.schema) {
        if (const Status listed = readTables(file); !listed)
            return listed;
        file.schema = *schema;
        ++file.version;
    }
    const qint64 before = file.version;
    for (const QByteArray &key : file.order) {
        ServedTable &table = *file.tables.at(key);
        const auto ends = endsOf(database, table.table.name);
        if (!ends)
            return ends.error();
        const TableEnds known = table.pass ? table.pass->ends() : TableEnds();
        const QByteArray fingerprint = fingerprintOf(database, table.table);
        const bool wasEmpty = known.highestId == 0;
        const bool isChanged = (!wasEmpty && known.firstId != ends->firstId) || ends->highestId < known.highestId ||
                               ends->lastId < known.lastId;
        if (!table.pass || isChanged || fingerprint != table.fingerprint) {
            if (table.pass)
                file.version = before + 1;
            table.pass = std::make_shared<TablePass>(table.table, *ends);
            if (const auto looked = table.pass->lookAround(database); !looked)
                return looked.error();
            forget(key);
        } else if (ends->lastId > known.lastId) {
            table.pass->grow(*ends);
        } else {
            continue;
        }
        table.fingerprint = fingerprint;
        table.hasDots = false;
        if (ends->lastId > known.lastId)
            grown << key;
        for (auto kept = m_selections.begin(); kept != m_selections.end();)
            kept = kept->table == key && !kept->selection->grow() ? m_selections.erase(kept) : kept + 1;
    }
    return {};
}

Status ServedFiles::readTables(ServedFile &file)
{
    const Database &database = *file.followed.database();
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    file.all = *tables;
    const auto registrations = registrationsOf(database, *tables);
    if (!registrations)
        return registrations.error();
    file.registrations = *registrations;
    const auto infos = seriesInfosOf(database);
    std::map<QByteArray, std::shared_ptr<ServedTable>> before;
    before.swap(file.tables);
    file.order.clear();
    for (const Table &table : *tables) {
        if (!holdsRecords(table.kind))
            continue;
        const QByteArray key = QByteArray::number(file.place) + '/' + table.name.toUtf8();
        auto served = before.count(key) > 0 ? before.at(key) : std::make_shared<ServedTable>();
        if (served->table.kind != table.kind)
            served->pass.reset();
        served->key = key;
        served->file = &file;
        served->table = table;
        served->title = table.name.toUtf8();
        for (const Registration &each : file.registrations) { // the last one counts
            if (table.kind == Kind::Samples && isSameTable(each.collector, table) && !each.name.isEmpty())
                served->title = each.name;
        }
        const auto info = infos.find(table.name.toLower());
        served->unit = info == infos.end() ? QByteArray() : info->second.first;
        served->description = info == infos.end() ? QByteArray() : info->second.second;
        served->hasTrend = table.kind == Kind::Samples && TrendPoints::of(database, table.name).has_value();
        file.tables[key] = served;
        file.order << key;
    }
    return {};
}

QByteArray ServedFiles::look()
{
    Json json;
    json.beginObject().key("files").beginArray();
    bool isAny = false;
    for (const auto &file : m_files) {
        const FollowedFile::News news = file->followed.look();
        const bool isIncomplete = file->followed.database() && file->schema < 0;
        if (news == FollowedFile::News::None && !isIncomplete)
            continue;
        const qint64 version = file->version;
        QList<QByteArray> grown;
        if (!file->followed.database()) {
            ++file->version;
        } else if (!this->read(*file, news == FollowedFile::News::Replaced || isIncomplete, grown)) {
            // Such as a table that has gone between two questions: all of it again at the next look.
            file->tables.clear();
            file->order.clear();
            file->schema = -1;
            ++file->version;
            grown.clear();
        }
        if (file->version == version && grown.isEmpty())
            continue;
        isAny = true;
        writeChange(json, *file, grown);
    }
    json.endArray().endObject();
    return isAny ? json.written() : QByteArray();
}

QByteArray ServedFiles::state() const
{
    Json json;
    json.beginObject().key("files").beginArray();
    for (const auto &file : m_files)
        writeChange(json, *file, file->order);
    json.endArray().endObject();
    return json.written();
}

std::shared_ptr<ServedTable> ServedFiles::table(const QByteArray &key) const
{
    for (const auto &file : m_files) {
        const auto found = file->tables.find(key);
        if (found != file->tables.end() && found->second->pass)
            return found->second;
    }
    return nullptr;
}

QList<Finding> ServedFiles::findingsOf(const ServedFile &file) const
{
    QList<Finding> findings = file.followed.integrity();
    if (file.followed.database()->text("pragma journal_mode").valueOr(QByteArray()) != "wal")
        findings.append(
            {Severity::Note, QString(),
             QStringLiteral("rollback journal: it is copied whenever it has changed, so a large file is not "
                            "live; \"device-db tune\", once and while the device is stopped, changes that"),
             0, 0, QString(), "rollback"});
    findings << configurationFindings(file.all, file.registrations);
    for (const Table &table : file.all) {
        if (table.kind == Kind::Foreign && table.name != QLatin1String("device-db import"))
            findings.append({Severity::Note, table.name, QStringLiteral("no table of a store; it is left alone"), 0, 0,
                             QString(), "foreign"});
    }
    return findings;
}

QByteArray ServedFiles::open() const
{
    Json json;
    json.beginArray();
    for (const auto &file : m_files) {
        const QString path = file->followed.path();
        const Database *const database = file->followed.database();
        const auto number = [&](const char *sql) { return database ? database->number(sql).valueOr(0) : 0; };
        const auto text = [&](const char *sql) {
            return database ? database->text(sql).valueOr(QByteArray()) : QByteArray("");
        };
        json.beginObject().key("name").text(QFileInfo(path).fileName());
        json.key("bytes").number(QFileInfo(path).size());
        json.key("pages").number(number("pragma page_count"));
        json.key("pageSize").number(number("pragma page_size"));
        json.key("freePages").number(number("pragma freelist_count"));
        json.key("journal").text(text("pragma journal_mode") == "wal" ? "wal" : "rollback");
        json.key("encoding").text(text("pragma encoding"));
        for (const auto &[key, ending] : {std::pair{"walBytes", "-wal"}, std::pair{"journalBytes", "-journal"}}) {
            const QFileInfo beside(path + QLatin1String(ending));
            json.key(key).number(beside.exists() ? beside.size() : qint64(-1));
        }
        json.key("configuration").beginArray();
        for (const Registration &each : database ? file->registrations : QList<Registration>())
            json.beginObject()
                .key("collector")
                .text(each.collector)
                .key("name")
                .text(each.name)
                .key("hasTable")
                .boolean(each.hasTable)
                .endObject();
        json.endArray().key("findings").beginArray();
        for (const Finding &each : database ? findingsOf(*file) : QList<Finding>())
            writeFinding(json, each);
        json.endArray().key("error").text(file->followed.error()).endObject();
    }
    return json.endArray().written();
}

QByteArray ServedFiles::tables() const
{
    Json json;
    json.beginArray();
    for (const auto &file : m_files) {
        for (const QByteArray &key : file->order) {
            const ServedTable &table = *file->tables.at(key);
            json.beginObject().key("key").text(table.key);
            json.key("file").number(qint64(file->place));
            json.key("name").text(table.table.name);
            json.key("kind").text(device_db::nameOf(table.table.kind));
            json.key("title").text(table.title);
            json.key("unit").text(table.unit);
            json.key("description").text(table.description);
            json.key("indexed").boolean(table.pass->isIndexed());
            json.key("hasTrend").boolean(table.hasTrend);
            json.key("firstId").number(table.pass->ends().firstId);
            json.key("lastId").number(table.pass->ends().lastId).endObject();
        }
    }
    return json.endArray().written();
}

void ServedFiles::forget(const QByteArray &table)
{
    m_selections.erase(
        std::remove_if(m_selections.begin(), m_selections.end(), [&](const Kept &kept) { return kept.table == table; }),
        m_selections.end());
}

std::shared_ptr<Selection> ServedFiles::selection(const ServedTable &table, const QByteArray &key,
                                                  const SelectionQuery &query)
{
    const auto found = std::find_if(m_selections.begin(), m_selections.end(), [&](const Kept &kept) {
        return kept.table == table.key && kept.key == key && kept.pass == table.pass;
    });
    Kept kept = found != m_selections.end()
                    ? *found
                    : Kept{table.key, key, table.pass, std::make_shared<Selection>(table.pass, query)};
    if (found != m_selections.end())
        m_selections.erase(found);
    else if (m_selections.size() >= selectionsKept)
        m_selections.erase(m_selections.begin());
    m_selections.push_back(kept);
    return kept.selection;
}

} // namespace device_db
