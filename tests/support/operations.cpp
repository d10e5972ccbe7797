// SPDX-License-Identifier: MIT
#include "operations.h"

#include <cstring>

void prepareFile(const QString &path, Kind kind)
{
    PlainConnection file(path);
    file.run("PRAGMA synchronous=off; begin;"
             "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
             "insert into tb_config values(NULL,'C','N');"
             "create table Ended(EndDate text,EndTime text);"
             "insert into Ended values('','');"_q);
    if (kind == History)
        file.run("create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into AlarmData values(NULL,'2024-05-06 07:08:09','7.5')"_q);
    else if (kind == Alarm)
        file.run("create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
                 "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,"
                 "EndDate text,EndTime text);"
                 "insert into AlarmData values(NULL,2,'2024-05-06 07:08:09','Pump','High','87.5','80','Hot','','')"_q);
    else
        file.run("create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,"
                 "userName text,logName text,message text);"
                 "insert into AlarmData values(NULL,'2024-05-06 07:08:09.123','admin','Login','Logged in')"_q);
    file.run("commit"_q);
}

Outcome::Outcome(Kind kind)
{
    switch (kind) {
    case History:
        input.append(QStringList{"2024/05/07 07:08:09"_q, "8.5"_q});
        list = &samples;
        break;
    case Alarm:
        input.append(QStringList{"2"_q, "2024/05/07"_q, "07:08:09"_q, "Pump"_q, "High"_q, "87.5"_q, "80"_q,
                                 "it's hot"_q, ""_q, ""_q});
        list = &alarms;
        break;
    default:
        input.append(QStringList{"2024-05-07 07:08:09.123"_q, "admin"_q, "Login"_q, "it's me"_q});
        list = &entries;
    }
}

QString Message::with(const char *errorText) const
{
    const QString quoted = QString::fromLatin1(errorText);
    switch (error) {
    case Bare:
        return text.isEmpty() ? streamed(errorText) : streamed(text.toUtf8().constData(), errorText);
    case Quoted:
        return streamed(text.toUtf8().constData(), quoted);
    case InTheText:
        return streamed(text + quoted);
    default:
        return text;
    }
}

