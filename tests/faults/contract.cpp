// SPDX-License-Identifier: MIT
#include "contract.h"

#include <cstring>

namespace
{

constexpr int rowsOfManyRows = 24;
const QString longText = QString(300, QLatin1Char('x')); // three pages or so

/// The batch of meaningOf("insertManyDatas"), its one row made long and repeated.
const Meaning *manyRows(Kind kind)
{
    static std::vector<Meaning> all;
    if (all.empty()) {
        for (const Kind each : {History, Alarm, OperatorLog}) {
            Meaning many = *meaningOf("insertManyDatas", each);
            many.name = "insertManyDatas, many rows";
            many.kinds = each;
            QString insert = many.statements.at(1);
            insert.replace(each == History ? "8.5"_q : each == Alarm ? "it''s hot"_q : "it''s me"_q, longText);
            many.statements = QStringList{many.statements.first()};
            for (int row = 0; row < rowsOfManyRows; ++row)
                many.statements.append(insert);
            many.statements.append("commit transaction"_q);
            all.push_back(many);
        }
    }
    return &all.at(kind == History ? 0 : kind == Alarm ? 1 : 2);
}

void insertManyRows(interface_data_base &store, Outcome &outcome)
{
    QStringList row = outcome.input.takeFirst();
    freeText(row) = longText;
    for (int i = 0; i < rowsOfManyRows; ++i)
        outcome.input.append(row);
    store.insertManyDatas(outcome.input, "AlarmData"_q);
}

/// createTable() is the one operation whose statements depend on how those before them ended.
Conduct conductOfCreateTable(const Meaning &meaning, Kind kind, const std::vector<SqliteCall> &heard)
{
    const auto failed = [&](size_t i) { return i < heard.size() && heard[i].code != SQLITE_OK; };
    const auto error = [&](size_t i) { return heard[i].error.isNull() ? nullptr : heard[i].error.constData(); };
    const Message &failure = meaning.failure.front();
    Conduct conduct{meaning.statements.mid(0, 2), {}, "false"_q}; // no answer whether it exists: it is tried
    if (failed(1)) {
        conduct.log.append(failure.with(error(1)));
        return conduct;
    }
    conduct.answer = "true"_q;
    conduct.log.append(kind == History ? "HisData Table create success!"_q
                       : kind == Alarm ? "alarm Table create success!"_q
                                       : "operatorlog Table create success!"_q);
    if (kind != History)
        return conduct;
    conduct.runs.append(meaning.statements.at(2));
    size_t at = 3;
    if (failed(2)) { // tb_config seems to be missing
        conduct.runs.append("create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)"_q);
        if (failed(at))
            conduct.log.append(failure.with(error(at)));
        else
            conduct.log.append("HisData tb_config create success!"_q);
        ++at;
    }
    conduct.runs += meaning.statements.mid(3);
    if (failed(at + 2))
        conduct.log.append("insertManyDatas fail"_q);
    return conduct;
}

} // namespace

QString &freeText(QStringList &row)
{
    return row[row.size() == 2 ? 1 : row.size() == 4 ? 3 : 7];
}

std::vector<Operation> operationsOf(Kind kind)
{
    std::vector<Operation> operations;
    for (const Call<interface_data_base> &call : calls<interface_data_base>())
        operations.push_back({call, meaningOf(call.name, kind)});
    operations.push_back({{5, "insertManyDatas, many rows", "0", insertManyRows}, manyRows(kind)});
    return operations;
}

Conduct conductOf(const Operation &operation, Kind kind, const std::vector<SqliteCall> &heard)
{
    if (!operation.meaning)
        return {{}, {}, operation.call.refusal};
    const Meaning &meaning = *operation.meaning;
    if (std::strcmp(meaning.name, "createTable") == 0)
        return conductOfCreateTable(meaning, kind, heard);

    Conduct conduct{meaning.statements, {}, meaning.answer};
    const bool isBatch = !meaning.commitFailure.isNull();
    for (size_t i = 0; i < heard.size(); ++i) {
        const SqliteCall &call = heard[i];
        if (call.code == SQLITE_OK)
            continue;
        const char *const error = call.error.isNull() ? nullptr : call.error.constData();
        if (isBatch && i + 1 == size_t(meaning.statements.size())) {
            conduct.log.append(meaning.commitFailure);
        } else if (!isBatch) {
            for (const Message &message : meaning.failure)
                conduct.log.append(message.with(error));
            conduct.answer = operation.call.refusal;
        } else if (i > 0 && i <= meaning.failure.size()) { // a statement of execSQL; rows and "begin" fail in silence
            conduct.log.append(meaning.failure.at(i - 1).with(error));
            conduct.answer = operation.call.refusal;
        }
    }
    return conduct;
}

bool changesContent(const QString &statement)
{
    for (const char *const without : {"select", "PRAGMA", "VACUUM", "begin", "commit"})
        if (statement.startsWith(QLatin1String(without)))
            return false;
    return true;
}

void Acknowledged::add(const std::vector<SqliteCall> &heard)
{
    for (const SqliteCall &call : heard) {
        const bool succeeded = call.code == SQLITE_OK;
        const bool began = m_inTransaction;
        m_inTransaction = call.inTransaction;
        if (call.text == "commit transaction"_q) {
            if (succeeded)
                commit(m_open);
            else if (began && !call.inTransaction)
                mayHaveCommitted(m_open);
        } else if (changesContent(call.text)) {
            if (succeeded && call.inTransaction)
                m_open.append(call.text);
            else if (succeeded)
                commit({call.text});
            else if (!began)
                mayHaveCommitted({call.text});
        }
        if (!call.inTransaction)
            m_open.clear();
    }
}

void Acknowledged::close()
{
    m_open.clear();
    m_inTransaction = false;
}

void Acknowledged::commit(const QStringList &statements)
{
    for (QStringList &list : m_possible)
        list += statements;
}

// One error, one doubt: that two of them were carried out is not among the possibilities.
void Acknowledged::mayHaveCommitted(const QStringList &statements)
{
    if (!statements.isEmpty())
        m_possible.push_back(m_possible.front() + statements);
}
