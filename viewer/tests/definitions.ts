// SPDX-License-Identifier: MIT
//
// What the committed cases ask. The answers beside them in cases/*.json are those of device-db ("npm run cases").

/** Everything but SQL and data is the same in every language that answers them. */
export interface Definition {
    readonly name: string;
    readonly sql: readonly string[]; // makes the file
    readonly trends?: readonly (readonly [string, string])[]; // sums that are kept: table and levels
    readonly then?: readonly string[]; // what happens to the file after that
    readonly ranges?: readonly (readonly [string, string, string, number])[]; // pictures: table, first and last time, columns
    readonly cells?: readonly string[]; // tables whose cells are compared
    readonly finds?: readonly (readonly [string, string])[]; // table and text
}

const samples = (table: string): string =>
    `CREATE TABLE "${table}"(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`;
const configuration = 'CREATE TABLE tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)';
const alarms = (table: string): string =>
    `CREATE TABLE ${table}(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,` +
    'AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)';
const log = (table: string): string =>
    `CREATE TABLE ${table}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT ` +
    'NULL,userName text,logName text,message text)';
const start = "strftime('%s','2024-05-06 07:00:00')";
/** `count` rows of a made-up series: `seconds` and `value` are SQL of the number i. */
const series = (table: string, count: number, seconds: string, value: string): string =>
    `insert into "${table}"(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where ` +
    `i<${count - 1}) select datetime(${start}+${seconds},'unixepoch'),${value} from n`;
const noise = '((i*7919+i*i*31)%1009)/10.0';
const at = (second: number): string =>
    new Date(Date.UTC(2024, 4, 6, 7) + second * 1000).toISOString().slice(0, 19).replace('T', ' ');

export const numbers: readonly string[] = [
    '87.5',
    '-1e3',
    '.5',
    '5.',
    '+5',
    '+.5',
    '+-5',
    '-+5',
    '--5',
    '+',
    '-',
    '.',
    '',
    ' ',
    ' 7',
    '7\t',
    '\n7',
    '7\n',
    '1 2',
    '1e',
    '1e+',
    'e5',
    '1e5',
    '1E5',
    '1e+5',
    '1e-5',
    '88 °C',
    '1,5',
    'nan',
    'NaN',
    'inf',
    '-inf',
    'Infinity',
    '0x10',
    '1e999',
    '-1e999',
    '1e-999',
    '-1e-400',
    '0e999',
    '0e-999',
    '5e-324',
    '2e-324',
    '3e-324',
    '2.2250738585072011e-308',
    '1.7976931348623157e308',
    '1.7976931348623159e308',
    '9007199254740993',
    '9007199254740992.5',
    '123456789012345678',
    '0.1',
    '84.93588199999998',
    '1e22',
    '1e23',
    '8.5e-5',
    '007',
    '-0',
    '+0',
    '1_000',
    '1.2.3',
    '٣',
    '3.141592653589793238462643383279502884197169399375105820974944592307816406286',
    '179769313486231580793728971405301',
    '0.000000000000000000000000000001',
    '1d5',
    '1f',
    '++5',
    '- 5',
    '5 -',
];

export const times: readonly string[] = [
    '2024-05-06 07:08:09',
    '2024-02-29 00:00:00',
    '2023-02-29 00:00:00',
    '1900-02-29 00:00:00',
    '2000-02-29 23:59:59',
    '2024-05-06 24:00:00',
    '2024-05-06 23:60:00',
    '2024-05-06 23:59:60',
    '2024-13-01 00:00:00',
    '2024-00-01 00:00:00',
    '2024-04-31 00:00:00',
    '2024/05/06 07:08:09',
    '2024-05-06T07:08:09',
    '2024-05-06 07:08',
    '2024-05-06',
    '2024',
    ' 2024-05-06 07:08:09',
    '2024-05-06 07:08:09 ',
    '2024-05-06 07:08:09.000',
    '1970-01-01 00:00:00',
    '1969-12-31 23:59:59',
    '0001-01-01 00:00:00',
    '0000-12-31 00:00:00',
    '9999-12-31 23:59:59',
    '2024-5-06 07:08:090',
    '2024-05-06 7:08:009',
    '２024-05-06 07:08:09',
    '',
    '2024-05-06 07:08:+9',
    '1999-12-31 23:59:59',
    '2000-01-01 00:00:00',
];

