// SPDX-License-Identifier: MIT
#include "serve/served_files.h"

#include "storefile/texts.h"

#include <QCryptographicHash>
#include <QFileInfo>

#include <algorithm>

namespace device_db
{

namespace
{

constexpr size_t selectionsKept = 16;

// Whatever columns another table of that name has, it is not the host layer's own.
Result<std::map<QByteArray, SeriesInfo>> seriesInfosOf(const Database &database)
{
    std::map<QByteArray, SeriesInfo> infos;
    const auto columns = database.text("select group_concat(name) from pragma_table_info((select name from "
                                       "sqlite_master where type='table' and rootpage>0 and name='device series'))");
    if (!columns || *columns != "COLLECTOR,UNIT,DESCRIPTION")
        return infos;
    auto rows = database.prepare("select COLLECTOR,UNIT,DESCRIPTION from \"device series\"");
    if (!rows)
        return rows.error();
    while (rows->step())
        infos[foldedName(rows->cell(0))] = {rows->cell(1), rows->cell(2)};
    if (const Status status = rows->status(); !status)
        return status.error();
    return infos;
}

bool isSame(const QList<Registration> &some, const QList<Registration> &others)
{
    return std::equal(some.begin(), some.end(), others.begin(), others.end(),
                      [](const Registration &a, const Registration &b) {
                          return a.collector == b.collector && a.name == b.name && a.hasTable == b.hasTable;
                      });
}

// Of what its IDs do not say: the cells of the rows at its ends, so that a table that was cleared and filled again is
// noticed, and the ends of alarms, which come later. Up to the highest ID, so that a new alarm is a new row and nothing
// else.
QByteArray fingerprintOf(const Database &database, const Table &table, const TableEnds &ends)
{
    const auto textOf = [&](const QByteArray &what, const QByteArray &ids) {
        return database.text("select " + what + " from " + identifier(table.name) + " where ID" + ids)
            .valueOr(QByteArray());
    };
    QByteArray cells;
    for (const KnownColumn &column : columnsOf(table.kind))
        cells += QByteArray(cells.isEmpty() ? "" : "||") + "quote(" + column.name + ')';
    const QByteArray first = QByteArray::number(ends.firstId);
    const QByteArray highest = QByteArray::number(ends.highestId);
    QByteArray text = textOf("group_concat(" + cells + ')', " in (" + first + ',' + highest + ')');
    if (table.kind == Kind::Alarms) // column by column: a third less time than row by row
        text += textOf("count(*)||' '||ifnull(group_concat(EndDate),'')||' '||ifnull(group_concat(EndTime),'')",
                       "<=" + highest);
    return QCryptographicHash::hash(text, QCryptographicHash::Sha1);
}

// What the pass of a table has read says too little, or too much. That rows were removed at the beginning counts when
// it says so: where a device removes one for each that it stores, it would never come to its end.
bool needsAnother(const TablePass &pass, const TableEnds &ends)
{
    const TableEnds &known = pass.ends();
    const bool wasEmpty = known.highestId == 0;
    return pass.isOutdated() || (!wasEmpty && ends.firstId < known.firstId) || ends.highestId < known.highestId ||
           ends.lastId < known.lastId;
}

QString errorOf(const ServedFile &file)
{
    return file.followed.database() ? file.error : file.followed.error();
}

// Looked at again although the file has not changed.
bool isUnsettled(const ServedTable &table)
{
    return !table.pass || table.pass->isOutdated();
}

Finding unreadable(const QString &table, const QString &error)
{
    return {Severity::Damage, table, QStringLiteral("it cannot be read: ") + error, 0, 0, QString(), "damaged"};
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
        .text(errorOf(file))
        .key("tables")
        .beginArray();
    for (const QByteArray &key : tables) {
        if (file.tables.at(key)->pass)
            writeRows(json, *file.tables.at(key));
    }
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
        files->m_files.push_back(std::make_unique<ServedFile>(path));
        ServedFile &file = *files->m_files.back();
        file.place = int(files->m_files.size()) - 1;
        QList<QByteArray> grown;
        if (file.followed.database())
            files->read(file, FollowedFile::News::Replaced, grown);
    }
    const std::vector<Error> errors = files->errors();
    if (!errors.empty() && errors.size() == files->m_files.size())
        return errors.front();
    return files;
}

std::vector<Error> ServedFiles::errors() const
{
    std::vector<Error> errors;
    for (const auto &file : m_files) {
        if (const QString error = errorOf(*file); !error.isEmpty())
            errors.push_back(failure(file->followed.path(), error));
    }
    return errors;
}

// What of a file has changed, by the IDs of its tables: reading all rows again would take long. What cannot be read is
// left out, which is a change once; each look tries it again.
void ServedFiles::read(ServedFile &file, FollowedFile::News news, QList<QByteArray> &grown)
{
    const bool hasNews = news != FollowedFile::News::None;
    bool isOther = news == FollowedFile::News::Replaced;
    if (isOther)
        forgetAll(file);
    if (hasNews || !file.error.isEmpty()) {
        const auto listed = readTables(file);
        if (!listed)
            forgetAll(file);
        const QString error = listed ? QString() : listed.error().cause();
        isOther = isOther || listed.valueOr(false) || error != file.error;
        file.error = error;
    }
    for (const QByteArray &key : file.order) {
        ServedTable &table = *file.tables.at(key);
        if (!hasNews && !isUnsettled(table))
            continue;
        const auto renewed = readTable(table, grown);
        if (!renewed) {
            table.pass.reset();
            forget(key);
        }
        const QString error = renewed ? QString() : renewed.error().cause();
        isOther = isOther || renewed.valueOr(false) || error != table.error;
        table.error = error;
    }
    if (isOther)
        ++file.version;
}

// Whether the tables, or what is said about them, are others.
Result<bool> ServedFiles::readTables(ServedFile &file)
{
    const Database &database = *file.followed.database();
    const auto schema = schemaDigest(database);
    if (!schema)
        return schema.error();
    const auto tables = *schema == file.schema ? Result<QList<Table>>(file.all) : tablesOf(database);
    if (!tables)
        return tables.error();
    // At each change: the library commits a table before what tb_config says about it.
    const auto registrations = registrationsOf(database, *tables);
    const QString configurationError = registrations ? QString() : registrations.error().cause();
    const auto infos = seriesInfosOf(database);
    const QString infosError = infos ? QString() : infos.error().cause();
    if (*schema == file.schema && isSame(registrations.valueOr({}), file.registrations) &&
        configurationError == file.configurationError && infos.valueOr({}) == file.infos &&
        infosError == file.infosError)
        return false;
    file.schema = *schema;
    file.all = *tables;
    file.registrations = registrations.valueOr({});
    file.configurationError = configurationError;
    file.infos = infos.valueOr({});
    file.infosError = infosError;

    std::map<QByteArray, QByteArray> titles;
    for (const Registration &each : file.registrations) {
        if (!each.name.isEmpty())
            titles[foldedName(each.collector)] = each.name; // the last one counts
    }
    std::map<QByteArray, std::shared_ptr<ServedTable>> before;
    before.swap(file.tables);
    file.order.clear();
    file.keyless.clear();
    for (const Table &table : file.all) {
        if (!holdsRecords(table.kind))
            continue;
        const auto isKeyed = isKeyedById(database, table);
        if (!isKeyed)
            return isKeyed.error();
        if (!*isKeyed) {
            file.keyless << table.name;
            continue;
        }
        const QByteArray name = table.name.toUtf8();
        const QByteArray key = QByteArray::number(file.place) + '/' + name;
        auto served = before.count(key) > 0 ? before.at(key) : std::make_shared<ServedTable>();
        if (served->table.kind != table.kind)
            served->pass.reset();
        served->key = key;
        served->file = &file;
        served->table = table;
        const auto title = titles.find(foldedName(name));
        served->title = table.kind == Kind::Samples && title != titles.end() ? title->second : name;
        const auto info = file.infos.find(foldedName(name));
        served->unit = info == file.infos.end() ? QByteArray() : info->second.unit;
        served->description = info == file.infos.end() ? QByteArray() : info->second.description;
        served->hasTrend = table.kind == Kind::Samples && TrendPoints::of(database, table.name).has_value();
        file.tables[key] = served;
        file.order << key;
    }
    return true;
}

// Whether it has other rows than were known, and not only new ones.
Result<bool> ServedFiles::readTable(ServedTable &table, QList<QByteArray> &grown)
{
    const Database &database = *table.file->followed.database();
    const auto ends = endsOf(database, table.table.name);
    if (!ends)
        return ends.error();
    const TableEnds known = table.pass ? table.pass->ends() : TableEnds();
    // First that of all rows: an alarm that ends between the two is seen now or at the next look.
    const QByteArray fingerprint = fingerprintOf(database, table.table, *ends);
    const QByteArray before =
        ends->highestId == known.highestId ? fingerprint : fingerprintOf(database, table.table, known);
    const bool hadPass = bool(table.pass);
    const bool isPurged = hadPass && ends->firstId > known.firstId;
    const bool isRenewed = !hadPass || needsAnother(*table.pass, *ends) || (!isPurged && before != table.fingerprint);
    if (isRenewed) {
        table.pass = std::make_shared<TablePass>(table.table, *ends);
        if (const auto looked = table.pass->lookAround(database); !looked)
            return looked.error();
    } else if (isPurged || ends->lastId > known.lastId) {
        table.pass->grow(*ends);
    } else {
        return false;
    }
    table.fingerprint = fingerprint;
    table.hasDots = false;
    if (ends->lastId > known.lastId)
        grown << table.key;
    if (isRenewed || isPurged)
        forget(table.key);
    for (auto kept = m_selections.begin(); kept != m_selections.end();)
        kept = kept->table == table.key && !kept->selection->grow() ? m_selections.erase(kept) : kept + 1;
    return isRenewed && hadPass;
}

void ServedFiles::forgetAll(ServedFile &file)
{
    for (const QByteArray &key : file.order)
        forget(key);
    file.tables.clear();
    file.order.clear();
    file.schema.clear();
}

QByteArray ServedFiles::look()
{
    Json json;
    json.beginObject().key("files").beginArray();
    bool isAny = false;
    for (const auto &file : m_files) {
        const FollowedFile::News news = file->followed.look();
        const bool isUnsettledFile =
            file->followed.database() &&
            (!file->error.isEmpty() || std::any_of(file->tables.begin(), file->tables.end(),
                                                   [](const auto &each) { return isUnsettled(*each.second); }));
        if (news == FollowedFile::News::None && !isUnsettledFile)
            continue;
        const qint64 version = file->version;
        QList<QByteArray> grown;
        if (file->followed.database())
            this->read(*file, news, grown);
        else
            ++file->version;
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
    QList<Finding> findings;
    if (!file.configurationError.isEmpty())
        findings << unreadable(QStringLiteral("tb_config"), file.configurationError);
    if (!file.infosError.isEmpty())
        findings << unreadable(QStringLiteral("device series"), file.infosError);
    for (const QByteArray &key : file.order) {
        if (const ServedTable &table = *file.tables.at(key); !table.pass)
            findings << unreadable(table.table.name, table.error);
    }
    for (const QString &table : file.keyless)
        findings.append({Severity::Attention, table,
                         QStringLiteral("ID is no INTEGER PRIMARY KEY there: its rows cannot be told apart, and are "
                                        "not shown"),
                         0, 0, QString(), "definition"});
    findings << file.followed.integrity();
    if (file.followed.database()->text("pragma journal_mode").valueOr(QByteArray()) != "wal")
        findings.append(
            {Severity::Note, QString(),
             QStringLiteral("rollback journal: it is copied whenever it has changed, so a large file is not "
                            "live; \"device-db tune\", once and while the device is stopped, changes that"),
             0, 0, QString(), "rollback"});
    if (file.configurationError.isEmpty())
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
        const Database *const database = file->error.isEmpty() ? file->followed.database() : nullptr;
        const auto number = [&](const char *sql) { return database ? database->number(sql).valueOr(0) : 0; };
        const auto text = [&](const char *sql) {
            return database ? database->text(sql).valueOr(QByteArray()) : QByteArray("");
        };
        json.beginObject().key("name").text(QFileInfo(path).fileName());
        json.key("version").number(file->version);
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
        json.endArray().key("error").text(errorOf(*file)).endObject();
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
            if (!table.pass)
                continue;
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
