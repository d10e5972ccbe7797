// SPDX-License-Identifier: MIT
//
// A made-up machine: four series over a week, alarms, a log, a pause, a clock that was set back and a spike of a
// second.
const start = "strftime('%s','2024-05-06 00:00:00')";

const samples = (table: string): string =>
    `CREATE TABLE ${table}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`;
const series = (table: string, from: number, to: number, step: number, value: string): string =>
    `insert into ${table}(DATETIME,Value) with recursive n(i) as (select ${from} union all select i+${step} from n where i<${to}) ` +
    `select datetime(${start}+i,'unixepoch'),${value} from n`;
const random = '(abs((i*2654435761)%1000)/1000.0)';

export const plant: readonly string[] = [
    samples('T1'),
    samples('T2'),
    samples('T3'),
    samples('T10'),
    'CREATE TABLE tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)',
    "insert into tb_config(COLLECTOR,NAME) values('T1','Boiler flow temperature'),('T2','Feed pump pressure'),('T3','Level tank 2'),('T10','Valve state')",
    'CREATE TABLE "device series"(COLLECTOR text PRIMARY KEY COLLATE NOCASE,UNIT text,DESCRIPTION text)',
    `insert into "device series" values('T1','°C','Sensor TI 101, behind the boiler'),('T2','bar','PI 204'),('T3','m','')`,
    series('T1', 0, 259200, 10, `printf('%.1f',72+9*sin(i/13751.0)+3*sin(i/1713.0)+${random})`),
    series('T1', 282000, 604800, 10, `printf('%.1f',70+8*sin(i/13751.0)+3*sin(i/1713.0)+${random})`),
    "update T1 set Value='118.4' where DATETIME='2024-05-08 14:17:30'",
    series('T2', 0, 604800, 20, `printf('%.2f',4.2+0.6*sin(i/43000.0)+0.3*((i/3600)%3)+0.1*${random})`),
    "update T2 set Value='--' where DATETIME between '2024-05-10 06:00:00' and '2024-05-10 06:40:00'",
    series('T3', 0, 400000, 60, "printf('%.3f',1.5+((i/60)%720)/600.0)"),
    series('T3', 396400, 604800, 60, "printf('%.3f',1.5+((i/60)%720)/600.0)"),
    series('T10', 0, 604800, 3600, "case (i/3600)%7 when 0 then 'open' else (i/3600)%2 end"),
    `CREATE TABLE AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,
     CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)`,
    `insert into AlarmData(LevelID,DATETIME,AlarmObject,AlarmType,CurrentValue,LimitValue,AlarmDescription,EndDate,EndTime)
     with recursive n(i) as (select 0 union all select i+1 from n where i<399)
     select 1+(i*7)%3, datetime(${start}+i*1490,'unixepoch'), case i%4 when 0 then 'Boiler' when 1 then 'Pump 1' when 2 then 'Tank 2' else 'Valve 7' end,
     case i%3 when 0 then 'High' when 1 then 'Low' else 'Stuck' end, printf('%.1f',80+i%30), '80',
     case i%4 when 0 then 'Temperature above limit, 80 Â°C' when 1 then 'Pressure below limit' when 2 then 'Level' else 'Does not close' end,
     date(${start}+i*1490+300+(i*i*37)%5000,'unixepoch'), time(${start}+i*1490+300+(i*i*37)%5000,'unixepoch') from n`,
    "update AlarmData set EndDate='',EndTime='' where ID in (371,390)",
    "update AlarmData set EndTime='' where ID=200",
    'CREATE TABLE OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)',
    `insert into OperatorLog(DATETIME,userName,logName,message) with recursive n(i) as (select 0 union all select i+1 from n where i<299)
     select strftime('%Y-%m-%d %H:%M:%f',${start}+i*1990+(i*i*17)%900+0.123,'unixepoch'), case i%5 when 0 then 'admin' when 1 then 'Jürgen' else 'shift ' || (1+i%3) end,
     case i%3 when 0 then 'Login' when 1 then 'Setpoint' else 'Acknowledge' end,
     case i%3 when 0 then 'Logged in' when 1 then 'Limit of "Boiler" from ' || (70+i%9) || ' to ' || (75+i%9) || char(10) || 'as agreed' else 'Alarm ' || i || ' acknowledged' end from n`,
    "insert into OperatorLog(DATETIME,userName,logName,message) values('2024-05-12 22:00:00.000','<img src=x onerror=alert(1)>','</script><script>alert(2)</script>','\"><b>%1')",
];