export const definitions: readonly Definition[] = [
    {
        name: 'layouts',
        sql: [
            samples('T1'),
            samples('t10'),
            samples('T2'),
            'CREATE TABLE "T 3"(id INTEGER PRIMARY KEY,datetime,VALUE)',
            alarms('AlarmData'),
            log('OperatorLog'),
            configuration,
            'CREATE TABLE "odd ""name"""(ID,DATETIME)',
            'CREATE TABLE more(a,b,c)',
            'CREATE VIEW seen AS select * from T1',
            'CREATE TABLE wide(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text,More text)',
            'CREATE TABLE strict1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text not null unique)',
            'CREATE TRIGGER watch AFTER INSERT ON T1 BEGIN SELECT 1; END',
            'CREATE UNIQUE INDEX once ON T2(DATETIME)',
            'CREATE INDEX "device index T1" on T1(DATETIME)',
            `insert into tb_config(COLLECTOR,NAME) values('T1','Boiler 1 Â°C'),('T2','Pump'),('t1','Kessel'),('gone','Old'),
         ('GONE','Older'),('T2',NULL),(CAST(X'C3BC' AS TEXT),CAST(X'FF41' AS TEXT)),('AlarmData','not a series')`,
            "insert into T1(DATETIME,Value) values('2024-05-06 07:08:09','87.5'),('2024-05-06 07:08:10',NULL)",
        ],
    },
    {
        name: 'free pages and a broken rule',
        sql: [
            log('OperatorLog').replace(' NOT NULL', ''),
            "insert into OperatorLog values(7,NULL,'admin','Set','no time')",
            'pragma writable_schema=on',
            "update sqlite_master set sql=replace(sql,'dateTime','dateTime NOT NULL')",
            'pragma writable_schema=reset',
            samples('T1'),
            configuration,
            "insert into tb_config(COLLECTOR,NAME) values('T1','T1')",
            series('T1', 60000, 'i', 'i'),
            'delete from T1 where ID>10',
        ],
    },
    {name: 'no configuration', sql: [samples('A'), samples('B'), "insert into A values(7,'2024-05-06 07:08:09','1')"]},
    {
        name: 'clock',
        sql: [
            samples('T1'),
            configuration,
            "insert into tb_config(COLLECTOR,NAME) values('T1','T1')",
            series('T1', 40, 'i*60', 'i'),
            `insert into T1(DATETIME,Value) values('2024-05-06 07:10:00','back'),('1970-01-01 00:00:12','1'),
         ('9000-01-01 00:00:00','2'),('2024','3'),('2024-05-06','4'),(NULL,'5'),('2024-05-06 09:00:00','6'),
         ('2024-05-06 07:05:00','7'),('2024-05-06 07:05:00','8'),('2024-05-06 12:05:01','9')`,
        ],
        ranges: [
            ['T1', at(0), at(18301), 40],
            ['T1', at(300), at(3000), 40],
        ],
        cells: ['T1'],
    },
    {
        name: 'most at once',
        sql: [
            samples('T1'),
            series('T1', 50, 'i/10', 'i'),
            "insert into T1(DATETIME,Value) values('2024-05-06 07:00:06','x')",
        ],
        ranges: [['T1', at(0), at(4), 40]],
    },
    {
        name: 'alarms',
        sql: [
            alarms('AlarmData'),
            `insert into AlarmData(LevelID,DATETIME,AlarmObject,AlarmType,CurrentValue,
        LimitValue,AlarmDescription,EndDate,EndTime) values
        (2,'2024-05-06 07:08:09','Pump 1','High','87.5','80','Level above limit','2024-05-06','07:20:00'),
        (3,'2024-05-06 07:10:00','Boiler','Temperature','121.4','110','Ã¼ber 110 Â°C','',''),
        (1,'2024-05-06 07:12:30','Valve 7','Stuck','','','Does not close',NULL,NULL),
        (1,'2024-05-06 07:12:31','Valve 8','Stuck','','','half','2024-05-06',''),
        (1,'2024-05-06 07:12:32','Valve 9','Stuck','','','a form of its own','6.5.2024','7:30'),
        (2,'2024-05-07 01:00:00','Pump 1','High','81.0','80','Level above limit','2024/05/07','01:00:30'),
        (2,'2024-05-07 02:00:00','Pump 1','High','81.0','80','before','2024/05/07','01:00:30'),
        ('text','yesterday','Öl','ΣΊΣΥΦΟΣ','ß','İı','KELVIN','','')`,
        ],
        cells: ['AlarmData'],
        finds: [
            ['AlarmData', 'PUMP'],
            ['AlarmData', 'ÜBER'],
            ['AlarmData', 'öl'],
            ['AlarmData', 'σίσυφος'],
            ['AlarmData', 'SS'],
            ['AlarmData', 'i'],
            ['AlarmData', 'kelvin'],
            ['AlarmData', '.*'],
        ],
    },
    {
        name: 'log',
        sql: [
            log('OperatorLog'),
            `insert into OperatorLog(DATETIME,userName,logName,message) values
        ('2024-05-06 07:08:09.123','admin','Login','Logged in'),
        ('2024-05-06 07:08:10.000','Jürgen','Set','Limit of "Pump 1"'||char(10)||'from 80'||char(9)||'to 85'),
        ('2024-05-06 07:08:10.000','admin','Set','%1 is; not, %L1'||char(13)),
        ('2024-05-06 07:08:10.100','admin','Set','a'||char(13)||'b'),
        ('2024-05-06 07:08:09.999','admin',NULL,CAST(X'41FF42E282' AS TEXT)),
        ('2024-05-06 07:08:11','admin','','a'||char(0)||'b'),
        ('1999-05-06 07:08:11.000','','',''), ('2024/05/06 07:08:11.000','','',X'00FF')`,
        ],
        cells: ['OperatorLog'],
        finds: [
            ['OperatorLog', 'JÜRGEN'],
            ['OperatorLog', 'pump 1'],
            ['OperatorLog', '%'],
        ],
    },
    {
        name: 'values',
        sql: [
            samples('T1'),
            `insert into T1(DATETIME,Value) values ${numbers
                .map((text, i) => `('${at(i)}',CAST(X'${Buffer.from(text).toString('hex')}' AS TEXT))`)
                .join(',')}`,
        ],
        cells: ['T1'],
    },
    {
        name: 'gaps, steps and duplicates',
        sql: [
            samples('T1'),
            series('T1', 4000, '(i + (i>1000)*7200 - (i>2000)*9000 + (i>3000)*80000 - (i%97=0)*3)', noise),
            "update T1 set Value='off' where ID%211=0",
        ],
        ranges: [
            ['T1', at(-3), at(82200), 40],
            ['T1', at(0), at(999), 40],
            ['T1', at(500), at(8200), 40],
            ['T1', at(1), at(1), 40],
            ['T1', at(123), at(2345), 97],
            ['T1', at(-3), at(82200), 640],
        ],
    },
    {name: 'one value', sql: [samples('T1'), series('T1', 1000, 'i*5', "'7'")], ranges: [['T1', at(0), at(4995), 40]]},
    {
        name: 'huge and tiny',
        sql: [
            samples('T1'),
            series(
                'T1',
                500,
                'i*7',
                "case i%7 when 0 then '1e300' when 1 then '-1e300' when 2 then '1e-300' when 3 then '-0' else i end",
            ),
        ],
        ranges: [['T1', at(0), at(3493), 40]],
    },
    {
        name: 'sums',
        sql: [
            samples('T1'),
            'create index i on T1(DATETIME)',
            series('T1', 9000, '(i + (i>4000)*1234)', noise),
            "update T1 set Value='off' where ID%211=0",
        ],
        trends: [['T1', '10s,1min,10min']],
        then: [series('T1', 50, '(11000+i*3)', noise)],
        ranges: [
            ['T1', at(0), at(11147), 40],
            ['T1', at(77), at(9333), 40],
            ['T1', at(1000), at(10233), 300],
            ['T1', at(4000), at(5235), 40],
        ],
    },
    {
        name: 'sums of removed rows',
        sql: [samples('T1'), 'create index i on T1(DATETIME)', series('T1', 9000, 'i', noise)],
        trends: [['T1', '10s,1min']],
        then: ['delete from T1 where ID<=4321'],
        ranges: [
            ['T1', at(0), at(8999), 40],
            ['T1', at(4000), at(8999), 40],
        ],
    },
    {
        name: 'sums of an emptied table',
        sql: [samples('T1'), 'create index i on T1(DATETIME)', series('T1', 900, 'i', noise)],
        trends: [['T1', '10s']],
        then: ['delete from T1', 'update sqlite_sequence set seq=0', series('T1', 300, 'i', "'5'")],
        ranges: [['T1', at(0), at(299), 40]],
    },
];