const Meaning *meaningOf(const char *operation, Kind kind)
{
    using M = Message;
    // clang-format off: one statement text a line, whole
    static const std::vector<Meaning> all = {
        Meaning("dbWalCheckPoint", EveryKind, "0", {"PRAGMA wal_checkpoint = passive;"_q}, {{QString(), M::Bare}}),

        Meaning("createTable", History, "true",
                {"select count(type) from sqlite_master where type='table' and name ='Other'"_q,
                 "create table Other(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q,
                 "select count(type) from sqlite_master where type='table' and name ='tb_config'"_q,
                 "begin transaction"_q, "insert into tb_config values(NULL,'Other','N')"_q, "commit transaction"_q},
                {{"HisData Table create fail!"_q, M::Bare}}),
        Meaning(
            "createTable", Alarm, "true",
            {"select count(type) from sqlite_master where type='table' and name ='Other'"_q,
             "create table Other(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)"_q},
            {{"alarm Table create fail!"_q}}),
        Meaning(
            "createTable", OperatorLog, "true",
            {"select count(type) from sqlite_master where type='table' and name ='Other'"_q,
             "create table Other(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)"_q},
            {{"operatorlog Table create fail!"_q}}),

        Meaning("execSQL, mode 0", History | Alarm, "true", {"delete from Ended"_q}, {{QString(), M::Bare}}),
        Meaning("execSQL, mode 1", History | Alarm, "true", {"select * from Ended"_q}, {{QString(), M::Bare}}),
        Meaning("execSQL, mode 2", History | Alarm, "true",
                {"begin transaction"_q, "delete from Ended"_q, "delete from tb_config"_q, "commit transaction"_q},
                {{"SQL=delete from Ended   error:"_q, M::InTheText},
                 {"SQL=delete from tb_config   error:"_q, M::InTheText}},
                "sql fail"),

        Meaning("insertManyDatas", History, "0",
                {"begin transaction"_q, "insert into AlarmData values(NULL,'2024-05-07 07:08:09','8.5')"_q,
                 "commit transaction"_q},
                {}, "insertManyDatas fail"),
        Meaning(
            "insertManyDatas", Alarm, "0",
            {"begin transaction"_q,
             "insert into AlarmData values(NULL,'2','2024-05-07 07:08:09','Pump','High','87.5','80','it''s hot','','')"_q,
             "commit transaction"_q},
            {}, "insertManyDatas fail!"),
        Meaning("insertManyDatas", OperatorLog, "0",
                {"begin transaction"_q,
                 "insert into AlarmData values(NULL, '2024-05-07 07:08:09.123', 'admin', 'Login', 'it''s me');"_q,
                 "commit transaction"_q},
                {}, "insertManyDatas fail"),

        Meaning(
            "findDataByTime", History | Alarm, "1",
            {"select * from 'AlarmData' where DATETIME between '2024-05-05' and '2024-05-07' order by ID limit 0,7"_q},
            {{"findDataByTime"_q, M::Quoted}}),

        Meaning(
            "findDataOfValue", History, "1",
            {"select * from AlarmData where DATETIME <= '2024/05/07' AND Value LIKE '%7%' order by DATETIME desc;"_q},
            {{"findDataOfValue"_q, M::Quoted}}),

        Meaning(
            "findDataOfUserNamePage", OperatorLog, "1",
            {"select * from (select * from AlarmData where userName = 'admin' order by DATETIME desc limit 8) order by DATETIME limit 0, 7;"_q},
            {{"findDataOfUserNamePage"_q, M::Quoted}}),
        Meaning("findDataOfUserName", OperatorLog, "1",
                {"select * from AlarmData where userName = 'admin' order by DATETIME asc;"_q},
                {{"findDataOfUserName"_q, M::Quoted}}),
        Meaning("getDataCountOfUserQuery", OperatorLog, "1",
                {"select count(*) from 'AlarmData' where userName = 'admin'"_q},
                {{"database getDataCountOfUserQuery failed\n"_q}}),

        Meaning(
            "findDataOfTimePage", History, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05' and  '2024-05-07' order by DATETIME desc limit 0, 7;"_q},
            {{"findDataOfTimePage"_q, M::Quoted}}),
        Meaning(
            "findDataOfTimePage", Alarm, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05' and  '2024-05-07' and EndDate = '' and EndTime = '' order by DATETIME desc limit 0, 7;"_q},
            {{"findDataOfTimePage"_q, M::Quoted}}),
        Meaning(
            "findDataOfTimePage", OperatorLog, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05.000' and  '2024-05-07.999' order by DATETIME desc limit 0, 7;"_q},
            {{"findDataOfTimePage"_q, M::Quoted}}),

        Meaning(
            "findDataOfTime", History, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05' and  '2024-05-07' order by DATETIME asc;"_q},
            {{"findDataOfTime"_q, M::Quoted}}),
        Meaning(
            "findDataOfTime", Alarm, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05' and  '2024-05-07' and EndDate = '' and EndTime = '' order by DATETIME asc;"_q},
            {{"findDataOfTime"_q, M::Quoted}}),
        Meaning(
            "findDataOfTime", OperatorLog, "1",
            {"select * from AlarmData where DATETIME Between '2024-05-05.000' and  '2024-05-07.999' order by DATETIME asc;"_q},
            {{"findDataOfTime"_q, M::Quoted}}),

        Meaning(
            "getAllDataPage", History | OperatorLog, "1",
            {"select * from (select * from 'AlarmData' order by DATETIME desc limit 8) order by DATETIME limit 0, 7;"_q},
            {{"database getAllData failed\n"_q}}),
        Meaning("getAllDataPage", Alarm, "1",
                {"select * from 'AlarmData' where EndDate = '' and EndTime = '' order by DATETIME asc"_q},
                {{"database getAllData failed\n"_q}}),

        Meaning("getCurrData", History, "1", {"select * from 'AlarmData' order by DATETIME desc limit 7;"_q},
                {{"database getAllData failed\n"_q}}),
        Meaning("getCurrData", OperatorLog, "1", {"select * from 'AlarmData' order by DATETIME desc limit 7;"_q},
                {{"database getCurrData failed\n"_q}, {QString(), M::Bare}}),

        Meaning("getDataCountOfTimeQuery", History, "1",
                {"select count(*) from 'AlarmData' where DATETIME Between '2024-05-05' and  '2024-05-07'"_q},
                {{"database getDataCountOfTimeQuery failed\n"_q}}),
        Meaning("getDataCountOfTimeQuery", Alarm | OperatorLog, "1",
                {"select count(*) from 'AlarmData' where DATETIME Between '2024-05-05.000' and  '2024-05-07.999'"_q},
                {{"database getDataCountOfTimeQuery failed\n"_q}}),

        Meaning("tableIsExist", EveryKind, "true",
                {"select count(type) from sqlite_master where type='table' and name ='AlarmData'"_q}),

        Meaning("deleteTable", History | OperatorLog, "true", {"delete from 'AlarmData'"_q},
                {{streamed("delete Table ", "AlarmData"_q, " fail!")}}),
        Meaning("deleteTable", Alarm, "true",
                {"delete from 'AlarmData' where DATETIME < '2024-05-07' or EndDate != '' and EndTime != '';"_q},
                {{"Delete many data fail"_q}}),

        Meaning("vacuumSqliteDB", EveryKind, "true", {"VACUUM"_q}, {{"VACUUM fail!"_q}}),

        Meaning("resetID", EveryKind, "true", {"update sqlite_sequence SET seq = 0 where name = 'AlarmData';"_q},
                {{streamed("reset ", "AlarmData"_q, " ID fail!")}}),

        Meaning("getDataCountOfTable", EveryKind, "1", {"select count(*) from 'AlarmData' "_q},
                {{"database getDataCountOfTable failed;"_q, M::Bare}}),

        Meaning("getDataCountOfTableEndDate", EveryKind, "1",
                {"select count(*) from 'AlarmData' where DATETIME <= '2024-05-07'"_q},
                {{"database getDataCountOfTableEndDate failed;"_q, M::Bare}}),

        Meaning("deleteDataForMax", EveryKind, "true",
                {"delete from 'AlarmData' where ID in (select ID from AlarmData order by ID limit 0,7);"_q},
                {{"Delete many data fail"_q}}),

        Meaning("selectConfigInfo", EveryKind, "@C@N", {"select COLLECTOR,NAME from 'tb_config'"_q},
                {{"database selectConfigInfo failed;"_q, M::Bare}}),

        Meaning("insertConfig", EveryKind, "0",
                {"begin transaction"_q, "insert into tb_config values(NULL,'T1','N1')"_q, "commit transaction"_q}, {},
                "insertManyDatas fail"),

        Meaning("selectNewDataOfRows", EveryKind, "1",
                {"select * from 'AlarmData' order by DATETIME desc limit 0,'7' "_q},
                {{"database selectNewDataOfRows failed"_q}}),

        Meaning("selectOldDataOfRows", EveryKind, "1",
                {"select * from 'AlarmData' order by DATETIME asc limit 0,'7' "_q},
                {{"database selectOldDataOfRows failed"_q}}),

        Meaning("selectDataOfRows", EveryKind, "1",
                {"select * from 'AlarmData' order by DATETIME desc , ID limit 0,7 "_q},
                {{"database selectDataOfRows failed"_q, M::Bare}}),

        Meaning(
            "selectDataOfDateRows", EveryKind, "1",
            {"select * from 'AlarmData' where DATETIME <= '2024-05-07' order by DATETIME , ID limit 0,7 "_q},
            {{"database selectDataOfDateRows failed"_q},
             {streamed("select * from 'AlarmData' where DATETIME <= '2024-05-07' order by DATETIME , ID limit 0,7 "_q)},
             {QString(), M::Bare}}),

        Meaning("findNoRecoveryAlarm", EveryKind, "1",
                {"select * from 'Ended' where EndDate == '' and EndTime == '';"_q},
                {{"findNoRecoveryAlarm"_q, M::Quoted}}),
    };
    // clang-format on
    for (const Meaning &meaning : all)
        if ((meaning.kinds & kind) && std::strcmp(meaning.name, operation) == 0)
            return &meaning;
    return nullptr;
}
